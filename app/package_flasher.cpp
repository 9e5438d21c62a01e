// The package path of an upgrade: load and validate a QIM package, refuse it
// for a foreign device kind, an unsuitable network chip or another
// manufacturer, print its report, and write every part meant for this
// device's model into the partition of its kind, in part-table order.
#include "app/flash_upgrader.h"

#include <cerrno>
#include <cstring>
#include <iostream>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/types.h>
#include <unistd.h>

#include "app/mtd_device.h"
#include "app/release_signature.h"
#include "app/status_file.h"
#include "app/tmp_file.h"
#include "qim/file_identity.h"
#include "qim/package.h"
#include "qim/report.h"

namespace {

struct PackageFree {
    void operator()(qim_package* package) const { qim_package_free(package); }
};
using UniquePackage = std::unique_ptr<qim_package, PackageFree>;

// Result of writeQimToFlash when a part's bytes cannot be read: the part
// table promises data that the file does not hold, or the file is gone or no
// longer the one that was validated, so the package is treated as damaged.
constexpr int kPartReadFailed = static_cast<int>(ZEL_INVALIDDATA);

enum class ReadResult { kOk, kFailed, kNoMemory };

// Whether the file open on `fd` is, unchanged, the one the load validated.
bool isValidatedFile(int fd, const qim_file_identity& validated) {
    qim_file_identity now;
    return qim_file_identity_of(fd, &now) == ZEL_SUCCESS && qim_file_identity_equal(&now, &validated);
}

// Reads `size` bytes from `position` on, however the kernel splits them.
bool readFully(int fd, uint64_t position, uint8_t* data, uint32_t size) {
    constexpr uint32_t kMaxRequest = 1u << 30;  // within ssize_t on the 32-bit target
    uint32_t done = 0;
    while (done < size) {
        const uint32_t want = size - done < kMaxRequest ? size - done : kMaxRequest;
        const ssize_t got = ::pread(fd, data + done, want, static_cast<off_t>(position + done));
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got <= 0) {
            return false;
        }
        done += static_cast<uint32_t>(got);
    }
    return true;
}

// Opens the package file again the way every part read does, and keeps the
// descriptor only when it is the file the load validated, unchanged.
UniqueFd openValidatedFile(const char* path, const qim_file_identity& validated) {
    const int noFollow = std::strcmp(path, tmp_file::kDownloadPath) == 0 ? O_NOFOLLOW : 0;
    UniqueFd fd(::open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK | noFollow));
    if (fd.valid() && !isValidatedFile(fd.get(), validated)) {
        return UniqueFd();
    }
    return fd;
}

// Reads the `size` bytes at `position` of the package file into a zero-filled
// buffer of exactly that size.
//
// The file is opened again by name for every part, long after the load
// validated it, and the name is not ours alone: every download rewrites
// "/tmp/flashit", and a local package belongs to whoever can write it. Only
// bytes the checksum pass accepted may reach flash, so the file opened here
// must be the file the load validated, unchanged: its identity (device,
// inode, size, modification and status-change times,
// qim_package_get_file_identity) is compared right after the open and again
// after the read, which also catches a change while the part is read. A
// package without that identity (validated file changed during the load)
// has no part read at all. A file that was replaced by an identical copy or
// touched is refused too: telling that apart would mean checksumming again.
//
// The open does not wait, so a FIFO put in the file's place cannot block us
// before the comparison refuses it. At the download path it does not follow
// a symbolic link either: a link there can only have been planted in /tmp,
// and it must not make us open a device (opening some has effects). An
// operator's local path is followed as given, like a raw image's; the
// comparison still admits only the validated file.
//
// The file's length is checked first, so a damaged part table can never make
// us allocate more than the file holds.
ReadResult readPartData(const char* path, const qim_file_identity* validated, uint64_t position,
                        uint32_t size, std::vector<uint8_t>* data) {
    if (path == nullptr || validated == nullptr) {
        return ReadResult::kFailed;
    }
    UniqueFd fd = openValidatedFile(path, *validated);
    if (!fd.valid()) {
        return ReadResult::kFailed;
    }
    if (position > validated->size || size > validated->size - position) {
        return ReadResult::kFailed;
    }
    try {
        data->assign(size, 0);
    } catch (const std::bad_alloc&) {
        return ReadResult::kNoMemory;
    }
    if (!readFully(fd.get(), position, data->data(), size) || !isValidatedFile(fd.get(), *validated)) {
        return ReadResult::kFailed;
    }
    return ReadResult::kOk;
}

}  // namespace

int FlashUpgrader::flashQimFile(const char* path) {
    qim_package* created = nullptr;
    const zel_error_t rc = qim_package_create(&created);
    if (rc != ZEL_SUCCESS) {
        return static_cast<int>(rc);
    }
    // The package is needed until the last part is written; nothing of the
    // run looks at it after this method.
    UniquePackage package(created);
    const int checked = loadAndCheckQimFile(path, package.get());
    if (checked != ZEL_SUCCESS) {
        return checked;
    }
    const int signedRelease = verifyQimSignature(path, package.get());
    if (signedRelease != ZEL_SUCCESS) {
        return signedRelease;
    }
    return writeQimToFlash(package.get());
}

int FlashUpgrader::verifyQimSignature(const char* path, const qim_package* package) {
    if (releaseSignature == nullptr) {
        return ZEL_SUCCESS;
    }
    // Signed upgrades (-K): after the validation and the report, before the
    // status file's write phase and the first erase. The signature is checked
    // through one descriptor on the file the load validated, and the file's
    // identity is compared again afterwards: the parts are then read only
    // from a file with that same identity (readPartData), so the bytes
    // flashed are the bytes whose signature held.
    qim_file_identity validated{};
    UniqueFd fd;
    if (qim_package_get_file_identity(package, &validated) == ZEL_SUCCESS) {
        fd = openValidatedFile(path, validated);
    }
    if (!fd.valid()) {
        release_signature::printRefusal(releaseSignature->fileName,
                                        "package file is no longer the one that was validated");
        return release_signature::kExitSignatureRefused;
    }
    const int verified = verifyRelease(fd.get());
    if (verified == ZEL_SUCCESS && !isValidatedFile(fd.get(), validated)) {
        release_signature::printRefusal(releaseSignature->fileName,
                                        "package file changed while its signature was checked");
        return release_signature::kExitSignatureRefused;
    }
    return verified;
}

int FlashUpgrader::loadAndCheckQimFile(const char* path, qim_package* package) {
    // The download is a file brivlo has just written at a fixed name in
    // /tmp: a link there can only have been swapped in since, so the reader
    // does not follow one. A local path is the operator's and is followed.
    const zel_error_t rc = std::strcmp(path, tmp_file::kDownloadPath) == 0
                               ? qim_package_load_nofollow(package, path)
                               : qim_package_load(package, path);
    if (rc != ZEL_SUCCESS) {
        // The reader has printed its own message.
        return static_cast<int>(rc);
    }
    if (qim_package_get_device_code(package) != qim_local_device_code()) {
        std::cerr << "device type mismatch" << std::endl;
        return ZEL_TRUNCATED;
    }
    const int supported = validateFirmwareSupport(package);
    // The report is shown even for a refused package, so the operator sees
    // what was offered.
    qim_package_print(package);
    return supported;
}

int FlashUpgrader::writeQimToFlash(qim_package* package) {
    // Every part passes the flash writers twice (erase, then write). The
    // count is the writers' signed 32-bit count and wraps like it; the
    // record starts before any test, so a refused package leaves it behind.
    const uint32_t total = static_cast<uint32_t>(qim_package_get_total_size(package) * 2u);
    status_file::writePackagePhase(status_file::kStatusPath, static_cast<int>(total));

    const qim_id packageMfgc = *qim_package_get_mfgc_id(package);
    if (!qim_id_equal(&packageMfgc, &mfgcId) && !qim_id_is_any(&packageMfgc) &&
        !qim_id_is_any(&mfgcId)) {
        char device[QIM_ID_HEX_SIZE];
        char offered[QIM_ID_HEX_SIZE];
        std::cerr << "writeQimToFlash: Device manufacturer ID " << qim_id_to_hex(&mfgcId, device)
                  << " does not match QIM manufacturer ID " << qim_id_to_hex(&packageMfgc, offered)
                  << "." << std::endl;
        return ZEL_VERSION;
    }

    // What the load validated; without it no part can be read (readPartData).
    qim_file_identity validated{};
    const bool haveValidated = qim_package_get_file_identity(package, &validated) == ZEL_SUCCESS;

    bool written = false;
    const int parts = qim_package_get_num_parts(package);
    for (int seq = 0; seq < parts; ++seq) {
        uint32_t kind = 0;
        const char* file = nullptr;
        uint64_t position = 0;
        uint32_t size = 0;
        if (qim_package_get_part_info(package, seq, &kind, &file, &position, &size, nullptr) !=
            ZEL_SUCCESS) {
            std::cerr << "writeQimToFlashNo partition match" << std::endl;
            break;
        }
        const std::string name = partIdToPartitionName(kind);
        if (name.empty()) {
            // A kind without a partition ends the package rather than being
            // skipped: later parts may depend on it.
            std::cerr << "writeQimToFlashQIM Part ID " << kind << "not found" << std::endl;
            break;
        }
        std::cout << std::endl << "QIM partition = " << name << std::endl;
        if (!qim_package_part_matches_model(package, &modelId, seq)) {
            std::cout << "Model ID mismatch. Skipping to next partition." << std::endl;
            continue;
        }

        std::vector<uint8_t> data;
        const ReadResult read =
            readPartData(file, haveValidated ? &validated : nullptr, position, size, &data);
        if (read != ReadResult::kOk) {
            std::cerr << "writeQimToFlashError reading from file" << std::endl;
            return read == ReadResult::kNoMemory ? static_cast<int>(ZEL_NOMEMORY) : kPartReadFailed;
        }
        const int rc = writeImageToFlash(name, size, isPartitionProtected(name),
                                         data.empty() ? nullptr : data.data());
        if (rc != ZEL_SUCCESS) {
            std::cerr << "writeQimToFlashFlash write failed" << std::endl;
            return rc;
        }
        written = true;
    }

    if (written) {
        return ZEL_SUCCESS;
    }
    std::cerr << "writeQimToFlashNo matching partitions to flash" << std::endl;
    return ZEL_VERSION;
}
