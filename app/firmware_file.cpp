#include "app/firmware_file.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <utility>

#include "app/result_code.h"
#include "app/flash_upgrader.h"
#include "app/release_signature.h"
#include "app/tmp_file.h"
#include "support/tmp_file.h"

namespace firmware_file {

Opened open(const std::string& path, bool guarded, zel::UniqueFd* fd, std::string* why) {
    int opened = -1;
    if (path == tmp_file::kDownloadPath) {
        if (zel_tmp_file_open_trusted(path.c_str(), &opened) != ZEL_SUCCESS) {
            return Opened::kUnreadable;
        }
    } else {
        opened = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    }
    zel::UniqueFd file(opened);
    struct stat st;
    if (!file.valid() || ::fstat(file.get(), &st) != 0 || !S_ISREG(st.st_mode)) {
        return Opened::kUnreadable;
    }
    if (guarded) {
        char problem[ZEL_FILE_GUARD_TEXT_SIZE];
        const zel_error_t rc = zel_file_check_guarded(file.get(), problem);
        if (rc != ZEL_SUCCESS && rc != ZEL_POLICY) {
            return Opened::kUnreadable;
        }
        if (rc == ZEL_POLICY) {
            *why = std::string("firmware file ") + problem + ": only a file nobody else can write is flashed";
            return Opened::kUnguarded;
        }
    }
    // Reads from here on may block as on any regular file.
    const int flags = ::fcntl(file.get(), F_GETFL);
    if (flags < 0 || ::fcntl(file.get(), F_SETFL, flags & ~O_NONBLOCK) != 0) {
        return Opened::kUnreadable;
    }
    *fd = std::move(file);
    return Opened::kOk;
}

}  // namespace firmware_file

int FlashUpgrader::openFirmware(const std::string& path, zel::UniqueFd* fd) {
    std::string why;
    switch (firmware_file::open(path, releaseSignature != nullptr, fd, &why)) {
    case firmware_file::Opened::kOk:
        return ZEL_SUCCESS;
    case firmware_file::Opened::kUnguarded:
        release_signature::printRefusal(releaseSignature->fileName, why);
        return result_code::kSignatureRefused;
    case firmware_file::Opened::kUnreadable:
        break;
    }
    return ZEL_SYSTEM;
}
