// The support libraries' log: printf-style messages with a level, formatted
// once and handed to every destination whose level admits them: standard
// output, standard error, a file, up to two network (datagram) destinations
// and a callback. A message of level L reaches a destination of level D when
// 1 <= L <= D. Logging never fails its caller: what cannot be written is
// dropped, and network failures are themselves logged.
//
// Not thread-safe: one formatting buffer and the destination fields are used
// without locking.
#pragma once

#include <cstdarg>
#include <cstdint>
#include <cstdio>

#include "net/socket.h"
#include "support/errors.h"

// Levels; ZEL_LOGLEVEL_STRINGS[level] is the name ("Undef" from 8 on).
enum : unsigned {
    ZEL_LOG_NONE = 0,
    ZEL_LOG_CRITICAL = 1,
    ZEL_LOG_ERROR = 2,
    ZEL_LOG_WARNING = 3,
    ZEL_LOG_NOTICE = 4,
    ZEL_LOG_INFO = 5,
    ZEL_LOG_DEBUG = 6,
    ZEL_LOG_VERBOSE = 7,
    ZEL_LOG_UNDEF = 8,
};
extern const char* const ZEL_LOGLEVEL_STRINGS[9];

// Destinations: index of the level slot; the prefix bit is 1 << index.
enum : unsigned {
    ZEL_LOG_DEST_NETWORK = 0,  // both network destinations share this level
    ZEL_LOG_DEST_STDOUT = 1,
    ZEL_LOG_DEST_STDERR = 2,
    ZEL_LOG_DEST_FILE = 3,
    ZEL_LOG_DEST_RESERVED = 4,  // no output; takes part in the maximum only
    ZEL_LOG_DEST_CALLBACK = 5,
    ZEL_LOG_DEST_COUNT = 6,
};

// Size of the formatting buffer allocated on first use.
enum : unsigned { ZEL_LOG_DEFAULT_BUFFER_SIZE = 16384 };
// Largest datagram a network destination is sent.
enum : unsigned { ZEL_LOG_DATAGRAM_MAX = 1458 };

struct zel_log;

// Callback destination: the log, the time-stamp prefix (null when its prefix
// bit is clear), the level, the text and its length. The result is ignored.
typedef int (*zel_log_cb)(zel_log* log, const char* prefix, unsigned level, const char* text, unsigned length);

struct zel_log_network {
    zel_sockaddr address;  // all zero = none
    zel_netif interface;   // empty name = none
    int socket;            // -1 = closed
};

struct zel_log {
    std::uint32_t maxLevel;                    // highest of `levels`
    std::uint32_t levels[ZEL_LOG_DEST_COUNT];  // all 0 after creation
    std::uint32_t prefixFlags;                 // 14 after creation
    FILE* file;                                // not owned; null = none
    zel_log_network network[2];
    zel_log_cb callback;
    void* callbackContext;
    char* buffer;  // null until first needed
    std::uint32_t bufferSize;
    bool bufferIsCallers;  // the caller's buffer; never freed by the log
};

// A silent log (all levels 0, prefixes on stdout, stderr and file, sockets
// -1); null when memory is missing.
zel_log* zel_log_create();
// Closes both network sockets, frees a buffer the log allocated, frees the
// log. Null is ignored.
void zel_log_release(zel_log* log);

// Level of destination `dest` (0..5; other values are ignored). `maxLevel`
// follows: raised to a higher level, recomputed when a level is lowered.
void zel_log_set_level(zel_log* log, unsigned dest, unsigned level);
// 0 for a null log or a `dest` above 5.
unsigned zel_log_level(const zel_log* log, unsigned dest);
// All six slots and the maximum.
void zel_log_set_all_levels(zel_log* log, unsigned level);
// Sets or clears prefix bit `dest` (0..5).
void zel_log_set_prefix(zel_log* log, unsigned dest, bool on);
// All prefix bits (63) or none.
void zel_log_set_all_prefixes(zel_log* log, bool on);

void zel_log_set_file(zel_log* log, FILE* file);
FILE* zel_log_file(const zel_log* log);
void zel_log_set_callback(zel_log* log, zel_log_cb callback);
zel_log_cb zel_log_callback(const zel_log* log);
void zel_log_set_callback_context(zel_log* log, void* context);
void* zel_log_callback_context(const zel_log* log);

// Formatting buffer:
//  - `buf` given: `size` 0 gives INVALIDPARAMETER; else the caller's buffer
//    replaces the current one (which is freed if the log made it);
//  - `buf` null, `size` > 0: INVALIDSTATE while the caller's buffer is in use;
//    a buffer of at least `size` bytes only has its usable size lowered;
//    otherwise a zeroed buffer of `size` bytes replaces it (NOMEMORY);
//  - `buf` null, `size` 0: the buffer is dropped.
// INVALIDPARAMETER for a null log.
zel_error_t zel_log_set_buffer(zel_log* log, char* buf, unsigned size);

// Network destination 0 or 1 (other indexes are ignored). A null address
// clears it (address zeroed, socket closed). Otherwise the address is copied
// and, when the destination has no socket yet, an IPv4 datagram socket is
// opened and the destination's interface (if set) applied as its multicast
// interface.
void zel_log_set_network_destination(zel_log* log, const zel_sockaddr* address, unsigned index);
// Copies the interface (zeroes it for null) and applies it to an open socket.
void zel_log_set_network_interface(zel_log* log, const zel_netif* netif, unsigned index);

// Formats (vsnprintf into the buffer, cut to its size - 1) and dispatches a
// message. Levels above maxLevel return at once without formatting; level 0
// ("None") messages are never written.
void zel_log_printf(zel_log* log, unsigned level, const char* format, ...) __attribute__((format(printf, 3, 4)));
void zel_log_vprintf(zel_log* log, unsigned level, const char* format, va_list args)
    __attribute__((format(printf, 3, 0)));
// Dispatches `text` unformatted (an empty or null text writes nothing).
void zel_log_write(zel_log* log, unsigned level, const char* text);

// The level's name; "Undef" for 8 and above.
const char* zel_log_level_name(unsigned level);
// A text starting with a decimal digit: its number, capped at 8. Otherwise the
// level whose name equals the text without regard to case, or 8 when none
// does (also for null).
unsigned zel_log_level_from_string(const char* text);
