#include "qim/bitset.h"
#include "qim/qim_id.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

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

TEST(IdParse, Hex16AndText) {
    qim_id id = bytes({1, 2, 3, 4, 5, 6, 7, 8});
    qim_id_from_hex16("001122334455667", &id);  // 15 characters: nothing happens
    EXPECT_EQ(hex(id), "0102030405060708");
    qim_id_from_hex16("0x11223344556677", &id);  // the "x" counts as 0
    EXPECT_EQ(hex(id), "0011223344556677");
    qim_id_from_hex16("AaBbCcDdEeFf0011", &id);
    EXPECT_EQ(hex(id), "aabbccddeeff0011");
    ASSERT_EQ(qim_id_from_text(&id, "AB"), ZEL_SUCCESS);
    EXPECT_EQ(hex(id), "4142000000000000");
    ASSERT_EQ(qim_id_from_text(&id, "ABCDEFGHIJ"), ZEL_SUCCESS);
    EXPECT_EQ(hex(id), "4142434445464748");
    EXPECT_EQ(qim_id_from_text(&id, nullptr), ZEL_INVALIDPARAMETER);
}

TEST(IdFormat, EqualityHexAndPrintable) {
    qim_id id = bytes({0x41, 0x42, 0x00, 0x43, 0xff, 0x20, 0x7e, 0x0a}), other = id;
    EXPECT_TRUE(qim_id_equal(&id, &other));
    other.bytes[7] = 9;
    EXPECT_FALSE(qim_id_equal(&id, &other));
    EXPECT_TRUE(qim_id_is_any(&QIM_MODEL_ID_ANY) && qim_id_is_any(&QIM_MFGC_ID_ANY));
    EXPECT_FALSE(qim_id_is_any(&other));
    char buf[QIM_ID_HEX_SIZE];
    EXPECT_EQ(qim_id_print_hex(buf, &id), 16);
    EXPECT_STREQ(buf, "41420043ff207e0a");
    char text[9], small[4];
    EXPECT_STREQ(qim_id_to_printable(&id, text, sizeof text), "AB.C. ~.");
    EXPECT_STREQ(qim_id_to_printable(&id, small, sizeof small), "AB.");
}

TEST(IdName, FormsRoundTrip) {
    const struct { const char* name; qim_id id; bool force_hex; const char* expect; } cases[] = {
        {"Text", bytes({'a', 'b', 'c', '-', '1', '_', '2', 0}), false, "abc-1_2"},
        {"LeadingUnderscore", bytes({'_', 'a', 'b', 'c'}), false, "_5f616263"},
        {"Blank", bytes({'a', 'b', ' ', 'c'}), false, "_61622063"},
        {"AllZero", bytes({}), false, "_00"},
        {"Forced", bytes({'a', 'b', 'c'}), true, "_616263"},
        {"FullEight", bytes({0xff, 1, 2, 3, 4, 5, 6, 7}), false, "_ff01020304050607"},
        {"InnerZero", bytes({'a', 0, 'b'}), false, "_610062"}};
    for (const auto& c : cases) {
        char buf[QIM_ID_NAME_SIZE];
        EXPECT_STREQ(qim_id_to_name(&c.id, buf, c.force_hex), c.expect) << c.name;
        qim_id back = bytes({7, 7, 7, 7, 7, 7, 7, 7});
        EXPECT_TRUE(qim_id_from_name(&back, buf)) << c.name;
        EXPECT_TRUE(qim_id_equal(&back, &c.id)) << c.name;
    }
    qim_id id{};
    for (const char* bad : {"", "_", "_123", "_12zz", "_000102030405060708", "abcdefghi"}) {
        EXPECT_FALSE(qim_id_from_name(&id, bad)) << bad;
    }
    EXPECT_FALSE(qim_id_from_name(&id, nullptr));
}

TEST(IdName, FromNameLengthAndFlags) {
    qim_id id{};
    EXPECT_TRUE(qim_id_from_name_n(&id, "abcXYZ", 3, 0));  // the text fills the length
    EXPECT_EQ(hex(id), "6162630000000000");
    // A zero byte before the length ends the text only with flag bit 0.
    EXPECT_FALSE(qim_id_from_name_n(&id, "ab\0cd", 5, 0));
    EXPECT_TRUE(qim_id_from_name_n(&id, "ab\0cd", 5, QIM_ID_NAME_ALLOW_NUL));
    EXPECT_TRUE(qim_id_from_name_n(&id, "_6162", 0, 0));  // length 0: up to the zero byte
    EXPECT_EQ(hex(id), "6162000000000000");
    // Longer forms keep their first 8 bytes only with flag bit 1.
    EXPECT_FALSE(qim_id_from_name_n(&id, "abcdefghij", 10, 0));
    EXPECT_TRUE(qim_id_from_name_n(&id, "abcdefghij", 10, QIM_ID_NAME_ALLOW_EXCESS));
    EXPECT_EQ(hex(id), "6162636465666768");
    EXPECT_FALSE(qim_id_from_name_n(&id, "_000102030405060708", 19, 0));
    EXPECT_TRUE(qim_id_from_name_n(&id, "_010203040506070809", 19, QIM_ID_NAME_ALLOW_EXCESS));
    EXPECT_EQ(hex(id), "0102030405060708");
    EXPECT_FALSE(qim_id_from_name_n(&id, "_616", 4, 0));  // odd digit at the end
    EXPECT_FALSE(qim_id_from_name_n(&id, "_", 1, 0));     // no pair
}

TEST(IdNum, FormatsAndParses) {
    qim_id_num n{bytes({0, 0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77}), 65535};
    char buf[QIM_ID_NUM_STRING_SIZE];
    EXPECT_STREQ(qim_id_num_to_string(&n, buf), "0011223344556677:65535");
    qim_id_num back{};
    ASSERT_TRUE(qim_id_num_from_string(&back, buf));
    EXPECT_TRUE(qim_id_equal(&back.id, &n.id));
    EXPECT_EQ(back.num, 65535);
    EXPECT_TRUE(qim_id_num_from_string(&back, "0011223344556677:65537"));
    EXPECT_EQ(back.num, 1);  // kept in 16 bits
    EXPECT_FALSE(qim_id_num_from_string(&back, "0011223344556677"));
    EXPECT_FALSE(qim_id_num_from_string(nullptr, buf));
}

TEST(Bitset, ToStringListsBitsAndCutsShort) {
    // A set is its bit count and the words; bit 34 is bit 2 of the second word.
    const struct { std::vector<uint32_t> set; std::size_t size; const char* expect; } cases[] = {
        {{40, 0, 0}, 64, "[]"}, {{40, 0x29, 0x4}, 64, "[ 0 3 5 34]"}, {{12, 0xC00}, 5, "[ 10"},
        {{4, 0x20}, 64, "[]"}};  // bit 5 lies beyond the count
    for (const auto& c : cases) {
        char buf[64];
        EXPECT_STREQ(qim_bitset_to_string(c.set.data(), buf, c.size), c.expect);
    }
}

TEST(Bitset, MembersCountsAllAndStoresWhatFits) {
    qim_bitset_group g{};
    g.count = 100;
    g.sets[1][0] = 0x5;
    g.sets[1][3] = 1u << 3;  // bit 99
    g.sets[1][4] = 1u;       // bit 128: beyond the count
    uint32_t members[3] = {0, 0, 77};
    uint32_t count = 2;
    qim_bitset_get_members(&g, 1, &count, members);
    EXPECT_EQ(count, 3u);
    EXPECT_EQ(std::vector<uint32_t>(members, members + 3), (std::vector<uint32_t>{0, 2, 77}));
    qim_bitset_get_members(&g, 3, &count, members);
    EXPECT_EQ(count, 0u);
    qim_bitset_get_members(&g, 1, nullptr, members);  // nothing happens
}

}  // namespace
