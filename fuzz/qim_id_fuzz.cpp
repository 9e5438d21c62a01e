// The identifier parsers over any text: qim_id_from_hex (the command line's),
// qim_id_from_name_n with every length and flag combination, and
// qim_id_num_from_string, with the formatters' round trips as the oracle.
// Input: one byte choosing length and flags for qim_id_from_name_n, then the text.
#include <cstdint>
#include <cstring>
#include <string>

#include "fuzz_util.h"
#include "qim/bitset.h"
#include "qim/qim_id.h"

namespace {

using fuzzutil::require;

const qim_id kPoison = {{0xA5, 0xA5, 0xA5, 0xA5, 0xA5, 0xA5, 0xA5, 0xA5}};

// Every form the formatters make of `id` reads back as `id`.
void checkRoundTrips(const qim_id& id) {
    char hex[QIM_ID_HEX_SIZE];
    qim_id back = kPoison;
    require(qim_id_from_hex(&back, qim_id_to_hex(&id, hex)) == ZEL_SUCCESS && qim_id_equal(&back, &id));
    qim_id back16 = kPoison;
    qim_id_from_hex16(hex, &back16);
    require(qim_id_equal(&back16, &id));

    char name[QIM_ID_NAME_SIZE];
    for (bool forceHex : {false, true}) {
        qim_id_to_name(&id, name, forceHex);
        require(std::strlen(name) < QIM_ID_NAME_SIZE);
        qim_id fromName = kPoison;
        require(qim_id_from_name(&fromName, name) && qim_id_equal(&fromName, &id));
    }

    char printable[9];
    qim_id_to_printable(&id, printable, sizeof printable);
    require(std::strlen(printable) == 8);

    qim_id_num idn{id, static_cast<uint16_t>(id.bytes[0] << 8 | id.bytes[7])};
    char numText[QIM_ID_NUM_STRING_SIZE];
    qim_id_num_to_string(&idn, numText);
    qim_id_num numBack{kPoison, 0};
    require(qim_id_num_from_string(&numBack, numText) && qim_id_equal(&numBack.id, &id) &&
            numBack.num == idn.num);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    if (size < 1) return 0;
    const uint8_t selector = data[0];
    // The parsers take terminated text; the raw bytes (zero bytes included)
    // go to qim_id_from_name_n with an explicit length.
    const std::string raw(reinterpret_cast<const char*>(data + 1), size - 1);
    const std::string text(raw.c_str());

    qim_id id = kPoison;
    const zel_error_t rc = qim_id_from_hex(&id, text.c_str());
    require(rc == ZEL_SUCCESS || rc == ZEL_INVALIDDATA);
    if (rc != ZEL_SUCCESS) require(qim_id_equal(&id, &kPoison));  // untouched on failure
    checkRoundTrips(id);

    qim_id_from_hex16(text.c_str(), &id);
    checkRoundTrips(id);
    require(qim_id_from_text(&id, text.c_str()) == ZEL_SUCCESS);
    checkRoundTrips(id);

    // Length: 0 (terminated text, at most 18 characters read) or up to the
    // bytes there are; flags: the low two bits of the selector.
    const std::size_t len = (selector >> 2) % (raw.size() + 1);
    const unsigned flags = selector & 3u;
    std::string bounded = raw.substr(0, len);
    if (len == 0) bounded = text.substr(0, QIM_ID_NAME_SIZE);  // must end with a zero byte
    qim_id named = kPoison;
    if (qim_id_from_name_n(&named, bounded.c_str(), len, flags)) checkRoundTrips(named);
    if (qim_id_from_name(&named, text.c_str())) checkRoundTrips(named);

    qim_id_num idn{kPoison, 0x5A5A};
    if (qim_id_num_from_string(&idn, text.c_str())) {
        checkRoundTrips(idn.id);
    } else {
        require(qim_id_equal(&idn.id, &kPoison) && idn.num == 0x5A5A);
    }

    // The bit-set formatter over the same bytes, every destination size.
    uint32_t set[1 + 4] = {static_cast<uint32_t>(selector) % 129, 0, 0, 0, 0};
    std::memcpy(&set[1], raw.data(), raw.size() < 16 ? raw.size() : 16);
    char out[64];
    const std::size_t outSize = 2 + selector % (sizeof out - 2);
    qim_bitset_to_string(set, out, outSize);
    require(std::strlen(out) < outSize);
    return 0;
}
