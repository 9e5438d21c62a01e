// Debian's in.tftpd (tftpd-hpa) serving one directory on 127.0.0.1 at a free
// port, for the download benchmark. It runs in its own process group, so the
// transfer processes it forks go with it when the object is destroyed. It
// must run as root, because it changes its root directory to the served one.
#pragma once

#include <cstdint>
#include <string>
#include <sys/types.h>

namespace bench {

class TftpServer {
public:
    static constexpr const char* kPath = "/usr/sbin/in.tftpd";

    // Serves `root` (which must hold `probeFile`, a file of fewer than 512
    // bytes, read once to know the server is up); throws std::runtime_error
    // when the server does not come up.
    TftpServer(const std::string& root, const std::string& probeFile, const std::string& logPath);
    ~TftpServer();
    TftpServer(const TftpServer&) = delete;
    TftpServer& operator=(const TftpServer&) = delete;

    uint16_t port() const { return port_; }

private:
    bool start(uint16_t port);
    bool answersProbe() const;
    void stop();

    std::string root_;
    std::string probeFile_;
    std::string logPath_;
    pid_t pid_ = -1;
    uint16_t port_ = 0;
};

}  // namespace bench
