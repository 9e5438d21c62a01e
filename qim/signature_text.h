// The text shape shared by minisign and signify key and signature files:
// short lines, an "untrusted comment: " line first, then base64 lines and
// (minisign signatures) a "trusted comment: " line. These helpers split and
// decode with exact bounds; the key and signature parsers build on them.
#pragma once

#include <cstddef>
#include <cstdint>

#include "support/errors.h"

// Texts shared by brivlo and qimtool, so both name files and refusals alike.
// A detached signature lies beside its file under the file's name with this
// extension (both tools are told to write it there).
#define QIM_SIGNATURE_EXTENSION ".minisig"
// The first line of every key and signature file.
#define QIM_SIGNATURE_UNTRUSTED_PREFIX "untrusted comment: "
// The third line of a minisign signature.
#define QIM_SIGNATURE_TRUSTED_PREFIX "trusted comment: "

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

// The same from the current offset of a file already open on `fd` (opened
// without blocking); the descriptor stays open.
zel_error_t qim_signature_read_small_fd(int fd, char* buf, std::size_t size, std::size_t* length);

enum : std::size_t { QIM_SIGNATURE_REASON_SIZE = 256 };

// Why a key or signature file could not be used, from the code its loader
// returned (and `error`, the errno it left, for 2): "file not found", "file
// too large (more than 4096 bytes)", "malformed" or "cannot be read: " and
// the system's text. Returns `out`.
char* qim_signature_load_failure_text(zel_error_t rc, int error, char out[QIM_SIGNATURE_REASON_SIZE]);
