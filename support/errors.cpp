#include "support/errors.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace {

struct ErrorRow {
    zel_error_t code;
    const char* name;
    const char* message;
};

// One table yields name, message and text; the null-name row ends it.
const ErrorRow kErrors[] = {
    {0, "SUCCESS", "success"},
    {1, "DONE", "operation done"},
    {2, "SYSTEM", "system-specific error"},
    {3, "INVALIDPARAMETER", "invalid parameter"},
    {4, "INVALIDDATA", "invalid data"},
    {5, "INVALIDSTATE", "invalid state"},
    {6, "NOMEMORY", "out of memory"},
    {7, "INTERRUPTED", "interrupted"},
    {8, "TRUNCATED", "message truncated"},
    {9, "NOTSUPPORTED", "operation not supported"},
    {10, "TIMEDOUT", "operation timed out"},
    {11, "NOTFOUND", "object or item not found"},
    {12, "DNSSDFAIL", "DNS-SD system failed"},
    {13, "RANGE", "data out of range"},
    {14, "POLICY", "administrative policy violation"},
    {15, "VERSION", "unsupported version"},
    {16, "CANCELLED", "operation was cancelled"},
    {17, "CLOSING", "resource is closing"},
    {18, "ACCES", "access"},
    {19, "ADDRINUSE", "address in use"},
    {20, "ADDRNOTAVAIL", "address not available"},
    {21, "AFNOSUPPORT", "address family not supported"},
    {22, "ALREADY", "operation already in progress"},
    {23, "BADF", "bad file"},
    {24, "CONNABORTED", "connection aborted"},
    {25, "CONNREFUSED", "connection refused"},
    {26, "CONNRESET", "connection reset"},
    {27, "DESTADDRREQ", "destination address required"},
    {28, "FAULT", "fault"},
    {29, "HOSTUNREACH", "host unreachable"},
    {30, "INPROGRESS", "operation in progress"},
    {31, "ISCONN", "socket already connected"},
    {32, "MFILE", "too many open files"},
    {33, "MSGSIZE", "message too long"},
    {34, "NETDOWN", "network down"},
    {35, "NETRESET", "network reset"},
    {36, "NETUNREACH", "network unreachable"},
    {37, "NOBUFS", "no buffers"},
    {38, "NODATA", "no data"},
    {39, "NODEV", "no such device"},
    {40, "NOPROTOOPT", "protocol not available"},
    {41, "NORECOVERY", "non-recoverable error"},
    {42, "NOTCONN", "not connected"},
    {43, "NOTINITIALISED", "not initialised"},
    {44, "NOTSOCK", "not a socket"},
    {45, "PROTONOSUPPORT", "unsupported protocol"},
    {46, "PROTOTYPE", "wrong protocol type for socket"},
    {47, "SHUTDOWN", "socket has shut down"},
    {48, "SOCKTNOSUPPORT", "socket type not supported"},
    {49, "TRYAGAIN", "try again"},
    {50, "NOTRUNNING", "not running"},
    {51, "BANDWIDTH_EXCEEDED", "bandwidth exceeded"},
    {52, "NOT_READY", "not ready"},
    {53, "DATATOOLONG", "data too long"},
    {0, nullptr, nullptr},
};

struct ErrnoRow {
    int errnum;
    zel_error_t code;
};

// Searched from the top; where one errno value could stand twice, the first
// row decides (EINVAL is INVALIDPARAMETER, never INVALIDDATA).
const ErrnoRow kErrnoMap[] = {
    {0, ZEL_SUCCESS},
    {EINVAL, ZEL_INVALIDPARAMETER},
    {ENOMEM, ZEL_NOMEMORY},
    {EINTR, ZEL_INTERRUPTED},
    {EOPNOTSUPP, ZEL_NOTSUPPORTED},
    {ETIMEDOUT, ZEL_TIMEDOUT},
    {EAGAIN, ZEL_TIMEDOUT},
    {ENOENT, ZEL_NOTFOUND},
    {ERANGE, ZEL_RANGE},
    {EPERM, ZEL_ACCES},
    {EACCES, ZEL_ACCES},
    {EADDRINUSE, ZEL_ADDRINUSE},
    {EADDRNOTAVAIL, ZEL_ADDRNOTAVAIL},
    {EAFNOSUPPORT, ZEL_AFNOSUPPORT},
    {EALREADY, ZEL_ALREADY},
    {EEXIST, ZEL_ALREADY},
    {EBADF, ZEL_BADF},
    {ECONNABORTED, ZEL_CONNABORTED},
    {ECONNREFUSED, ZEL_CONNREFUSED},
    {ECONNRESET, ZEL_CONNRESET},
    {EDESTADDRREQ, ZEL_DESTADDRREQ},
    {EFAULT, ZEL_FAULT},
    {EHOSTUNREACH, ZEL_HOSTUNREACH},
    {EINPROGRESS, ZEL_INPROGRESS},
    {EISCONN, ZEL_ISCONN},
    {EMFILE, ZEL_MFILE},
    {EMSGSIZE, ZEL_MSGSIZE},
    {ENETDOWN, ZEL_NETDOWN},
    {ENETRESET, ZEL_NETRESET},
    {ENETUNREACH, ZEL_NETUNREACH},
    {ENOBUFS, ZEL_NOBUFS},
    {ENODATA, ZEL_NODATA},
    {ENODEV, ZEL_NODEV},
    {ENOPROTOOPT, ZEL_NOPROTOOPT},
    {ENOTCONN, ZEL_NOTCONN},
    {ENOTSOCK, ZEL_NOTSOCK},
    {EPROTONOSUPPORT, ZEL_PROTONOSUPPORT},
    {EPROTOTYPE, ZEL_PROTOTYPE},
    {ESHUTDOWN, ZEL_SHUTDOWN},
    {ESOCKTNOSUPPORT, ZEL_SOCKTNOSUPPORT},
    {ENAMETOOLONG, ZEL_DATATOOLONG},
};

const ErrorRow* findRow(zel_error_t code) {
    for (const ErrorRow* row = kErrors; row->name != nullptr; ++row) {
        if (row->code == code) return row;
    }
    return nullptr;
}

}  // namespace

const char* zel_error_name(zel_error_t code) {
    const ErrorRow* row = findRow(code);
    return row ? row->name : nullptr;
}

const char* zel_error_message(zel_error_t code) {
    const ErrorRow* row = findRow(code);
    return row ? row->message : nullptr;
}

char* zel_error_text(zel_error_t code, char* buf) {
    if (code == ZEL_SUCCESS) {
        std::snprintf(buf, ZEL_ERROR_TEXT_SIZE, "%s", "success");
    } else if (code == ZEL_SYSTEM) {
        const int e = errno;
        std::snprintf(buf, ZEL_ERROR_TEXT_SIZE, "System error: %s: (0x%04x)", std::strerror(e),
                      static_cast<unsigned>(e));
    } else if (const ErrorRow* row = findRow(code)) {
        std::snprintf(buf, ZEL_ERROR_TEXT_SIZE, "%s: (0x%04x=%s)", row->message, code, row->name);
    } else {
        // Codes outside the table have no name or message; a fixed marker keeps
        // the text in the same shape so callers' lines stay readable.
        std::snprintf(buf, ZEL_ERROR_TEXT_SIZE, "unknown error: (0x%04x=UNKNOWN)", code);
    }
    return buf;
}

zel_error_t zel_error_from_errno(int errnum) {
    for (const ErrnoRow& row : kErrnoMap) {
        if (row.errnum == errnum) return row.code;
    }
    return ZEL_SYSTEM;
}

int zel_errno(void) { return errno; }

const char* zel_strerror(int errnum) { return std::strerror(errnum); }
