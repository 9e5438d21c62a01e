// A TFTP client on a private environment whose log is captured through the
// callback destination, with a loop runner that has a watchdog.
#pragma once

#include "net/env.h"
#include "net/log.h"
#include "net/tftp_client.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <string>
#include <sys/socket.h>
#include <vector>

namespace tftptest {

struct LogLine {
    unsigned level;
    std::string text;
};

// Short timeouts keep most tests fast; one test uses the defaults.
constexpr zel_utime kRetry = {0, 200000};
constexpr zel_utime kAbort = {0, 500000};

inline double secondsSince(std::chrono::steady_clock::time_point t0,
                           std::chrono::steady_clock::time_point t = std::chrono::steady_clock::now()) {
    return std::chrono::duration<double>(t - t0).count();
}

inline zel_sockaddr address(const char* host, uint16_t port) {
    zel_sockaddr a{};
    EXPECT_EQ(zel_sockaddr__set_ipv4_text(&a, AF_INET, host, port), ZEL_SUCCESS);
    return a;
}

class TftpClientTest : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(zel_env_new(&env_, nullptr, nullptr), ZEL_SUCCESS);
        zel_log_set_callback(env_->log, [](zel_log* log, const char*, unsigned level, const char* text, unsigned n) {
            static_cast<TftpClientTest*>(zel_log_callback_context(log))->log_.push_back({level, std::string(text, n)});
            return 0;
        });
        zel_log_set_callback_context(env_->log, this);
        zel_log_set_level(env_->log, ZEL_LOG_DEST_CALLBACK, ZEL_LOG_DEBUG);
        client_ = zel_tftp_client__create(env_);
        ASSERT_NE(client_, nullptr);
        zel_tftp_client__set_callback(client_, [](zel_tftp_client_request* r) {
            auto* self = static_cast<TftpClientTest*>(zel_tftp_client__context(zel_tftp_client_request__client(r)));
            self->callbackStates_.push_back(zel_tftp_client_request__state(r));
        });
        zel_tftp_client__set_context(client_, this);
        file_ = std::tmpfile();
        ASSERT_NE(file_, nullptr);
        writes_ = 0;
    }

    void TearDown() override {
        zel_tftp_client__release(client_);
        zel_env_release(env_);
        if (file_) std::fclose(file_);
    }

    // Starts a download of `name` from 127.0.0.1:`port` into the temporary
    // file, through a write function that counts its calls.
    zel_error_t start(uint16_t port, const std::string& name = "file.bin", const zel_utime* retry = &kRetry,
                      const zel_utime* abort = &kAbort) {
        const zel_sockaddr server = address(host_.c_str(), port);
        const zel_tftp_write_fn counting = [](const void* data, size_t size, size_t count, FILE* file) {
            ++writes_;
            return std::fwrite(data, size, count, file);
        };
        return zel_tftp_client__recv_file(client_, &server, name.c_str(), file_, counting, retry, abort, &request_);
    }

    // Turns the loop until the request is COMPLETED or ERROR; false when the
    // watchdog ran out first.
    bool runUntilDone(double watchdogSeconds = 10.0) {
        const auto t0 = std::chrono::steady_clock::now();
        const zel_utime turn = {0, 50000};
        while (client_->request.state != ZEL_TFTP_CLIENT_REQUEST_STATE_COMPLETED &&
               client_->request.state != ZEL_TFTP_CLIENT_REQUEST_STATE_ERROR) {
            if (secondsSince(t0) > watchdogSeconds || zel_event_loop__run_once(env_->loop, &turn) != ZEL_SUCCESS)
                return false;
        }
        return true;
    }

    // Everything written so far.
    std::string received() const {
        std::fflush(file_);
        std::rewind(file_);
        std::string out;
        char buf[65536];
        for (size_t n; (n = std::fread(buf, 1, sizeof buf, file_)) > 0;) out.append(buf, n);
        return out;
    }

    // The captured log, one "<level> <text>" per line.
    std::string dumpLog() const {
        std::string out;
        for (const LogLine& l : log_) out += std::to_string(l.level) + " " + l.text + "\n";
        return out;
    }
    // How many captured lines equal `text` exactly at `level`.
    int logged(unsigned level, const std::string& text) const {
        int n = 0;
        for (const LogLine& l : log_) n += l.level == level && l.text == text;
        return n;
    }

    zel_env* env_ = nullptr;
    zel_tftp_client* client_ = nullptr;
    zel_tftp_client_request* request_ = nullptr;
    FILE* file_ = nullptr;
    std::vector<LogLine> log_;
    std::vector<uint32_t> callbackStates_;  // state at each client callback
    std::string host_ = "127.0.0.1";         // where start() sends the read request
    static inline int writes_ = 0;          // calls of the write function
};

}  // namespace tftptest
