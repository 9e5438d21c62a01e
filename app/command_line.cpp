#include "app/command_line.h"

#include <iostream>

namespace command_line {

Source parseSource(const std::string& url) {
    Source source;
    const std::string protocol = url.substr(0, url.find(':'));
    if (protocol == "local") {
        return source;
    }
    source.download = protocol == "tftp";

    // npos + 2 wraps to 1: without a '/' the host starts after the first
    // character. Past the end means an empty host.
    const std::size_t hostStart = url.find('/') + 2;
    if (hostStart > url.size()) {
        return source;
    }
    const std::size_t colon = url.find(':', hostStart);
    if (colon != std::string::npos) {
        source.host = url.substr(hostStart, colon - hostStart);
        source.port = url.substr(colon + 1);
    } else {
        source.host = url.substr(hostStart);
    }
    return source;
}

bool hasQimExtension(const std::string& fileName) {
    const std::size_t dot = fileName.rfind('.');
    const std::string extension = dot == std::string::npos ? fileName : fileName.substr(dot + 1);
    return extension == "qim";
}

void printUsage(const std::string& programName) {
    const std::string& p = programName;
    std::cout << "Brivlo " << std::endl;
    std::cerr << "Usage: \n"
              << "1. " << p
              << " <download protocol>://<IP address>:[<port>] <filename> <partition name> [OPTIONS]\n"
              << "\texample: " << p << " tftp://192.168.10.100:9000 example.qim qim\n"
              << "2. " << p << " local <absolute file path> <partition name> [OPTIONS]\n"
              << "\texample: " << p << " local /tmp/example.bin image\n"
              << "3. " << p << " [OPTIONS]\n"
              << "Options:\n"
              << "  -? | --help: print this message and exit\n"
              << "  -S: get current upgrade status\n"
              << "  -O: override model ID matching for QIM file upgrades\n"
              << "  -A: override manufacturer ID matching for QIM file upgrades\n"
              << "  -K <public key file>: flash only a file signed with this minisign or signify key\n"
              << "Partition Names:\n"
              << "qim, boot, bootenv, brdinfo, capability, config, flashall, fpga, fsbl, image, "
                 "kernel, license, rootfs, "
              << "safeboot, safebootenv, safefpga, safelicense, userarea, skd, safeall"
              << std::endl;
}

}  // namespace command_line
