// The text shape shared by minisign and signify key and signature files:
// short lines, an "untrusted comment: " line first, then base64 lines and
// (minisign signatures) a "trusted comment: " line. These helpers split and
// decode with exact bounds; the key and signature parsers build on them.
#pragma once

#include <cstddef>
#include <cstdint>

#include "support/errors.h"

// The largest key or signature file accepted. The tools write a few hundred
// bytes; anything much larger is not one of their files.
enum : std::size_t { QIM_SIGNATURE_TEXT_MAX = 4096 };

// Up to four lines of a text, each without its "\n" (and without a "\r"
// before it). Pointers into the text given to the split.
struct qim_signature_lines {
    const char* line[4];
    std::size_t length[4];
    int count;
};

// Splits `text` into lines. A last line may lack its "\n". Fails with 4
// (INVALIDDATA) for more than four lines, an empty line, or a NUL byte
// anywhere; 3 for a null pointer. `out` is untouched on failure.
zel_error_t qim_signature_split_lines(const char* text, std::size_t length, qim_signature_lines* out);

// True when the line begins with `prefix`.
bool qim_signature_line_has_prefix(const char* line, std::size_t length, const char* prefix);

// Decodes one line of standard padded base64 into exactly `size` bytes:
// 0, or 4 when the line is not canonical base64 of that many bytes. `out` may
// be partly written on failure.
zel_error_t qim_signature_decode_base64(const char* line, std::size_t length, uint8_t* out,
                                        std::size_t size);

// Reads a small regular file whole into `buf` (`size` bytes): 0 with
// `*length` set; 11 (NOTFOUND) when it does not exist; 2 (SYSTEM, errno set)
// when it cannot be opened or read or is no regular file; 53 (DATATOOLONG)
// when it holds more than `size` bytes. Never blocks on a FIFO.
zel_error_t qim_signature_read_small_file(const char* path, char* buf, std::size_t size,
                                          std::size_t* length);
