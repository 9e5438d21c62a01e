// Debian's real TFTP server (in.tftpd of tftpd-hpa) for end-to-end tests: it
// serves a private temporary directory on 127.0.0.1 at a free port, runs in
// its own process group, and is killed with every transfer process it forked
// when the object goes away.
//
//   testutil::Tftpd tftpd;                    // throws when it cannot start
//   tftpd.addFile("fw.qim", bytes);
//   ... fetch "fw.qim" from 127.0.0.1:tftpd.port() ...
//
// There is no silent skip: a machine without in.tftpd (scripts/deps.sh
// installs tftpd-hpa) fails the test that needs it. It must run as root,
// because the server changes its root directory to the served one.
#pragma once

#include "common/tempdir.h"

#include <cstdint>
#include <string>
#include <sys/types.h>

namespace testutil {

class Tftpd {
public:
    static constexpr const char* kPath = "/usr/sbin/in.tftpd";

    // Starts the server and waits until it has served a probe file. Throws
    // std::runtime_error (with the server's own output) when it is missing or
    // does not come up.
    Tftpd();
    ~Tftpd();
    Tftpd(const Tftpd&) = delete;
    Tftpd& operator=(const Tftpd&) = delete;

    uint16_t port() const { return port_; }
    // The served directory.
    const std::string& directory() const { return root_.path(); }
    // Writes a file into the served directory, readable by the server.
    void addFile(const std::string& name, const std::string& content) const;

private:
    bool start(uint16_t port);
    bool answersProbe();
    void kill();

    TempDir root_{"brivlo-tftpd-root"};
    TempDir logs_{"brivlo-tftpd-log"};
    std::string probeName_;
    std::string probeContent_;
    pid_t pid_ = -1;
    uint16_t port_ = 0;
};

}  // namespace testutil
