// The minisign and signify key and signature parsers and the check, against
// files written by the real tools (minisign 0.11, signify-openbsd): what they
// accept is accepted, every damaged shape is refused, and the descriptor and
// buffer checks agree.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include <fcntl.h>
#include <unistd.h>

#include "common/tempdir.h"
#include "qim/signature_file.h"
#include "qim/signature_key.h"
#include "qim/signature_verify.h"

namespace {

// Made with `minisign -G -W` and `signify-openbsd -G -n`.
const std::string kMinisignKey =
    "untrusted comment: minisign public key 57170AD0F66E77D2\n"
    "RWTSd2720AoXV6Ilww42nqTHGjlNxn2caKoH7b9jWKHjDObjM89XD09t\n";
const std::string kSignifyKey =
    "untrusted comment: signify public key\n"
    "RWSCRDUhUxeepoFKyrTt59iaNLnpGqUXPwcwBr14M5c/mBz7vT14Qwvj\n";

// The signed message, and its signatures: `minisign -S -t "release 1.2.3"`,
// `minisign -S -l -t legacy`, `signify-openbsd -S`.
const std::string kMessage = "firmware 1.2.3\n";
const std::string kPrehashed =
    "untrusted comment: signature from minisign secret key\n"
    "RUTSd2720AoXVy85je//k9XdWnDrYcjR/FMXtwPTDD68yrtUlMM/ejKu028jlHkB1Wt1Ea9sLCpGmQEuG2hbyZvNtvfCz1FpUQ4=\n"
    "trusted comment: release 1.2.3\n"
    "ZT74QPiKUpsEzRQUPqz8ZGSdCDsIqnvKVED8PUhekmU6eer/BoQIeKktPe+xw9RbhHS0x1dlayMFwgAbAfvcDA==\n";
const std::string kLegacy =
    "untrusted comment: signature from minisign secret key\n"
    "RWTSd2720AoXV6OqqeXGE17iULyihACaK1wMwqal2pyTRiLFjU01RoPgB2zPcn8GX5HTU7bmUpOLPyr6AobSC36f/aypNXWp5QI=\n"
    "trusted comment: legacy\n"
    "Lt5gggHTfVZaMe4BM+2RWNAZsf2wlj3syX68ReSP+fvgUeaSmSAgyGtmN7cFkayXSpt8OvCMYc0jhVaJloboBA==\n";
const std::string kSignify =
    "untrusted comment: verify with s.pub\n"
    "RWSCRDUhUxeepmKGgTVeyDDZRXPs93dfZzfmk0nrE7SkOpr8+puPj8YSwfgKDwkBaSGf1BXsXCJrHDMnQ68LS9Nuqghvg62KoAU=\n";

std::string replaced(std::string text, const std::string& from, const std::string& to) {
    const std::size_t at = text.find(from);
    EXPECT_NE(at, std::string::npos) << from;
    return at == std::string::npos ? text : text.replace(at, from.size(), to);
}

// The 64 bytes a prehashed signature signs: `b2sum` of kMessage.
std::string messageHash() {
    const char* hex =
        "8c981a3eab3abf62328e8fe19a7067aafa5c6711d90adf23a9eaec71ea5ac18f"
        "21e7176adb7609404866eec1fbba41e04a7296c5fefc4b93e0981f98e88ec8f1";
    std::string bytes;
    for (std::size_t i = 0; i < 128; i += 2) bytes += static_cast<char>(std::stoi(std::string(hex + i, 2), nullptr, 16));
    return bytes;
}

// The release keys with their comments swapped: the key bytes and numbers
// stay, the kind follows the comment.
std::string asSignifyKey(const std::string& key) {
    return replaced(key, "minisign public key 57170AD0F66E77D2", "signify public key");
}
std::string asMinisignKey(const std::string& key) {
    return replaced(key, "signify public key", "minisign public key A69E175321354482");
}

struct ParseCase {
    const char* name;
    std::string text;
    bool ok;
};
void PrintTo(const ParseCase& c, std::ostream* os) { *os << c.name; }

class KeyParse : public ::testing::TestWithParam<ParseCase> {};

TEST_P(KeyParse, AcceptsOnlyWhatTheToolsWrite) {
    const ParseCase& c = GetParam();
    qim_signature_key key;
    std::memset(&key, 0xa5, sizeof key);
    const qim_signature_key before = key;
    const zel_error_t rc = qim_signature_key_parse(c.text.data(), c.text.size(), &key);
    EXPECT_EQ(rc, c.ok ? ZEL_SUCCESS : ZEL_INVALIDDATA);
    if (!c.ok) {
        EXPECT_EQ(std::memcmp(&key, &before, sizeof key), 0) << "untouched on failure";
    }
}

const std::string kKeyLine = "RWTSd2720AoXV6Ilww42nqTHGjlNxn2caKoH7b9jWKHjDObjM89XD09t";

INSTANTIATE_TEST_SUITE_P(
    Signature, KeyParse,
    ::testing::Values(
        ParseCase{"Minisign", kMinisignKey, true}, ParseCase{"Signify", kSignifyKey, true},
        ParseCase{"NoLastNewline", kMinisignKey.substr(0, kMinisignKey.size() - 1), true},
        ParseCase{"CrLf", replaced(replaced(kMinisignKey, "D2\n", "D2\r\n"), "9XD09t\n", "9XD09t\r\n"), true},
        ParseCase{"Empty", "", false}, ParseCase{"OnlyComment", "untrusted comment: x\n", false},
        ParseCase{"NoCommentPrefix", "untrusted: x\n" + kKeyLine + "\n", false},
        ParseCase{"KeyOnly", kKeyLine + "\n", false},
        ParseCase{"OtherAlgorithm", replaced(kMinisignKey, "RWTS", "RUTS"), false},
        ParseCase{"OneCharacterShort", replaced(kMinisignKey, "09t\n", "09\n"), false},
        ParseCase{"OneCharacterMore", replaced(kMinisignKey, "09t\n", "09tA\n"), false},
        ParseCase{"NotBase64", replaced(kMinisignKey, "RWTSd", "RWTS!"), false},
        ParseCase{"BlankLineBetween", replaced(kMinisignKey, "D2\n", "D2\n\n"), false},
        ParseCase{"ThirdLine", kMinisignKey + "trusted comment: x\n", false},
        ParseCase{"NulByte", replaced(kMinisignKey, "public", std::string("pub\0ic", 6)), false}),
    [](const ::testing::TestParamInfo<ParseCase>& i) { return i.param.name; });

class SignatureParse : public ::testing::TestWithParam<ParseCase> {};

TEST_P(SignatureParse, AcceptsOnlyWhatTheToolsWrite) {
    const ParseCase& c = GetParam();
    qim_signature sig;
    sig.kind = 99;
    EXPECT_EQ(qim_signature_parse(c.text.data(), c.text.size(), &sig), c.ok ? ZEL_SUCCESS : ZEL_INVALIDDATA);
    if (!c.ok) {
        EXPECT_EQ(sig.kind, 99u) << "untouched on failure";
    }
}

INSTANTIATE_TEST_SUITE_P(
    Signature, SignatureParse,
    ::testing::Values(
        ParseCase{"Prehashed", kPrehashed, true}, ParseCase{"Legacy", kLegacy, true},
        ParseCase{"Signify", kSignify, true},
        ParseCase{"EmptyTrustedComment", replaced(kPrehashed, "release 1.2.3", ""), true},
        ParseCase{"PrehashedWithoutComment", kPrehashed.substr(0, kPrehashed.find("trusted comment: r")), false},
        ParseCase{"TrustedCommentPrefixMissing", replaced(kPrehashed, "trusted comment: ", "comment: "), false},
        ParseCase{"GlobalSignatureShort", replaced(kPrehashed, "DA==\n", "\n"), false},
        ParseCase{"GlobalSignatureMissing", kPrehashed.substr(0, kPrehashed.find("ZT74")), false},
        ParseCase{"FifthLine", kPrehashed + "x\n", false},
        ParseCase{"KeyFileGivenAsSignature", kMinisignKey, false},
        ParseCase{"PaddingChanged", replaced(kSignify, "oAU=", "oAV="), false},
        ParseCase{"OtherAlgorithm", replaced(kSignify, "RWSC", "RVSC"), false}),
    [](const ::testing::TestParamInfo<ParseCase>& i) { return i.param.name; });

TEST(Signature, KindsAndKeyNumbersAsTheToolsShowThem) {
    qim_signature_key key;
    ASSERT_EQ(qim_signature_key_parse(kMinisignKey.data(), kMinisignKey.size(), &key), ZEL_SUCCESS);
    char hex[QIM_SIGNATURE_KEY_ID_HEX_SIZE];
    EXPECT_STREQ(qim_signature_key_id_to_hex(key.key_id, hex), "57170AD0F66E77D2");
    EXPECT_EQ(key.kind, QIM_SIGNATURE_KEY_MINISIGN);
    ASSERT_EQ(qim_signature_key_parse(kSignifyKey.data(), kSignifyKey.size(), &key), ZEL_SUCCESS);
    EXPECT_EQ(key.kind, QIM_SIGNATURE_KEY_SIGNIFY);
    const std::string commented = replaced(kSignifyKey, "signify public key", "release 2026 public key");
    ASSERT_EQ(qim_signature_key_parse(commented.data(), commented.size(), &key), ZEL_SUCCESS);
    EXPECT_EQ(key.kind, QIM_SIGNATURE_KEY_SIGNIFY) << "signify -c: any comment but minisign's";
    qim_signature sig;
    ASSERT_EQ(qim_signature_parse(kPrehashed.data(), kPrehashed.size(), &sig), ZEL_SUCCESS);
    EXPECT_EQ(sig.kind, QIM_SIGNATURE_PREHASHED);
    EXPECT_EQ(std::string(sig.trusted_comment, sig.trusted_comment_length), "release 1.2.3");
    ASSERT_EQ(qim_signature_parse(kLegacy.data(), kLegacy.size(), &sig), ZEL_SUCCESS);
    EXPECT_EQ(sig.kind, QIM_SIGNATURE_LEGACY);
    ASSERT_EQ(qim_signature_parse(kSignify.data(), kSignify.size(), &sig), ZEL_SUCCESS);
    EXPECT_EQ(sig.kind, QIM_SIGNATURE_SIGNIFY);
    EXPECT_STREQ(qim_signature_key_id_to_hex(sig.key_id, hex), "A69E175321354482");
}

struct VerifyCase {
    const char* name;
    std::string key;
    std::string signature;
    std::string message;
    zel_error_t rc;
    qim_signature_verdict verdict;
};
void PrintTo(const VerifyCase& c, std::ostream* os) { *os << c.name; }

class Verify : public ::testing::TestWithParam<VerifyCase> {};

// The buffer and the descriptor give the same answer for the same bytes.
TEST_P(Verify, BufferAndDescriptorAgree) {
    const VerifyCase& c = GetParam();
    qim_signature_key key;
    qim_signature sig;
    ASSERT_EQ(qim_signature_key_parse(c.key.data(), c.key.size(), &key), ZEL_SUCCESS);
    ASSERT_EQ(qim_signature_parse(c.signature.data(), c.signature.size(), &sig), ZEL_SUCCESS);

    qim_signature_verdict verdict = QIM_SIGNATURE_UNREADABLE;
    EXPECT_EQ(qim_signature_verify_buffer(&key, &sig, reinterpret_cast<const uint8_t*>(c.message.data()),
                                          c.message.size(), &verdict),
              c.rc);
    EXPECT_EQ(verdict, c.verdict);

    testutil::TempDir dir;
    testutil::writeFile(dir.file("m"), c.message);
    const int fd = ::open(dir.file("m").c_str(), O_RDONLY);
    ASSERT_GE(fd, 0);
    verdict = QIM_SIGNATURE_UNREADABLE;
    EXPECT_EQ(qim_signature_verify_fd(&key, &sig, fd, &verdict), c.rc);
    EXPECT_EQ(verdict, c.verdict);
    EXPECT_EQ(::lseek(fd, 0, SEEK_CUR), 0) << "the descriptor's offset is left alone";
    ::close(fd);
}

INSTANTIATE_TEST_SUITE_P(
    Signature, Verify,
    ::testing::Values(
        VerifyCase{"Prehashed", kMinisignKey, kPrehashed, kMessage, ZEL_SUCCESS, QIM_SIGNATURE_VERIFIED},
        VerifyCase{"Legacy", kMinisignKey, kLegacy, kMessage, ZEL_POLICY, QIM_SIGNATURE_LEGACY_REFUSED},
        VerifyCase{"Signify", kSignifyKey, kSignify, kMessage, ZEL_SUCCESS, QIM_SIGNATURE_VERIFIED},
        VerifyCase{"PrehashedChangedByte", kMinisignKey, kPrehashed, "firmware 1.2.4\n", ZEL_POLICY,
                   QIM_SIGNATURE_BAD},
        // A prehashed signature relabelled "Ed" is a valid Ed25519 signature
        // of the 64 bytes of the file's hash.
        VerifyCase{"PrehashedRelabelledLegacyOverItsHash", kMinisignKey, replaced(kPrehashed, "RUTS", "RWTS"),
                   messageHash(), ZEL_POLICY, QIM_SIGNATURE_LEGACY_REFUSED},
        VerifyCase{"LegacyUnderSignifyKey", asSignifyKey(kMinisignKey), kLegacy, kMessage, ZEL_POLICY,
                   QIM_SIGNATURE_LEGACY_REFUSED},
        // Without its trusted comment a legacy signature has signify's shape.
        VerifyCase{"LegacyWithoutComment", kMinisignKey, kLegacy.substr(0, kLegacy.find("trusted comment: l")),
                   kMessage, ZEL_POLICY, QIM_SIGNATURE_NEEDS_COMMENT},
        VerifyCase{"SignifyUnderMinisignKey", asMinisignKey(kSignifyKey), kSignify, kMessage, ZEL_POLICY,
                   QIM_SIGNATURE_NEEDS_COMMENT},
        VerifyCase{"PrehashedUnderSignifyKey", asSignifyKey(kMinisignKey), kPrehashed, kMessage, ZEL_POLICY,
                   QIM_SIGNATURE_NEEDS_SIGNIFY},
        VerifyCase{"SignifyEmptyFile", kSignifyKey, kSignify, "", ZEL_POLICY, QIM_SIGNATURE_BAD},
        VerifyCase{"PrehashedEmptyFile", kMinisignKey, kPrehashed, "", ZEL_POLICY, QIM_SIGNATURE_BAD},
        VerifyCase{"ChangedTrustedComment", kMinisignKey, replaced(kPrehashed, "1.2.3\n", "1.2.4\n"), kMessage,
                   ZEL_POLICY, QIM_SIGNATURE_BAD_COMMENT},
        // A legacy signature relabelled as prehashed signs other bytes.
        VerifyCase{"LegacyClaimingPrehashed", kMinisignKey, replaced(kLegacy, "RWTS", "RUTS"), kMessage,
                   ZEL_POLICY, QIM_SIGNATURE_BAD},
        VerifyCase{"OtherKey", kSignifyKey, kPrehashed, kMessage, ZEL_POLICY, QIM_SIGNATURE_OTHER_KEY},
        // The key number is only a label: a key with the right number and
        // other key bytes still refuses.
        VerifyCase{"KeyNumberForged", asMinisignKey(replaced(kSignifyKey, "RWSCRDUhUxeepoFK", "RWTSd2720AoXV6Il")),
                   kPrehashed,
                   kMessage, ZEL_POLICY, QIM_SIGNATURE_BAD}),
    [](const ::testing::TestParamInfo<VerifyCase>& i) { return i.param.name; });

TEST(Signature, LoadReportsMissingOversizedAndMalformedFiles) {
    testutil::TempDir dir;
    qim_signature sig;
    EXPECT_EQ(qim_signature_load(dir.file("none").c_str(), &sig), ZEL_NOTFOUND);
    testutil::writeFile(dir.file("big"), std::string(QIM_SIGNATURE_TEXT_MAX + 1, 'a'));
    EXPECT_EQ(qim_signature_load(dir.file("big").c_str(), &sig), ZEL_DATATOOLONG);
    testutil::writeFile(dir.file("bad"), "untrusted comment: x\n");
    EXPECT_EQ(qim_signature_load(dir.file("bad").c_str(), &sig), ZEL_INVALIDDATA);
    EXPECT_EQ(qim_signature_load(dir.path().c_str(), &sig), ZEL_SYSTEM) << "a directory is no signature";
    testutil::writeFile(dir.file("ok"), kPrehashed);
    EXPECT_EQ(qim_signature_load(dir.file("ok").c_str(), &sig), ZEL_SUCCESS);
    qim_signature_key key;
    testutil::writeFile(dir.file("key"), std::string(QIM_SIGNATURE_TEXT_MAX, 'a'));
    EXPECT_EQ(qim_signature_key_load(dir.file("key").c_str(), &key), ZEL_INVALIDDATA) << "fits, but no key";
}

}  // namespace
