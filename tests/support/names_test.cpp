#include "support/names.h"

#include <gtest/gtest.h>

#include <cstring>
#include <sched.h>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

namespace {

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
void PrintTo(const DeviceNameCase& c, std::ostream* os) { *os << c.name; }

class DeviceName : public ::testing::TestWithParam<DeviceNameCase> {};

TEST_P(DeviceName, FromHostName) {
    const std::string got = device_name_for_host(GetParam().host, GetParam().size);
    if (got.empty()) GTEST_SKIP() << "no private UTS namespace here";
    EXPECT_EQ(got, GetParam().report);
}

INSTANTIATE_TEST_SUITE_P(
    Hosts, DeviceName,
    // No product path names the device: the two cases its contract names.
    // The length reported on success is the whole host name's size.
    ::testing::Values(DeviceNameCase{"ShortName", "box-1.lan", 32, "0:box-1:10"},
                      DeviceNameCase{"InvalidFallsBack", "-bad", 32, "0:TorviDevice:12"}),
    [](const ::testing::TestParamInfo<DeviceNameCase>& i) { return std::string(i.param.name); });

}  // namespace
