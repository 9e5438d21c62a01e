// Formatting a message once and handing it to every destination whose level
// admits it: streams, network destinations (datagrams) and the callback.
#include <cstdio>
#include <cstring>

#include "net/log.h"
#include "net/time.h"

namespace {

// "Mmm dd hh:mm:ss": the part of the ctime text after the weekday.
enum : std::size_t { kStampLength = 15, kStampSize = kStampLength + 1 };
// Room for the failure reports below with any address text and numbers.
enum : std::size_t { kReportSize = 256, kAddressTextSize = 50 };

bool wants_prefix(const zel_log* log, unsigned dest) { return (log->prefixFlags & (1u << dest)) != 0; }

void make_stamp(const zel_utime* when, char* stamp) {
    char text[ZEL_UTIME_CTIME_SIZE];
    const char* ctime_text = zel_utime_ctime(when, text);
    std::snprintf(stamp, kStampSize, "%15.15s", ctime_text != nullptr ? ctime_text + 4 : "");
}

// Stamp and blank, level name and blank, the text, and a line feed unless the
// text ends with one.
void write_record(FILE* stream, const char* prefix, unsigned level, const char* text, std::size_t length) {
    if (prefix != nullptr) std::fprintf(stream, "%s ", prefix);
    std::fprintf(stream, "%s ", zel_log_level_name(level));
    std::fwrite(text, 1, length, stream);
    if (text[length - 1] != '\n') std::fputc('\n', stream);
    std::fflush(stream);
}

void dispatch(zel_log* log, unsigned level, const char* text, std::size_t length, const zel_utime* when);

// Reports a destination's failed send through the log itself. The report is
// formatted into its own buffer: the log's buffer still holds the message
// whose remaining datagrams are being sent.
void report_send_failure(zel_log* log, unsigned index, zel_error_t code) {
    zel_log_network& net = log->network[index];
    const int fd = net.socket;
    char line[kReportSize];
    if (code == ZEL_NOTSOCK) {
        std::memset(&net.address, 0, sizeof net.address);
        zel_socket__close(&net.socket);
        const int n = std::snprintf(line, sizeof line,
                                    "zel_log: bad network logging socket %d - network logging disabled: %s (%d)", fd,
                                    zel_error_name(code), static_cast<int>(code));
        if (ZEL_LOG_ERROR <= log->maxLevel && n > 0) dispatch(log, ZEL_LOG_ERROR, line, std::strlen(line), nullptr);
        return;
    }
    char address[kAddressTextSize];
    zel_sockaddr__text(&net.address, address, sizeof address);
    const char* name = zel_error_name(code);
    const int n = std::snprintf(line, sizeof line, "zel_log: network logging to %s (fd %d) failed: %s (%d)", address,
                                fd, name != nullptr ? name : "UNKNOWN", static_cast<int>(code));
    // The destination sits out its own report, then is used again.
    net.socket = -1;
    if (ZEL_LOG_NOTICE <= log->maxLevel && n > 0) dispatch(log, ZEL_LOG_NOTICE, line, std::strlen(line), nullptr);
    net.socket = fd;
}

// One datagram to every open network destination. A send is a failure when
// it carries nothing beyond `header` bytes.
void send_datagram(zel_log* log, const char* data, std::uint32_t size, std::uint32_t header) {
    for (unsigned i = 0; i < 2; ++i) {
        zel_log_network& net = log->network[i];
        if (net.socket < 0) continue;
        std::uint32_t sent = size;
        zel_error_t rc = zel_socket__send(net.socket, data, &sent, &net.address);
        if (rc == ZEL_SUCCESS && sent <= header) rc = ZEL_FAULT;
        if (rc != ZEL_SUCCESS) report_send_failure(log, i, rc);
    }
}

bool any_network_socket(const zel_log* log) { return log->network[0].socket >= 0 || log->network[1].socket >= 0; }

// The first datagram carries [stamp] + " " + level initial + " " and as much
// text as fits; the rest follows as plain text, ZEL_LOG_DATAGRAM_MAX bytes at
// a time. Nothing is terminated and no line feed is added.
void send_network(zel_log* log, const char* prefix, unsigned level, const char* text, std::size_t length) {
    char first[ZEL_LOG_DATAGRAM_MAX];
    const int n = std::snprintf(first, sizeof first, "%s %c ", prefix != nullptr ? prefix : "",
                                zel_log_level_name(level)[0]);
    if (n <= 0) return;
    const std::size_t header = static_cast<std::size_t>(n);
    const std::size_t head_text = length < sizeof first - header ? length : sizeof first - header;
    std::memcpy(first + header, text, head_text);
    send_datagram(log, first, static_cast<std::uint32_t>(header + head_text), static_cast<std::uint32_t>(header));

    for (std::size_t offset = head_text; offset < length && any_network_socket(log);) {
        const std::size_t max = ZEL_LOG_DATAGRAM_MAX;
        const std::size_t chunk = length - offset < max ? length - offset : max;
        send_datagram(log, text + offset, static_cast<std::uint32_t>(chunk), 0);
        offset += chunk;
    }
}

void dispatch(zel_log* log, unsigned level, const char* text, std::size_t length, const zel_utime* when) {
    char stamp[kStampSize] = "";
    if ((log->prefixFlags & ((1u << ZEL_LOG_DEST_COUNT) - 1)) != 0) make_stamp(when, stamp);
    auto prefix_for = [&](unsigned dest) -> const char* { return wants_prefix(log, dest) ? stamp : nullptr; };

    if (level <= log->levels[ZEL_LOG_DEST_STDOUT]) {
        write_record(stdout, prefix_for(ZEL_LOG_DEST_STDOUT), level, text, length);
    }
    if (level <= log->levels[ZEL_LOG_DEST_STDERR]) {
        write_record(stderr, prefix_for(ZEL_LOG_DEST_STDERR), level, text, length);
    }
    if (level <= log->levels[ZEL_LOG_DEST_FILE] && log->file != nullptr) {
        write_record(log->file, prefix_for(ZEL_LOG_DEST_FILE), level, text, length);
    }
    if (level <= log->levels[ZEL_LOG_DEST_NETWORK] && any_network_socket(log)) {
        send_network(log, prefix_for(ZEL_LOG_DEST_NETWORK), level, text, length);
    }
    if (level <= log->levels[ZEL_LOG_DEST_CALLBACK] && log->callback != nullptr) {
        log->callback(log, prefix_for(ZEL_LOG_DEST_CALLBACK), level, text, static_cast<unsigned>(length));
    }
}

// Level 0 ("None") names silence, not a message: it is never written, even to
// destinations at level 0.
bool admitted(const zel_log* log, unsigned level) {
    return log != nullptr && level != ZEL_LOG_NONE && level <= log->maxLevel;
}

}  // namespace

void zel_log_vprintf(zel_log* log, unsigned level, const char* format, va_list args) {
    if (!admitted(log, level) || format == nullptr) return;
    if (log->buffer == nullptr && zel_log_set_buffer(log, nullptr, ZEL_LOG_DEFAULT_BUFFER_SIZE) != ZEL_SUCCESS) return;
    const int n = std::vsnprintf(log->buffer, log->bufferSize, format, args);
    if (n <= 0) return;
    std::size_t length = static_cast<std::size_t>(n);
    if (length >= log->bufferSize) length = log->bufferSize - 1;
    if (length == 0) return;
    dispatch(log, level, log->buffer, length, nullptr);
}

void zel_log_printf(zel_log* log, unsigned level, const char* format, ...) {
    if (!admitted(log, level)) return;  // above every destination: not even formatted
    va_list args;
    va_start(args, format);
    zel_log_vprintf(log, level, format, args);
    va_end(args);
}

void zel_log_write(zel_log* log, unsigned level, const char* text) {
    if (!admitted(log, level) || text == nullptr || text[0] == 0) return;
    dispatch(log, level, text, std::strlen(text), nullptr);
}
