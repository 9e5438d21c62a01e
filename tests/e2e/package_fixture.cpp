#include "package_fixture.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <chrono>
#include <cstdio>
#include <memory>
#include <thread>

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/user.h>
#include <sys/wait.h>
#include <unistd.h>

namespace e2e {

const char* const kDone = "\nBrivlo done\n";
const char* const kFailed = "Failed to write QIM file. Exiting.\n";

std::string buildPackage(const Board& board, const PackageSpec& plan, const std::string& name) {
    const std::string out = board.scratch(name);
    std::vector<std::string> argv = {QIMTOOL_BIN, "create", "-o", out, "--device-code", plan.deviceCode,
                                     "--product-version", "0x01020304"};
    if (!plan.mfgc.empty()) {
        argv.insert(argv.end(), {"--mfgc", plan.mfgc});
    }
    for (std::size_t i = 0; i < plan.parts.size(); ++i) {
        const std::string file = board.scratch(name + ".part" + std::to_string(i));
        testutil::writeFile(file, plan.parts[i].data);
        argv.insert(argv.end(), {"--part", plan.parts[i].kind + ":" + plan.parts[i].release + ":" + file});
    }
    for (const std::string& model : plan.models) {
        argv.insert(argv.end(), {"--model", model});
    }
    if (plan.v2) {
        argv.push_back("--v2");
    }
    const testutil::ProcessResult r = testutil::runProcess(argv);
    EXPECT_EQ(r.status, 0) << "qimtool create failed: " << r.err;
    return out;
}

std::string report(const std::string& packagePath) {
    const testutil::ProcessResult r = testutil::runProcess({QIMTOOL_BIN, "info", packagePath});
    EXPECT_EQ(r.status, 0) << r.err;
    // qimtool ends with a line about the signature beside the file, which
    // brivlo's report does not have.
    const std::size_t signatureLine = r.out.rfind("Signature: ");
    EXPECT_NE(signatureLine, std::string::npos) << r.out;
    return signatureLine == std::string::npos ? r.out : r.out.substr(0, signatureLine);
}

std::string partOutput(const std::string& partition, uint32_t size) {
    return "\nQIM partition = " + partition + "\n" + partitionWriteOut(partition, size);
}

CombinedImage makeCombinedImage(const Board& board, uint32_t dataSize, uint32_t rootfsSize) {
    const std::string data = board.scratch("uimage.data");
    const std::string uimage = board.scratch("uimage");
    testutil::writeFile(data, randomBytes(dataSize, 21));
    const testutil::ProcessResult r =
        testutil::runProcess({"/usr/bin/mkimage", "-A", "arm", "-O", "linux", "-T", "kernel", "-C", "none",
                              "-a", "0x8000", "-e", "0x8000", "-n", "brivlo-pkg", "-d", data, uimage});
    EXPECT_EQ(r.status, 0) << "mkimage (u-boot-tools) failed: " << r.err;
    CombinedImage image;
    // The split counts E + 0x700 + data size bytes as kernel: the header's 64
    // bytes, the data, and 0x700 - 64 bytes behind them.
    image.bytes = randomBytes(kEraseSize, 22) + testutil::readFile(uimage) + randomBytes(0x700 - 64, 23);
    image.kernelLength = kEraseSize + 0x700 + dataSize;
    EXPECT_EQ(image.bytes.size(), image.kernelLength);
    image.bytes += randomBytes(rootfsSize, 24);
    return image;
}

std::map<std::string, std::string> flashFiles(const Board& board) {
    std::map<std::string, std::string> files;
    const std::string dir = board.dir() + "/flash";
    std::unique_ptr<DIR, int (*)(DIR*)> listing(opendir(dir.c_str()), &closedir);
    if (!listing) {
        return files;
    }
    while (const dirent* entry = readdir(listing.get())) {
        if (entry->d_name[0] != '.') {
            files[entry->d_name] = testutil::readFile(dir + "/" + entry->d_name);
        }
    }
    return files;
}

std::string textId(const std::string& text) {
    static const char kDigits[] = "0123456789abcdef";
    std::string hex;
    for (std::size_t i = 0; i < 8; ++i) {
        const unsigned char c = i < text.size() ? static_cast<unsigned char>(text[i]) : 0;
        hex += kDigits[c >> 4];
        hex += kDigits[c & 15];
    }
    return hex;
}

std::vector<std::string> statusHistory(const Board& board) {
    // "rename brivlo_status from=X result=0 content=TEXT", TEXT with "\n"
    // and "\\" escaped; "remove brivlo_status result=0".
    std::vector<std::string> states;
    for (const std::string& line : board.logLines("")) {
        if (line.rfind("remove brivlo_status result=0", 0) == 0) {
            states.push_back(kRemoved);
            continue;
        }
        if (line.rfind("rename brivlo_status ", 0) != 0) continue;
        const std::size_t at = line.find(" content=");
        if (at == std::string::npos) continue;
        std::string content;
        for (std::size_t i = at + 9; i < line.size(); ++i) {
            if (line[i] == '\\' && i + 1 < line.size()) {
                content += line[++i] == 'n' ? '\n' : line[i];
            } else {
                content += line[i];
            }
        }
        states.push_back(content);
    }
    return states;
}

bool canFailSockets() {
#if defined(__x86_64__)
    // qemu-user answers ptrace with ENOSYS: ask once, in a child of our own.
    static const bool traceable = [] {
        const pid_t pid = fork();
        if (pid == 0) _exit(ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) == 0 ? 0 : 1);
        int status = 0;
        return pid > 0 && waitpid(pid, &status, 0) == pid && WIFEXITED(status) && WEXITSTATUS(status) == 0;
    }();
    return traceable;
#else
    return false;
#endif
}

testutil::ProcessResult runWithoutSockets(const Board& board, const std::vector<std::string>& args) {
    testutil::ProcessResult result;
#if defined(__x86_64__)
    const std::string outPath = board.scratch("traced.out");
    const std::string errPath = board.scratch("traced.err");
    std::vector<std::string> argv = {FLASHSIM_BIN, "run", board.dir(), "--", BRIVLO_BIN};
    argv.insert(argv.end(), args.begin(), args.end());
    std::vector<char*> cargv;
    for (std::string& a : argv) cargv.push_back(&a[0]);
    cargv.push_back(nullptr);

    const pid_t pid = fork();
    if (pid == 0) {
        const int out = open(outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        const int err = open(errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        if (out < 0 || err < 0 || dup2(out, 1) < 0 || dup2(err, 2) < 0) _exit(126);
        // A leak checker cannot stop the world of a traced process.
        setenv("ASAN_OPTIONS", "detect_leaks=0", 1);
        ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
        raise(SIGSTOP);
        execv(cargv[0], cargv.data());
        _exit(127);
    }
    if (pid < 0) {
        ADD_FAILURE() << "fork failed";
        return result;
    }
    // Watchdog: a run that hangs is killed, which ends the loop below.
    std::atomic<bool> finished{false};
    std::thread watchdog([&finished, pid] {
        for (int i = 0; i < 1200 && !finished; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(50));
        if (!finished) kill(pid, SIGKILL);
    });

    int status = 0;
    waitpid(pid, &status, 0);
    ptrace(PTRACE_SETOPTIONS, pid, nullptr,
           reinterpret_cast<void*>(PTRACE_O_TRACESYSGOOD | PTRACE_O_EXITKILL | PTRACE_O_TRACEEXEC));
    ptrace(PTRACE_SYSCALL, pid, nullptr, nullptr);
    while (waitpid(pid, &status, 0) == pid && WIFSTOPPED(status)) {
        int deliver = 0;
        if (WSTOPSIG(status) == (SIGTRAP | 0x80)) {
            __ptrace_syscall_info info{};
            if (ptrace(PTRACE_GET_SYSCALL_INFO, pid, reinterpret_cast<void*>(sizeof info), &info) > 0 &&
                info.op == PTRACE_SYSCALL_INFO_ENTRY && info.entry.nr == SYS_socket) {
                // An invalid system call number skips the call: it returns -ENOSYS.
                ptrace(PTRACE_POKEUSER, pid, reinterpret_cast<void*>(offsetof(user_regs_struct, orig_rax)),
                       reinterpret_cast<void*>(-1L));
            }
        } else if (WSTOPSIG(status) != SIGTRAP) {
            deliver = WSTOPSIG(status);
        }
        ptrace(PTRACE_SYSCALL, pid, nullptr, reinterpret_cast<void*>(static_cast<long>(deliver)));
    }
    finished = true;
    watchdog.join();
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    result.out = testutil::readFile(outPath);
    result.err = testutil::readFile(errPath);
#else
    (void)board;
    (void)args;
    ADD_FAILURE() << "socket failure injection needs x86-64";
#endif
    return result;
}

}  // namespace e2e
