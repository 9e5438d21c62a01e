// Signed upgrades (-K): keys and signatures made by Debian's real minisign and
// signify-openbsd, firmware flashed by the real brivlo on a simulated board,
// locally and from Debian's in.tftpd. Every refusal ends with 14, removes the
// status file and leaves the flash untouched (no erase, no write in the log).
#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "common/fake_tftp_server.h"
#include "common/tftpd.h"
#include "package_fixture.h"
#include "release_keys.h"

namespace {

using e2e::Board;
using testutil::ProcessResult;

constexpr int kRefused = 14;

using e2e::KeyPair;
using e2e::makeKeys;
using e2e::sign;
using e2e::Tool;

enum class Form { kRaw, kPackage };
enum class Source { kLocal, kTftp };

// The firmware of a case: a raw image for fpga, or a package with one fpga part.
std::string makeFirmware(const Board& board, Form form, const std::string& data) {
    if (form == Form::kPackage) {
        return e2e::buildPackage(board, {e2e::kLocalDeviceCode, "", {{"fpga", "1.0.0.0", data}}, {}});
    }
    const std::string path = board.scratch("fw.bin");
    testutil::writeFile(path, data);
    return path;
}

std::string baseName(const std::string& path) { return path.substr(path.rfind('/') + 1); }

// Runs brivlo for `firmware` (and its .minisig when served) with `extra` options.
ProcessResult upgrade(const Board& board, Source source, Form form, const std::string& firmware,
                      const std::vector<std::string>& extra) {
    const std::string partition = form == Form::kPackage ? "qim" : "fpga";
    std::vector<std::string> args;
    if (source == Source::kTftp) {
        testutil::Tftpd tftpd;
        tftpd.addFile(baseName(firmware), testutil::readFile(firmware));
        if (testutil::fileExists(firmware + ".minisig")) {
            tftpd.addFile(baseName(firmware) + ".minisig", testutil::readFile(firmware + ".minisig"));
        }
        args = {"tftp://127.0.0.1:" + std::to_string(tftpd.port()), baseName(firmware), partition};
        args.insert(args.end(), extra.begin(), extra.end());
        return board.brivlo(args);
    }
    args = {"local", firmware, partition};
    args.insert(args.end(), extra.begin(), extra.end());
    return board.brivlo(args);
}

bool flashTouched(const Board& board) {
    return !board.logLines("erase ").empty() || !board.logLines("write ").empty();
}

struct AcceptCase {
    const char* name;
    Tool tool;
    Form form;
    Source source;
};
void PrintTo(const AcceptCase& c, std::ostream* os) { *os << c.name; }

class SignedAccepted : public ::testing::TestWithParam<AcceptCase> {};

TEST_P(SignedAccepted, IsFlashed) {
    const AcceptCase& c = GetParam();
    Board board;
    const KeyPair key = makeKeys(board, c.tool, "release");
    const std::string data = e2e::randomBytes(70000, 7);
    const std::string firmware = makeFirmware(board, c.form, data);
    sign(key, firmware);

    const ProcessResult r = upgrade(board, c.source, c.form, firmware, {"-K", key.pub});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.err.find("Signature"), std::string::npos) << r.err;
    EXPECT_EQ(board.partition("fpga").substr(0, data.size()), data);
    EXPECT_FALSE(board.statusExists());
}

INSTANTIATE_TEST_SUITE_P(E2e, SignedAccepted,
                         ::testing::Values(
                             AcceptCase{"PackagePrehashedLocal", Tool::kMinisign, Form::kPackage, Source::kLocal},
                             AcceptCase{"PackageSignifyLocal", Tool::kSignify, Form::kPackage, Source::kLocal},
                             AcceptCase{"PackagePrehashedTftp", Tool::kMinisign, Form::kPackage, Source::kTftp},
                             AcceptCase{"RawPrehashedLocal", Tool::kMinisign, Form::kRaw, Source::kLocal},
                             AcceptCase{"RawSignifyTftp", Tool::kSignify, Form::kRaw, Source::kTftp}),
                         [](const ::testing::TestParamInfo<AcceptCase>& i) { return i.param.name; });

// What a refusal case does between signing and the run: the firmware path,
// the release key and the key pair that signed it; returns the key file
// given to -K.
using Tamper = std::function<std::string(const Board&, const std::string& firmware, const KeyPair& release)>;

struct RefuseCase {
    const char* name;
    Form form;
    Source source;
    Tamper tamper;
    // The refusal line's reason, "FILE" standing for the firmware as named;
    // for a key refusal the end of the "Release key" line.
    std::string reason;
};
void PrintTo(const RefuseCase& c, std::ostream* os) { *os << c.name; }

class SignedRefused : public ::testing::TestWithParam<RefuseCase> {};

TEST_P(SignedRefused, NothingIsErased) {
    const RefuseCase& c = GetParam();
    Board board;
    const KeyPair key = makeKeys(board, Tool::kMinisign, "release");
    const std::string firmware = makeFirmware(board, c.form, e2e::randomBytes(70000, 8));
    sign(key, firmware);
    const std::string keyFile = c.tamper(board, firmware, key);

    const ProcessResult r = upgrade(board, c.source, c.form, firmware, {"-K", keyFile});
    EXPECT_EQ(r.status, kRefused) << r.err;
    const std::string named = c.source == Source::kTftp ? baseName(firmware) : firmware;
    std::string reason = c.reason;
    if (reason.find("FILE") != std::string::npos) reason.replace(reason.find("FILE"), 4, named);
    const bool keyRefusal = reason.rfind("cannot be used", 0) == 0;
    const std::string line = keyRefusal ? "Release key " + keyFile + " " + reason + "\n"
                                        : "Signature check failed for " + named + ": " + reason;
    EXPECT_NE(r.err.find(line), std::string::npos) << r.err;
    // One refusal line, whatever else the flow prints around it.
    EXPECT_EQ(r.err.find(keyRefusal ? "Release key" : "Signature check failed"),
              r.err.rfind(keyRefusal ? "Release key" : "Signature check failed"));
    EXPECT_FALSE(flashTouched(board));
    EXPECT_FALSE(board.statusExists());
}

// The same package rebuilt with one byte of its part changed: its own
// checksums are right, the signature is for the old bytes.
std::string changedPartByte(const Board& board, const std::string&, const KeyPair& k) {
    std::string data = e2e::randomBytes(70000, 8);
    data[1000] ^= 1;
    e2e::buildPackage(board, {e2e::kLocalDeviceCode, "", {{"fpga", "1.0.0.0", data}}, {}});
    return k.pub;
}

std::string signatureOfAnotherFile(const Board& board, const std::string& firmware, const KeyPair& k) {
    const std::string other = board.scratch("other.bin");
    testutil::writeFile(other, "another file");
    sign(k, other, firmware + ".minisig");
    return k.pub;
}

std::string anotherKey(const Board& board, const std::string&, const KeyPair&) {
    return makeKeys(board, Tool::kSignify, "other").pub;
}

std::string noSignature(const Board&, const std::string& firmware, const KeyPair& k) {
    std::remove((firmware + ".minisig").c_str());
    return k.pub;
}

std::string changedTrustedComment(const Board&, const std::string& firmware, const KeyPair& k) {
    std::string text = testutil::readFile(firmware + ".minisig");
    const std::size_t at = text.find("release 1.2");
    text.replace(at, 11, "release 9.9");
    testutil::writeFile(firmware + ".minisig", text);
    return k.pub;
}

std::string malformedSignature(const Board&, const std::string& firmware, const KeyPair& k) {
    std::string text = testutil::readFile(firmware + ".minisig");
    text.erase(text.find('\n') + 10, 1);  // one base64 character less
    testutil::writeFile(firmware + ".minisig", text);
    return k.pub;
}

// A server could send anything as the signature: no more than a signature
// file's worth is kept.
std::string oversizedSignature(const Board&, const std::string& firmware, const KeyPair& k) {
    testutil::writeFile(firmware + ".minisig", testutil::readFile(firmware + ".minisig") + std::string(5000, 'x'));
    return k.pub;
}

std::string malformedKey(const Board& board, const std::string&, const KeyPair&) {
    const std::string path = board.scratch("bad.pub");
    testutil::writeFile(path, "untrusted comment: minisign public key\nRWQnot a key\n");
    return path;
}

const std::string kNoMatch = "signature does not match the file\n";

INSTANTIATE_TEST_SUITE_P(
    E2e, SignedRefused,
    ::testing::Values(
        RefuseCase{"ChangedPartByteChecksumsRecomputed", Form::kPackage, Source::kLocal, changedPartByte, kNoMatch},
        RefuseCase{"PackageSignatureOfAnotherFile", Form::kPackage, Source::kLocal, signatureOfAnotherFile,
                   kNoMatch},
        RefuseCase{"RawSignatureOfAnotherFileTftp", Form::kRaw, Source::kTftp, signatureOfAnotherFile, kNoMatch},
        RefuseCase{"AnotherKey", Form::kPackage, Source::kLocal, anotherKey, "signed with another key (key number "},
        RefuseCase{"MissingSignatureLocal", Form::kRaw, Source::kLocal, noSignature, "signature FILE.minisig file not found\n"},
        RefuseCase{"MissingSignatureOnServer", Form::kPackage, Source::kTftp, noSignature,
                   "no signature FILE.minisig: object or item not found: (0x000b=NOTFOUND)\n"},
        RefuseCase{"ChangedTrustedComment", Form::kPackage, Source::kLocal, changedTrustedComment,
                   "trusted comment does not match its signature\n"},
        RefuseCase{"MalformedSignatureTftp", Form::kRaw, Source::kTftp, malformedSignature,
                   "signature FILE.minisig malformed\n"},
        RefuseCase{"OversizedSignatureOnServer", Form::kPackage, Source::kTftp, oversizedSignature,
                   "signature FILE.minisig larger than 4096 bytes\n"},
        RefuseCase{"MalformedKey", Form::kPackage, Source::kLocal, malformedKey, "cannot be used: malformed"}),
    [](const ::testing::TestParamInfo<RefuseCase>& i) { return i.param.name; });

// SIGINT while the signature is fetched from a server that has stopped
// answering ends the run at once, as during the download: nothing erased,
// the status file gone, 128 + 2 (the stall alone would end it with 14 after
// the client's abort time).
TEST(SignedUpgrade, InterruptDuringStalledSignatureFetch) {
    Board board;
    const KeyPair key = makeKeys(board, Tool::kMinisign, "release");
    testutil::FakeTftpScript script;
    script.content = e2e::randomBytes(1000, 10);
    script.answeredRequests = 1;  // the firmware; the signature's request goes unanswered
    testutil::FakeTftpServer server(script);

    auto run = board.startBrivlo(
        {"tftp://127.0.0.1:" + std::to_string(server.port()), "fw.bin", "fpga", "-K", key.pub});
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (server.readRequests().size() < 2 && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    ASSERT_EQ(server.readRequests().size(), 2u) << "no request for the signature";
    EXPECT_EQ(server.readRequests()[1].fileName, "fw.bin.minisig");
    run->kill(SIGINT);
    const ProcessResult r = run->wait();
    EXPECT_EQ(r.status, 130);
    EXPECT_EQ(r.err, "main: Upgrade stopped by signal 2 (Interrupt)\n");
    EXPECT_FALSE(flashTouched(board));
    EXPECT_FALSE(board.statusExists());
}

// Without -K a signature beside the file, even a wrong one, changes nothing.
TEST(SignedUpgrade, WithoutKeyASignatureIsNotLookedAt) {
    Board board;
    const std::string data = e2e::randomBytes(70000, 9);
    const std::string firmware = makeFirmware(board, Form::kPackage, data);
    testutil::writeFile(firmware + ".minisig", "not a signature");
    const ProcessResult r = upgrade(board, Source::kLocal, Form::kPackage, firmware, {});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.err, "");
    EXPECT_EQ(board.partition("fpga").substr(0, data.size()), data);
}

}  // namespace
