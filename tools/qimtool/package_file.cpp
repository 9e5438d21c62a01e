#include "tools/qimtool/package_file.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

#include "tools/qimtool/qimtool.h"

namespace qimtool {

PackagePtr load_package(const char* sub, const std::string& path) {
    // The reader answers a missing file with "out of memory"; say what the
    // system said instead.
    int fd = ::open(path.c_str(), O_RDONLY);
    if (fd < 0) {
        failure(sub, "cannot open " + path + ": " + std::strerror(errno));
        return nullptr;
    }
    ::close(fd);
    qim_package* raw = nullptr;
    zel_error_t rc = qim_package_create(&raw);
    PackagePtr pkg(raw);
    if (rc == ZEL_SUCCESS) rc = qim_package_load(pkg.get(), path.c_str());
    if (rc != ZEL_SUCCESS) {
        char text[ZEL_ERROR_TEXT_SIZE];
        failure(sub, "cannot load " + path + ": " + zel_error_text(rc, text));
        return nullptr;
    }
    return pkg;
}

}  // namespace qimtool
