// Debian's real TFTP servers for end-to-end tests: in.tftpd of tftpd-hpa (the
// default), atftpd (unpacked into the build directory by
// scripts/atftp-fetch.sh, never installed) and dnsmasq. Each serves a private
// temporary directory on loopback at a free port, runs in its own process
// group, and is killed with every transfer process it forked when the object
// goes away. dnsmasq's TFTP port is always 69: it gets a loopback address of
// its own instead (127.x.y.z), so that parallel tests do not meet.
//
//   testutil::Tftpd tftpd;                    // throws when it cannot start
//   tftpd.addFile("fw.qim", bytes);
//   ... fetch "fw.qim" from tftpd.host():tftpd.port() ...
//
// With `options` false the server is told to ignore every option (blksize,
// windowsize, tsize) and answers as RFC 1350 has it.
//
// There is no silent skip: a machine without the server (scripts/deps.sh
// installs tftpd-hpa and dnsmasq-base) fails the test that needs it. It must
// run as root: in.tftpd changes its root directory, dnsmasq binds port 69.
#pragma once

#include "common/tempdir.h"

#include <cstdint>
#include <string>
#include <sys/types.h>
#include <vector>

namespace testutil {

enum class TftpdKind { InTftpd, Atftpd, Dnsmasq };

class Tftpd {
public:
    static constexpr const char* kPath = "/usr/sbin/in.tftpd";
    static constexpr const char* kDnsmasqPath = "/usr/sbin/dnsmasq";

    // Starts the server and waits until it has served a probe file. Throws
    // std::runtime_error (with the server's own output) when it is missing or
    // does not come up.
    explicit Tftpd(TftpdKind kind = TftpdKind::InTftpd, bool options = true);
    ~Tftpd();
    Tftpd(const Tftpd&) = delete;
    Tftpd& operator=(const Tftpd&) = delete;

    uint16_t port() const { return port_; }
    // The loopback address it listens on, dotted.
    const std::string& host() const { return host_; }
    // The served directory.
    const std::string& directory() const { return root_.path(); }
    // Writes a file into the served directory, readable by the server.
    void addFile(const std::string& name, const std::string& content) const;

private:
    std::vector<std::string> command(uint16_t port) const;
    bool start(uint16_t port);
    bool answersProbe();
    void kill();

    TempDir root_{"brivlo-tftpd-root"};
    TempDir logs_{"brivlo-tftpd-log"};
    std::string probeName_;
    std::string probeContent_;
    TftpdKind kind_;
    bool options_;
    std::string host_ = "127.0.0.1";
    pid_t pid_ = -1;
    uint16_t port_ = 0;
};

}  // namespace testutil
