#include "support/names.h"
#include "support/system.h"

#include <gtest/gtest.h>

#include <cstring>
#include <sched.h>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

namespace {

TEST(DeviceNameRules, Validity) {
    const std::pair<std::string, bool> cases[] = {
        {"box-1", true},  {"a", true},     {std::string(31, 'x'), true}, {std::string(32, 'x'), false},
        {"", false},      {"-bad", false}, {"bad-", false},              {"sp ace", false}, {"box_1", false}};
    for (const auto& c : cases) EXPECT_EQ(zel_is_valid_device_name(c.first.c_str()), c.second) << c.first;
    EXPECT_FALSE(zel_is_valid_device_name(nullptr));
}

TEST(SplitAtDot, EscapesAndRest) {
    struct Case {
        const char *text, *head, *rest;  // rest null when no dot was found
    } const cases[] = {{"box-1.lan", "box-1", "lan"}, {"a\\.b.c", "a\\.b", "c"}, {"a\\\\.b", "a\\\\", "b"},
                       {"nodot", "nodot", nullptr},   {".lead", "", "lead"},     {"end\\", "end\\", nullptr},
                       {"a.b.c", "a", "b.c"}};
    for (const Case& c : cases) {
        char buf[32];
        std::strcpy(buf, c.text);
        char* rest = buf;
        EXPECT_EQ(zel_split_at_dot(buf, &rest), buf);
        EXPECT_STREQ(buf, c.head) << c.text;
        EXPECT_STREQ(rest, c.rest) << c.text;
    }
}

// Runs zel_device_name in a child with its own host name (a private UTS
// namespace), so the test never changes the machine's name. Returns the child's
// "<code>:<name>:<len>" report, or "" when namespaces are not available.
std::string device_name_for_host(const char* host, size_t size) {
    int fds[2];
    if (pipe(fds) != 0) return "";
    const pid_t pid = fork();
    if (pid == 0) {
        if (unshare(CLONE_NEWUTS) != 0 || sethostname(host, std::strlen(host)) != 0) _exit(3);
        char buf[64] = {};
        size_t len = size;
        const zel_error_t code = zel_device_name(buf, &len);
        const std::string report = std::to_string(code) + ":" + buf + ":" + std::to_string(len);
        _exit(write(fds[1], report.data(), report.size()) < 0 ? 4 : 0);
    }
    close(fds[1]);
    char out[128] = {};
    const ssize_t n = read(fds[0], out, sizeof out - 1);
    close(fds[0]);
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) && WEXITSTATUS(status) == 0 && n > 0 ? out : "";
}

struct DeviceNameCase {
    const char *name, *host;
    size_t size;
    const char* report;
};

class DeviceName : public ::testing::TestWithParam<DeviceNameCase> {};

TEST_P(DeviceName, FromHostName) {
    const std::string got = device_name_for_host(GetParam().host, GetParam().size);
    if (got.empty()) GTEST_SKIP() << "no private UTS namespace here";
    EXPECT_EQ(got, GetParam().report);
}

INSTANTIATE_TEST_SUITE_P(
    Hosts, DeviceName,
    ::testing::Values(DeviceNameCase{"ShortName", "box-1.lan", 32, "0:box-1:6"},
                      DeviceNameCase{"InvalidFallsBack", "-bad", 32, "0:TorviDevice:12"},
                      DeviceNameCase{"EscapedDotStaysInvalid", "a\\.b.lan", 32, "0:TorviDevice:12"},
                      // The short name must fit whole; a cut one is never used.
                      DeviceNameCase{"TooSmallFallsBack", "box-12345.lan", 6, "0:Torvi:6"},
                      DeviceNameCase{"ExactFit", "box-1.lan", 6, "0:box-1:6"}),
    [](const ::testing::TestParamInfo<DeviceNameCase>& i) { return std::string(i.param.name); });

TEST(DeviceNameArgs, Refused) {
    char buf[8];
    size_t zero = 0, eight = 8;
    EXPECT_EQ(zel_device_name(buf, &zero), ZEL_INVALIDPARAMETER);
    EXPECT_EQ(zel_device_name(nullptr, &eight), ZEL_INVALIDPARAMETER);
    EXPECT_EQ(zel_device_name(buf, nullptr), ZEL_INVALIDPARAMETER);
}

TEST(OsName, FitsOrIsCutAndRefused) {
    char buf[6];
    EXPECT_EQ(zel_os_name(buf, sizeof buf), ZEL_SUCCESS);
    EXPECT_STREQ(buf, "Linux");
    EXPECT_EQ(zel_os_name(buf, 5), ZEL_INVALIDPARAMETER);
    EXPECT_STREQ(buf, "Linu");
}

}  // namespace
