#include "brivlo_board.h"

#include <gtest/gtest.h>

namespace e2e {

namespace {

std::vector<std::string> onBoard(const std::string& dir, const std::vector<std::string>& args) {
    std::vector<std::string> argv = {FLASHSIM_BIN, "run", dir, "--", BRIVLO_BIN};
    argv.insert(argv.end(), args.begin(), args.end());
    return argv;
}

testutil::ProcessOptions withTimeout(double seconds) {
    testutil::ProcessOptions options;
    options.timeoutSeconds = seconds;
    return options;
}

}  // namespace

testutil::ProcessResult Board::brivlo(const std::vector<std::string>& args, double timeoutSeconds) const {
    testutil::ProcessResult r = testutil::runProcess(onBoard(dir(), args), withTimeout(timeoutSeconds));
    EXPECT_FALSE(r.timedOut) << "brivlo did not end";
    return r;
}

std::unique_ptr<testutil::BackgroundProcess> Board::startBrivlo(const std::vector<std::string>& args,
                                                                double timeoutSeconds) const {
    return std::make_unique<testutil::BackgroundProcess>(onBoard(dir(), args), withTimeout(timeoutSeconds));
}

void Board::writeStatus(const std::string& content) const {
    testutil::writeFile(statusPath(), content);
}

bool Board::statusExists() const {
    return testutil::fileExists(statusPath());
}

std::string Board::lockedState(const std::string& name) const {
    const testutil::ProcessResult r = flashsim("show", {name});
    const std::string key = "locked=";
    const std::size_t at = r.out.find(key);
    if (at == std::string::npos) {
        ADD_FAILURE() << "no lock state for " << name << ": " << r.out << r.err;
        return "";
    }
    return r.out.substr(at + key.size(), r.out.find_first_of(" \n", at) - at - key.size());
}

std::string dots(std::size_t count) {
    return std::string(count, '.');
}

std::string usageText(const std::string& p) {
    return "Usage: \n"
           "1. " + p + " <download protocol>://<IP address>:[<port>] <filename> <partition name> [OPTIONS]\n"
           "\texample: " + p + " tftp://192.168.10.100:9000 example.qim qim\n"
           "2. " + p + " local <absolute file path> <partition name> [OPTIONS]\n"
           "\texample: " + p + " local /tmp/example.bin image\n"
           "3. " + p + " [OPTIONS]\n"
           "Options:\n"
           "  -? | --help: print this message and exit\n"
           "  -S: get current upgrade status\n"
           "  -O: override model ID matching for QIM file upgrades\n"
           "  -A: override manufacturer ID matching for QIM file upgrades\n"
           "  -K <public key file>: flash only a file signed with this minisign or signify key\n"
           "Partition Names:\n"
           "qim, boot, bootenv, brdinfo, capability, config, flashall, fpga, fsbl, image, kernel, "
           "license, rootfs, safeboot, safebootenv, safefpga, safelicense, userarea, skd, safeall\n";
}

}  // namespace e2e
