#include "support/names.h"
#include "support/system.h"

#include <gtest/gtest.h>

#include <cstring>
#include <sched.h>
#include <string>
#include <sys/utsname.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

TEST(DeviceNameRules, Validity) {
    EXPECT_TRUE(zel_is_valid_device_name("box-1"));
    EXPECT_TRUE(zel_is_valid_device_name("a"));
    EXPECT_TRUE(zel_is_valid_device_name(std::string(31, 'x').c_str()));
    EXPECT_FALSE(zel_is_valid_device_name(std::string(32, 'x').c_str()));
    EXPECT_FALSE(zel_is_valid_device_name(nullptr));
    EXPECT_FALSE(zel_is_valid_device_name(""));
    EXPECT_FALSE(zel_is_valid_device_name("-bad"));
    EXPECT_FALSE(zel_is_valid_device_name("bad-"));
    EXPECT_FALSE(zel_is_valid_device_name("sp ace"));
    EXPECT_FALSE(zel_is_valid_device_name("box_1"));
}

struct SplitCase {
    const char* text;
    const char* head;
    const char* rest;  // null when no dot was found
};

TEST(SplitAtDot, EscapesAndRest) {
    const SplitCase cases[] = {
        {"box-1.lan", "box-1", "lan"},  {"a\\.b.c", "a\\.b", "c"}, {"a\\\\.b", "a\\\\", "b"},
        {"nodot", "nodot", nullptr},    {".lead", "", "lead"},      {"end\\", "end\\", nullptr},
        {"a.b.c", "a", "b.c"},
    };
    for (const SplitCase& c : cases) {
        char buf[32];
        std::strcpy(buf, c.text);
        char* rest = buf;
        EXPECT_EQ(zel_split_at_dot(buf, &rest), buf);
        EXPECT_STREQ(buf, c.head) << c.text;
        if (c.rest == nullptr) {
            EXPECT_EQ(rest, nullptr) << c.text;
        } else {
            EXPECT_STREQ(rest, c.rest) << c.text;
        }
    }
    char plain[] = "x.y";
    EXPECT_EQ(zel_split_at_dot(plain, nullptr), plain);
    EXPECT_STREQ(plain, "x");
}

TEST(DefaultDeviceName, CutsToTheBuffer) {
    char buf[32];
    size_t len = sizeof buf;
    EXPECT_EQ(zel_default_device_name(buf, &len), ZEL_SUCCESS);
    EXPECT_STREQ(buf, "TorviDevice");
    EXPECT_EQ(len, 12u);
    len = 6;
    EXPECT_EQ(zel_default_device_name(buf, &len), ZEL_SUCCESS);
    EXPECT_STREQ(buf, "Torvi");
    EXPECT_EQ(len, 6u);
    len = 0;
    EXPECT_EQ(zel_default_device_name(buf, &len), ZEL_INVALIDPARAMETER);
    EXPECT_EQ(zel_default_device_name(nullptr, &len), ZEL_INVALIDPARAMETER);
}

TEST(HostnameQuery, SizeNeededAndCut) {
    struct utsname u;
    ASSERT_EQ(uname(&u), 0);
    const std::string host = u.nodename;
    size_t len = 0;
    EXPECT_EQ(zel_hostname_query(nullptr, &len), ZEL_SUCCESS);
    EXPECT_EQ(len, host.size() + 1);
    char buf[3] = {'x', 'x', 'x'};
    len = sizeof buf;
    EXPECT_EQ(zel_hostname_query(buf, &len), ZEL_SUCCESS);
    EXPECT_EQ(len, host.size() + 1);
    EXPECT_EQ(std::string(buf), host.substr(0, 2));
    EXPECT_EQ(zel_hostname_query(buf, nullptr), ZEL_SUCCESS);

    char name[256];
    EXPECT_EQ(zel_hostname(name, sizeof name), ZEL_SUCCESS);
    EXPECT_EQ(std::string(name), host);
    EXPECT_EQ(zel_hostname(nullptr, 5), ZEL_INVALIDPARAMETER);
    if (host.size() >= 2) {
        char small[2] = {'x', 'x'};
        EXPECT_EQ(zel_hostname(small, sizeof small), ZEL_TRUNCATED);
        EXPECT_EQ(small[1], 0);
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
        close(fds[0]);
        if (unshare(CLONE_NEWUTS) != 0 || sethostname(host, std::strlen(host)) != 0) _exit(3);
        char buf[64] = {};
        size_t len = size;
        const zel_error_t code = zel_device_name(buf, &len);
        const std::string report = std::to_string(code) + ":" + buf + ":" + std::to_string(len);
        if (write(fds[1], report.data(), report.size()) < 0) _exit(4);
        _exit(0);
    }
    close(fds[1]);
    std::string out;
    char chunk[128];
    ssize_t n;
    while ((n = read(fds[0], chunk, sizeof chunk)) > 0) out.append(chunk, static_cast<size_t>(n));
    close(fds[0]);
    int status = 0;
    waitpid(pid, &status, 0);
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) return "";
    return out;
}

struct DeviceNameCase {
    const char* name;
    const char* host;
    size_t size;
    const char* report;
};

class DeviceName : public ::testing::TestWithParam<DeviceNameCase> {};

TEST_P(DeviceName, FromHostName) {
    const DeviceNameCase& c = GetParam();
    const std::string got = device_name_for_host(c.host, c.size);
    if (got.empty()) GTEST_SKIP() << "no private UTS namespace here";
    EXPECT_EQ(got, c.report);
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
    size_t len = 0;
    EXPECT_EQ(zel_device_name(buf, &len), ZEL_INVALIDPARAMETER);
    len = 8;
    EXPECT_EQ(zel_device_name(nullptr, &len), ZEL_INVALIDPARAMETER);
    EXPECT_EQ(zel_device_name(buf, nullptr), ZEL_INVALIDPARAMETER);
}

TEST(OsTexts, FitOrRefuse) {
    char buf[64];
    EXPECT_EQ(zel_os_name(buf, sizeof buf), ZEL_SUCCESS);
    EXPECT_STREQ(buf, "Linux");
    char small[5];
    EXPECT_EQ(zel_os_name(small, sizeof small), ZEL_INVALIDPARAMETER);
    EXPECT_STREQ(small, "Linu");
    EXPECT_EQ(zel_os_name(buf, 6), ZEL_SUCCESS);
    EXPECT_EQ(zel_os_name(nullptr, 6), ZEL_INVALIDPARAMETER);

    struct utsname u;
    ASSERT_EQ(uname(&u), 0);
    EXPECT_EQ(zel_os_sysname(buf, sizeof buf), ZEL_SUCCESS);
    EXPECT_STREQ(buf, u.sysname);
    char rel[sizeof u.release];
    EXPECT_EQ(zel_os_release(rel, sizeof rel), ZEL_SUCCESS);
    EXPECT_STREQ(rel, u.release);
    EXPECT_EQ(zel_os_release(rel, 2), ZEL_INVALIDPARAMETER);
    EXPECT_EQ(std::strlen(rel), 1u);
    EXPECT_EQ(zel_os_sysname(nullptr, 8), ZEL_INVALIDPARAMETER);
}

TEST(SystemWrappers, YieldAndSleep) {
    EXPECT_EQ(zel_yield(), ZEL_SUCCESS);
    EXPECT_EQ(zel_sleep_ms(0), ZEL_SUCCESS);
    EXPECT_EQ(zel_sleep_ms(2), ZEL_SUCCESS);
}

}  // namespace
