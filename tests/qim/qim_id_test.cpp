#include "qim/qim_id.h"

#include <gtest/gtest.h>

#include <string>

namespace {

std::string hex(const qim_id& id) {
    char buf[QIM_ID_HEX_SIZE];
    return qim_id_to_hex(&id, buf);
}

qim_id bytes(std::initializer_list<uint8_t> b) {
    qim_id id{};
    std::copy(b.begin(), b.end(), id.bytes);
    return id;
}

TEST(IdParse, FromHexAsTheCommandLineDoes) {
    const struct { const char* name; const char* text; zel_error_t rc; const char* expect; } cases[] = {
        // For failures `expect` is the untouched value.
        {"Prefixed", "0x0011223344556677", 0, "0011223344556677"},
        {"UpperPrefix", "0X0011223344556677", 0, "0011223344556677"},
        {"Plain", "0011223344556677", 0, "0011223344556677"},
        {"LeadingAndInnerBlanks", " \t00 11 22 33 44 55 66 77", 0, "0011223344556677"},
        {"UpperDigits", "AABBCCDDEEFF0011", 0, "aabbccddeeff0011"},
        {"FifteenDigitsLastFromOne", "001122334455667", 0, "0011223344556607"},
        {"TrailingTextIgnored", "0011223344556677zz", 0, "0011223344556677"},
        {"FourDigitsFail", "0011", ZEL_INVALIDDATA, "deadbeefdeadbeef"},
        {"XWithoutZeroFails", "x0011223344556677", ZEL_INVALIDDATA, "deadbeefdeadbeef"},
        {"EmptyFails", "", ZEL_INVALIDDATA, "deadbeefdeadbeef"}};
    for (const auto& c : cases) {
        qim_id id = bytes({0xde, 0xad, 0xbe, 0xef, 0xde, 0xad, 0xbe, 0xef});
        EXPECT_EQ(qim_id_from_hex(&id, c.text), c.rc) << c.name;
        EXPECT_EQ(hex(id), c.expect) << c.name;
    }
    qim_id id{};
    EXPECT_EQ(qim_id_from_hex(nullptr, "00"), ZEL_INVALIDPARAMETER);
    EXPECT_EQ(qim_id_from_hex(&id, nullptr), ZEL_INVALIDPARAMETER);
}

TEST(IdParse, Hex16AsTheToolDoes) {
    qim_id id = bytes({1, 2, 3, 4, 5, 6, 7, 8});
    qim_id_from_hex16("001122334455667", &id);  // 15 characters: nothing happens
    EXPECT_EQ(hex(id), "0102030405060708");
    qim_id_from_hex16("0x11223344556677", &id);  // the "x" counts as 0
    EXPECT_EQ(hex(id), "0011223344556677");
}

// Names are text when they can be, "_" and hex digits otherwise.
TEST(IdName, FormsRoundTrip) {
    const struct { qim_id id; bool force_hex; const char* expect; } cases[] = {
        {bytes({'a', 'b', 'c', '-', '1', '_', '2', 0}), false, "abc-1_2"}, {bytes({'_', 'a'}), false, "_5f61"},
        {bytes({'a', 'b'}), true, "_6162"}};
    for (const auto& c : cases) {
        char buf[QIM_ID_NAME_SIZE];
        EXPECT_STREQ(qim_id_to_name(&c.id, buf, c.force_hex), c.expect);
        qim_id back = bytes({7, 7, 7, 7, 7, 7, 7, 7});
        EXPECT_TRUE(qim_id_from_name(&back, buf) && qim_id_equal(&back, &c.id)) << c.expect;
    }
    qim_id id{};
    for (const char* bad : {"", "_123", "_12zz", "abcdefghi"}) EXPECT_FALSE(qim_id_from_name(&id, bad)) << bad;
}

}  // namespace
