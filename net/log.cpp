// The log object: creation, levels, prefixes, destinations and the
// formatting buffer. Formatting and output are in log_output.cpp.
#include "net/log.h"

#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <sys/socket.h>

#include "support/strings.h"

const char* const ZEL_LOGLEVEL_STRINGS[9] = {"None", "Critical", "Error", "Warning", "Notice",
                                             "Info", "Debug",    "Verbose", "Undef"};

namespace {

// Standard output, standard error and the file carry the time stamp.
constexpr std::uint32_t kDefaultPrefixes = (1u << ZEL_LOG_DEST_STDOUT) | (1u << ZEL_LOG_DEST_STDERR) |
                                           (1u << ZEL_LOG_DEST_FILE);
constexpr std::uint32_t kAllPrefixes = (1u << ZEL_LOG_DEST_COUNT) - 1;

void free_own_buffer(zel_log* log) {
    if (!log->bufferIsCallers) delete[] log->buffer;
    log->buffer = nullptr;
    log->bufferSize = 0;
    log->bufferIsCallers = false;
}

void apply_interface(zel_log_network& net) {
    if (net.socket >= 0) zel_socket__set_multicast_interface(net.socket, &net.interface);
}

}  // namespace

zel_log* zel_log_create() {
    zel_log* log = new (std::nothrow) zel_log{};
    if (log == nullptr) return nullptr;
    log->prefixFlags = kDefaultPrefixes;
    for (zel_log_network& net : log->network) net.socket = -1;
    return log;
}

void zel_log_release(zel_log* log) {
    if (log == nullptr) return;
    for (zel_log_network& net : log->network) zel_socket__close(&net.socket);
    free_own_buffer(log);
    delete log;
}

void zel_log_set_level(zel_log* log, unsigned dest, unsigned level) {
    if (log == nullptr || dest >= ZEL_LOG_DEST_COUNT || log->levels[dest] == level) return;
    log->levels[dest] = level;
    if (level > log->maxLevel) {
        log->maxLevel = level;
        return;
    }
    std::uint32_t max = 0;
    for (std::uint32_t l : log->levels) max = l > max ? l : max;
    log->maxLevel = max;
}

unsigned zel_log_level(const zel_log* log, unsigned dest) {
    return log != nullptr && dest < ZEL_LOG_DEST_COUNT ? log->levels[dest] : 0;
}

void zel_log_set_all_levels(zel_log* log, unsigned level) {
    if (log == nullptr) return;
    for (std::uint32_t& l : log->levels) l = level;
    log->maxLevel = level;
}

void zel_log_set_prefix(zel_log* log, unsigned dest, bool on) {
    if (log == nullptr || dest >= ZEL_LOG_DEST_COUNT) return;
    if (on) {
        log->prefixFlags |= 1u << dest;
    } else {
        log->prefixFlags &= ~(1u << dest);
    }
}

void zel_log_set_all_prefixes(zel_log* log, bool on) {
    if (log != nullptr) log->prefixFlags = on ? kAllPrefixes : 0;
}

void zel_log_set_file(zel_log* log, FILE* file) {
    if (log != nullptr) log->file = file;
}

FILE* zel_log_file(const zel_log* log) { return log != nullptr ? log->file : nullptr; }

void zel_log_set_callback(zel_log* log, zel_log_cb callback) {
    if (log != nullptr) log->callback = callback;
}

zel_log_cb zel_log_callback(const zel_log* log) { return log != nullptr ? log->callback : nullptr; }

void zel_log_set_callback_context(zel_log* log, void* context) {
    if (log != nullptr) log->callbackContext = context;
}

void* zel_log_callback_context(const zel_log* log) { return log != nullptr ? log->callbackContext : nullptr; }

zel_error_t zel_log_set_buffer(zel_log* log, char* buf, unsigned size) {
    if (log == nullptr) return ZEL_INVALIDPARAMETER;
    if (buf != nullptr) {
        if (size == 0) return ZEL_INVALIDPARAMETER;
        free_own_buffer(log);
        log->buffer = buf;
        log->bufferSize = size;
        log->bufferIsCallers = true;
        return ZEL_SUCCESS;
    }
    if (size == 0) {
        free_own_buffer(log);
        return ZEL_SUCCESS;
    }
    if (log->bufferIsCallers) return ZEL_INVALIDSTATE;
    if (log->buffer != nullptr && log->bufferSize >= size) {
        log->bufferSize = size;
        return ZEL_SUCCESS;
    }
    std::unique_ptr<char[]> fresh(new (std::nothrow) char[size]());
    if (!fresh) return ZEL_NOMEMORY;
    free_own_buffer(log);
    log->buffer = fresh.release();
    log->bufferSize = size;
    return ZEL_SUCCESS;
}

void zel_log_set_network_destination(zel_log* log, const zel_sockaddr* address, unsigned index) {
    if (log == nullptr || index > 1) return;
    zel_log_network& net = log->network[index];
    if (address == nullptr) {
        std::memset(&net.address, 0, sizeof net.address);
        zel_socket__close(&net.socket);
        return;
    }
    net.address = *address;
    if (net.socket < 0 && zel_socket__open(&net.socket, AF_INET) == ZEL_SUCCESS && net.interface.name[0] != 0) {
        apply_interface(net);
    }
}

void zel_log_set_network_interface(zel_log* log, const zel_netif* netif, unsigned index) {
    if (log == nullptr || index > 1) return;
    zel_log_network& net = log->network[index];
    if (netif != nullptr) {
        net.interface = *netif;
    } else {
        std::memset(&net.interface, 0, sizeof net.interface);
    }
    // A cleared interface (index 0) puts the socket back on the default route.
    apply_interface(net);
}

const char* zel_log_level_name(unsigned level) {
    return ZEL_LOGLEVEL_STRINGS[level < ZEL_LOG_UNDEF ? level : ZEL_LOG_UNDEF];
}

unsigned zel_log_level_from_string(const char* text) {
    if (text == nullptr) return ZEL_LOG_UNDEF;
    if (std::isdigit(static_cast<unsigned char>(text[0]))) {
        // Read like atoi, but a number too large for it is capped, not undefined.
        errno = 0;
        const unsigned long n = std::strtoul(text, nullptr, 10);
        return errno == ERANGE || n > ZEL_LOG_UNDEF ? ZEL_LOG_UNDEF : static_cast<unsigned>(n);
    }
    for (unsigned level = ZEL_LOG_NONE; level < ZEL_LOG_UNDEF; ++level) {
        if (zel_strcaseeq(text, ZEL_LOGLEVEL_STRINGS[level])) return level;
    }
    return ZEL_LOG_UNDEF;
}
