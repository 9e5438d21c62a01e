// Error codes shared by every library of brivlo and reused as method results
// and exit statuses by the upgrade driver.
#pragma once

#include <cstddef>

typedef unsigned zel_error_t;

enum : zel_error_t {
    ZEL_SUCCESS = 0,
    ZEL_DONE = 1,
    ZEL_SYSTEM = 2,
    ZEL_INVALIDPARAMETER = 3,
    ZEL_INVALIDDATA = 4,
    ZEL_INVALIDSTATE = 5,
    ZEL_NOMEMORY = 6,
    ZEL_INTERRUPTED = 7,
    ZEL_TRUNCATED = 8,
    ZEL_NOTSUPPORTED = 9,
    ZEL_TIMEDOUT = 10,
    ZEL_NOTFOUND = 11,
    ZEL_DNSSDFAIL = 12,
    ZEL_RANGE = 13,
    ZEL_POLICY = 14,
    ZEL_VERSION = 15,
    ZEL_CANCELLED = 16,
    ZEL_CLOSING = 17,
    ZEL_ACCES = 18,
    ZEL_ADDRINUSE = 19,
    ZEL_ADDRNOTAVAIL = 20,
    ZEL_AFNOSUPPORT = 21,
    ZEL_ALREADY = 22,
    ZEL_BADF = 23,
    ZEL_CONNABORTED = 24,
    ZEL_CONNREFUSED = 25,
    ZEL_CONNRESET = 26,
    ZEL_DESTADDRREQ = 27,
    ZEL_FAULT = 28,
    ZEL_HOSTUNREACH = 29,
    ZEL_INPROGRESS = 30,
    ZEL_ISCONN = 31,
    ZEL_MFILE = 32,
    ZEL_MSGSIZE = 33,
    ZEL_NETDOWN = 34,
    ZEL_NETRESET = 35,
    ZEL_NETUNREACH = 36,
    ZEL_NOBUFS = 37,
    ZEL_NODATA = 38,
    ZEL_NODEV = 39,
    ZEL_NOPROTOOPT = 40,
    ZEL_NORECOVERY = 41,
    ZEL_NOTCONN = 42,
    ZEL_NOTINITIALISED = 43,
    ZEL_NOTSOCK = 44,
    ZEL_PROTONOSUPPORT = 45,
    ZEL_PROTOTYPE = 46,
    ZEL_SHUTDOWN = 47,
    ZEL_SOCKTNOSUPPORT = 48,
    ZEL_TRYAGAIN = 49,
    ZEL_NOTRUNNING = 50,
    ZEL_BANDWIDTH_EXCEEDED = 51,
    ZEL_NOT_READY = 52,
    ZEL_DATATOOLONG = 53,
};

// Size of every buffer handed to zel_error_text: 512 characters and a terminator.
enum : std::size_t { ZEL_ERROR_TEXT_SIZE = 513 };

// Symbolic name ("SUCCESS" for 0), or null for a code outside the table.
const char* zel_error_name(zel_error_t code);
// Message ("success" for 0), or null for a code outside the table.
const char* zel_error_message(zel_error_t code);
// Formats the one-line text of `code` into `buf` (ZEL_ERROR_TEXT_SIZE bytes) and
// returns `buf`. SYSTEM reports the errno in force at the moment of the call, so
// callers format right after the failing call. A code outside the table reads
// "unknown error: (0x%04x=UNKNOWN)".
char* zel_error_text(zel_error_t code, char* buf);
// The code for an errno value; SYSTEM for a value the table does not list.
zel_error_t zel_error_from_errno(int errnum);
// The calling thread's errno.
int zel_errno(void);
// strerror(errnum).
const char* zel_strerror(int errnum);
