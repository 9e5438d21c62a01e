#include "net/tftp_client.h"

#include "net/log.h"
#include "net/tftp_client_internal.h"
#include "support/strings.h"

#include <netinet/in.h>
#include <sys/socket.h>

#include <cstdio>
#include <cstring>
#include <new>

const zel_utime ZEL_TFTP_DEFAULT_RETRY_TIMEOUT = {2, 0};
const zel_utime ZEL_TFTP_DEFAULT_ABORT_TIMEOUT = {5, 0};

namespace {

zel_event_loop* loop_of(const zel_tftp_client_request* request) { return request->client->env->loop; }

// IPv4 address of an AF_INET record in network order, 0 for anything else.
uint32_t ipv4_of(const zel_sockaddr* a) {
    if (zel_sockaddr__family(a) != AF_INET) return 0;
    sockaddr_in in;
    std::memcpy(&in, a->addr, sizeof in);
    return in.sin_addr.s_addr;
}

// Copies everything recv_file is given and logs it; nothing can fail here.
void prepare(zel_tftp_client_request* request, const zel_sockaddr* server, const char* file_name, FILE* file,
             const zel_utime* retry_timeout, const zel_utime* abort_timeout) {
    request->server = *server;
    if (zel_sockaddr__port(&request->server) == 0) {
        zel_sockaddr__set_port(&request->server, ZEL_TFTP_DEFAULT_PORT);
    }
    zel_strlcpy(request->file_name, file_name, sizeof request->file_name);
    request->file = file;
    request->retry_timeout = retry_timeout ? *retry_timeout : ZEL_TFTP_DEFAULT_RETRY_TIMEOUT;
    request->abort_timeout = abort_timeout ? *abort_timeout : ZEL_TFTP_DEFAULT_ABORT_TIMEOUT;
    request->options = request->client->options;
    request->block_size = ZEL_TFTP_BLOCK_SIZE;
    request->window_size = 1;

    char server_text[ZEL_TFTP_ADDRESS_TEXT_SIZE];
    zel_log_printf(zel_tftp_client_request__log(request), ZEL_LOG_DEBUG,
                   "%s: creating request, server=%s filename=%s fp=%p retry_timeout=%d.%06ld "
                   "abort_timeout=%d.%06ld\n",
                   "zel_tftp_client__recv_file", zel_sockaddr__text(&request->server, server_text, sizeof server_text),
                   request->file_name, static_cast<void*>(file), static_cast<int>(request->retry_timeout.sec),
                   static_cast<long>(request->retry_timeout.usec), static_cast<int>(request->abort_timeout.sec),
                   static_cast<long>(request->abort_timeout.usec));
}

// Socket, loop registration and read request. Logs what fails; the caller resets.
zel_error_t open_and_register(zel_tftp_client_request* request) {
    zel_log* log = zel_tftp_client_request__log(request);
    const char* fn = "zel_tftp_client__recv_file";
    zel_sockaddr any;
    zel_sockaddr__set_any(&any, AF_INET, 0);
    zel_error_t err = zel_socket__open_bound(&request->socket, &any);
    if (err != ZEL_SUCCESS) {
        zel_log_printf(log, ZEL_LOG_ERROR, "%s: error opening request socket: %s\n", fn,
                       zel_tftp_client_request__error_text(request, err));
        return err;
    }
    zel_sockaddr local;
    std::memset(&local, 0, sizeof local);
    err = zel_socket__local_address(request->socket, &local);
    if (err != ZEL_SUCCESS) {
        zel_log_printf(log, ZEL_LOG_ERROR, "%s: error getting socket name: %s\n", fn,
                       zel_tftp_client_request__error_text(request, err));
        return err;
    }
    char local_text[ZEL_TFTP_ADDRESS_TEXT_SIZE];
    zel_log_printf(log, ZEL_LOG_DEBUG, "%s: request %p has socket %d with address %s\n", fn,
                   static_cast<void*>(request), request->socket,
                   zel_sockaddr__text(&local, local_text, sizeof local_text));

    err = zel_event_loop__set_socket(loop_of(request), request->socket, ZEL_EVENT_SOCKET_READ,
                                     zel_tftp_client_request__socket_cb, request, ZEL_EVENT_RULE_MUST_NOT_EXIST);
    if (err != ZEL_SUCCESS) {
        zel_log_printf(log, ZEL_LOG_ERROR, "%s: error adding socket to event loop: %s\n", fn,
                       zel_tftp_client_request__error_text(request, err));
        return err;
    }
    err = zel_tftp_client_request__build_request(request, true);
    if (err != ZEL_SUCCESS) {
        zel_log_printf(log, ZEL_LOG_ERROR, "%s: error initialising read request message: %s\n", fn,
                       zel_tftp_client_request__error_text(request, err));
        return err;
    }
    return ZEL_SUCCESS;
}

// Retry (periodic) and abort (one-shot) timers, both counted from now.
zel_error_t add_timers(zel_tftp_client_request* request) {
    zel_error_t err = zel_event_loop__add_periodic_timer(loop_of(request), zel_tftp_client_request__retry_timer_cb,
                                                         nullptr, &request->retry_timeout, request,
                                                         &request->retry_timer);
    if (err != ZEL_SUCCESS) return err;
    err = zel_event_loop__add_timer(loop_of(request), zel_tftp_client_request__abort_timer_cb, nullptr,
                                    &request->abort_timeout, request, &request->abort_timer);
    if (err != ZEL_SUCCESS) {
        zel_log_printf(zel_tftp_client_request__log(request), ZEL_LOG_ERROR,
                       "%s: error adding abort request message: %s\n", "zel_tftp_client__recv_file",
                       zel_tftp_client_request__error_text(request, err));
    }
    return err;
}

}  // namespace

zel_tftp_client* zel_tftp_client__create(zel_env* env) {
    if (env == nullptr || env->loop == nullptr) return nullptr;
    zel_tftp_client* client = new (std::nothrow) zel_tftp_client();
    if (client == nullptr) return nullptr;
    client->env = env;
    client->request.client = client;
    client->request.socket = -1;
    return client;
}

void zel_tftp_client__release(zel_tftp_client* client) {
    if (client == nullptr) return;
    zel_tftp_client_request__reset(&client->request);
    delete client;
}

void zel_tftp_client__set_callback(zel_tftp_client* client, zel_tftp_request_cb callback) {
    if (client) client->callback = callback;
}

void zel_tftp_client__set_context(zel_tftp_client* client, void* context) {
    if (client) client->context = context;
}

void* zel_tftp_client__context(const zel_tftp_client* client) { return client ? client->context : nullptr; }

void zel_tftp_client__set_simulated_failure_probability(zel_tftp_client* client, unsigned percent) {
    if (client == nullptr) return;
    client->failure_probability = percent > 100 ? 100 : percent;
    zel_log_printf(client->env->log, ZEL_LOG_DEBUG, "%s: simulated failure probability is now %d\n", __func__,
                   static_cast<int>(client->failure_probability));
}

zel_error_t zel_tftp_client__set_options(zel_tftp_client* client, const zel_tftp_options* options) {
    if (client == nullptr) return ZEL_INVALIDPARAMETER;
    if (options == nullptr) {
        client->options = zel_tftp_options{};
        return ZEL_SUCCESS;
    }
    const zel_error_t err = zel_tftp_options_check(options);
    if (err == ZEL_SUCCESS) client->options = *options;
    return err;
}

zel_error_t zel_tftp_client__recv_file(zel_tftp_client* client, const zel_sockaddr* server, const char* file_name,
                                       FILE* file, zel_tftp_write_fn write, const zel_utime* retry_timeout,
                                       const zel_utime* abort_timeout, zel_tftp_client_request** out) {
    if (client == nullptr || server == nullptr || file_name == nullptr || write == nullptr || out == nullptr) {
        return ZEL_INVALIDPARAMETER;
    }
    if (file_name[0] == '\0' || ipv4_of(server) == 0) return ZEL_INVALIDDATA;
    zel_tftp_client_request* request = &client->request;
    if (request->state != ZEL_TFTP_CLIENT_REQUEST_STATE_NONE) return ZEL_INVALIDSTATE;

    prepare(request, server, file_name, file, retry_timeout, abort_timeout);
    zel_error_t err = open_and_register(request);
    if (err != ZEL_SUCCESS) {
        zel_tftp_client_request__reset(request);
        return err;
    }
    // A lost first request is not fatal: the retry timer sends it again.
    if (zel_tftp_client_request__send_message(request) != ZEL_SUCCESS) {
        zel_log_printf(zel_tftp_client_request__log(request), ZEL_LOG_ERROR, "%s: warning 1st send_message failed! %s\n",
                       __func__, client->error_text);
    }
    err = add_timers(request);
    if (err != ZEL_SUCCESS) {
        zel_tftp_client_request__reset(request);
        return err;
    }
    request->state = ZEL_TFTP_CLIENT_REQUEST_STATE_CONNECTING;
    request->write = write;
    *out = request;
    return ZEL_SUCCESS;
}

zel_tftp_client* zel_tftp_client_request__client(const zel_tftp_client_request* request) {
    return request ? request->client : nullptr;
}

uint32_t zel_tftp_client_request__state(const zel_tftp_client_request* request) {
    return request ? request->state : ZEL_TFTP_CLIENT_REQUEST_STATE_NONE;
}

zel_error_t zel_tftp_client_request__error(const zel_tftp_client_request* request) {
    return request ? request->error : ZEL_SUCCESS;
}

uint32_t zel_tftp_client_request__bytes_transferred(const zel_tftp_client_request* request) {
    return request ? request->bytes_transferred : 0;
}

void zel_tftp_client_request__reset(zel_tftp_client_request* request) {
    if (request == nullptr) return;
    zel_tftp_client_request__close(request);
    std::memset(&request->server, 0, sizeof request->server);
    request->file_name[0] = '\0';
    request->file = nullptr;
    request->write = nullptr;
    request->retry_timeout = ZEL_UTIME_ZERO;
    request->abort_timeout = ZEL_UTIME_ZERO;
    request->state = ZEL_TFTP_CLIENT_REQUEST_STATE_NONE;
    request->error = ZEL_SUCCESS;
    request->block = 0;
    request->bytes_transferred = 0;
    request->options = zel_tftp_options{};
    request->negotiation = ZEL_TFTP_NEGOTIATION_NONE;
    request->block_size = ZEL_TFTP_BLOCK_SIZE;
    request->window_size = 1;
    request->window_received = 0;
    request->gap_acknowledged = false;
}

zel_error_t zel_tftp_client_request__build_request(zel_tftp_client_request* request, bool with_options) {
    zel_tftp_message* out = &request->outgoing;
    const zel_tftp_options& asked = request->options;
    // Decimal texts of the asked values; they live until the packet is built.
    char blksize[8];
    char windowsize[8];
    zel_tftp_option list[3];
    uint32_t count = 0;
    if (with_options && asked.blksize != 0) {
        std::snprintf(blksize, sizeof blksize, "%u", static_cast<unsigned>(asked.blksize));
        list[count++] = {"blksize", blksize};
    }
    if (with_options && asked.windowsize != 0) {
        std::snprintf(windowsize, sizeof windowsize, "%u", static_cast<unsigned>(asked.windowsize));
        list[count++] = {"windowsize", windowsize};
    }
    // RFC 2349: a reading client asks with the value 0.
    if (with_options && asked.tsize) list[count++] = {"tsize", "0"};

    request->negotiation = ZEL_TFTP_NEGOTIATION_NONE;
    zel_error_t err = ZEL_MSGSIZE;
    if (count > 0) {
        err = zel_tftp_packet_encode_rrq_options(out->packet, sizeof out->packet, request->file_name, list, count,
                                                 &out->length);
        if (err == ZEL_SUCCESS) request->negotiation = ZEL_TFTP_NEGOTIATION_ASKED;
    }
    // A name too long for options within 512 bytes is asked for without them.
    if (err == ZEL_MSGSIZE) {
        err = zel_tftp_packet_encode_rrq(out->packet, sizeof out->packet, request->file_name, &out->length);
    }
    if (err == ZEL_SUCCESS) out->address = request->server;
    return err;
}

zel_error_t zel_tftp_client_request__send_message(zel_tftp_client_request* request) {
    zel_tftp_client* client = request->client;
    zel_log* log = zel_tftp_client_request__log(request);
    if (client->failure_probability != 0 &&
        static_cast<unsigned>(zel_random()) % 100u < client->failure_probability) {
        zel_log_printf(log, ZEL_LOG_DEBUG, "%s: simulated send failure\n", __func__);
        return ZEL_SUCCESS;
    }
    uint32_t length = request->outgoing.length;
    const zel_error_t err =
        zel_socket__send(request->socket, request->outgoing.packet, &length, &request->outgoing.address);
    if (err != ZEL_SUCCESS) {
        zel_log_printf(log, ZEL_LOG_ERROR, "%s: error sending request message: %s\n", __func__,
                       zel_tftp_client_request__error_text(request, err));
    }
    return err;
}

void zel_tftp_client_request__close(zel_tftp_client_request* request) {
    if (request->retry_timer) {
        zel_event_timer__remove(request->retry_timer);
        request->retry_timer = nullptr;
    }
    if (request->abort_timer) {
        zel_event_timer__remove(request->abort_timer);
        request->abort_timer = nullptr;
    }
    if (request->socket >= 0) {
        zel_event_loop__set_socket(loop_of(request), request->socket, ZEL_EVENT_SOCKET_READ, nullptr, nullptr,
                                   ZEL_EVENT_RULE_MUST_EXIST);
        zel_socket__close(&request->socket);
    }
}

void zel_tftp_client_request__fail(zel_tftp_client_request* request, zel_error_t code) {
    if (request->state == ZEL_TFTP_CLIENT_REQUEST_STATE_ERROR) return;
    request->state = ZEL_TFTP_CLIENT_REQUEST_STATE_ERROR;
    request->error = code;
    zel_tftp_client_request__close(request);
    zel_tftp_client_request__notify(request);
}

void zel_tftp_client_request__notify(zel_tftp_client_request* request) {
    if (request->client->callback) request->client->callback(request);
}

zel_log* zel_tftp_client_request__log(const zel_tftp_client_request* request) { return request->client->env->log; }

const char* zel_tftp_client_request__error_text(zel_tftp_client_request* request, zel_error_t code) {
    return zel_error_text(code, request->client->error_text);
}
