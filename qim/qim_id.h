// Device model and manufacturer identifiers: 8 opaque bytes that often hold a
// short ASCII text padded with zero bytes. Byte 0 is the first byte in a file,
// the first printed and the first compared; there is no byte order to swap.
//
// Destination sizes are the caller's duty; only qim_id_from_hex reports failure.
#pragma once

#include <cstddef>
#include <cstdint>

#include "support/errors.h"

struct qim_id {
    uint8_t bytes[8];
};

// Identifier as text: 16 hexadecimal digits and a terminator.
enum : std::size_t { QIM_ID_HEX_SIZE = 17 };
// Name-safe form: "_" + 16 digits and a terminator.
enum : std::size_t { QIM_ID_NAME_SIZE = 18 };
// qim_id_num text: 16 digits, ":", up to 5 decimal digits and a terminator.
enum : std::size_t { QIM_ID_NUM_STRING_SIZE = 23 };

// The all-zero identifier: "any model" / "any manufacturer" wherever matched.
extern const qim_id QIM_MODEL_ID_ANY;
extern const qim_id QIM_MFGC_ID_ANY;

// An identifier with a 16-bit number attached (an instance of a model).
struct qim_id_num {
    qim_id id;
    uint16_t num;
};

// True when all 8 bytes are equal. A null identifier equals only another null.
bool qim_id_equal(const qim_id* a, const qim_id* b);
// True for the all-zero ("any") identifier; a null pointer counts as "any".
bool qim_id_is_any(const qim_id* id);

// Command-line parser: optional leading white space, optional "0x"/"0X", then
// eight two-digit hexadecimal groups as sscanf("%02x" x 8) reads them (white
// space allowed between groups, text after the eighth group ignored).
// 0, 3 when an argument is null, 4 when fewer than 8 groups convert; on
// failure `dst` is left untouched.
zel_error_t qim_id_from_hex(qim_id* dst, const char* text);
// Exactly 16 characters, no prefix: byte i from characters 2i and 2i+1, any
// non-digit counting as 0. Any other length leaves `dst` untouched.
void qim_id_from_hex16(const char* text, qim_id* dst);
// The first (at most 8) characters of `text`, zero bytes after them. 0 or 3.
zel_error_t qim_id_from_text(qim_id* dst, const char* text);

// Inverse of qim_id_to_name: "_" + 1..8 hexadecimal pairs, or a text of at
// most 8 characters. False for null/empty/malformed input; on false `dst`
// holds whatever was written before the failure.
bool qim_id_from_name(qim_id* dst, const char* text);
enum : unsigned {
    QIM_ID_NAME_ALLOW_NUL = 1u,     // a zero byte before `len` ends the text
    QIM_ID_NAME_ALLOW_EXCESS = 2u,  // keep the first 8 bytes of a longer form
};
// qim_id_from_name on the first `len` characters of `text` (0: up to its zero
// byte, at most 18 characters, and QIM_ID_NAME_ALLOW_NUL implied).
bool qim_id_from_name_n(qim_id* dst, const char* text, std::size_t len, unsigned flags);

// 16 lower-case hexadecimal digits into `dst` (QIM_ID_HEX_SIZE bytes); returns `dst`.
char* qim_id_to_hex(const qim_id* id, char* dst);
// The same text without a bound; returns the number of characters (16).
int qim_id_print_hex(char* dst, const qim_id* id);
// The 8 bytes with non-printing ones (outside 0x20..0x7e) shown as ".",
// cut to `size` with a terminator. Nothing is written for a null `dst` or size 0.
char* qim_id_to_printable(const qim_id* id, char* dst, std::size_t size);
// A form usable inside file and object names that no two identifiers share:
// "_00" for all zero, the text itself when it is made of name characters and
// does not begin with "_", otherwise "_" + hexadecimal of the bytes up to the
// last non-zero one. `force_hex` always takes the hexadecimal form.
// `dst` holds QIM_ID_NAME_SIZE bytes.
char* qim_id_to_name(const qim_id* id, char* dst, bool force_hex);
char* qim_id_to_safe_name(const qim_id* id, char* dst);
char* qim_id_to_hex_name(const qim_id* id, char* dst);

// "%02x" x 8 ":%d"; `dst` holds QIM_ID_NUM_STRING_SIZE bytes.
char* qim_id_num_to_string(const qim_id_num* idn, char* dst);
// True when the text yields all nine values of that format (number kept in 16 bits).
bool qim_id_num_from_string(qim_id_num* dst, const char* text);

// Letters and digits of the POSIX locale, "_" and "-".
bool qim_id_is_name_char(int c);
// 0..15 for a hexadecimal digit of either case, 255 otherwise.
uint8_t qim_hex_digit_value(int c);
