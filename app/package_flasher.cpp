// The package path of an upgrade: load and validate a QIM package, refuse it
// for a foreign device kind, an unsuitable network chip or another
// manufacturer, print its report, and write every part meant for this
// device's model into the partition of its kind, in part-table order.
#include "app/flash_upgrader.h"

#include <iostream>
#include <memory>
#include <string>

#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include "app/result_code.h"
#include "app/image_buffer.h"
#include "app/release_signature.h"
#include "app/status_file.h"
#include "app/stop_signal.h"
#include "qim/package.h"
#include "qim/report.h"
#include "support/system.h"

namespace {

struct PackageFree {
    void operator()(qim_package* package) const { qim_package_free(package); }
};
using UniquePackage = std::unique_ptr<qim_package, PackageFree>;

// A part whose bytes cannot be read (kFailed: the part table promises data
// the file does not hold) makes the package count as damaged.
enum class ReadResult { kOk, kFailed, kNoMemory };

// Reads the `size` bytes at `position` of the package into a zero-filled
// buffer of exactly that size.
//
// They come through the descriptor the load validated the package through
// (qim_package_get_fd), never from the file's name: the name is not ours
// alone (every download rewrites "/tmp/flashit", and a local package belongs
// to whoever can write it), but whatever is put at it after the checksum
// pass, the descriptor still reads the file that passed.
//
// The file's length is checked first, so a damaged part table can never make
// us allocate more than the file holds.
ReadResult readPartData(int fd, uint64_t position, uint32_t size, ImageBuffer* data) {
    struct stat st;
    if (fd < 0 || ::fstat(fd, &st) != 0) {
        return ReadResult::kFailed;
    }
    const uint64_t length = static_cast<uint64_t>(st.st_size);
    if (position > length || size > length - position) {
        return ReadResult::kFailed;
    }
    if (!data->allocate(size)) {
        return ReadResult::kNoMemory;
    }
    // A part that ends before its size is as damaged as one that cannot be read.
    std::size_t got = 0;
    if (zel_read_at(fd, position, data->data(), size, &got) != ZEL_SUCCESS || got != size) {
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
    const int signedRelease = verifyQimSignature(package.get());
    if (signedRelease != ZEL_SUCCESS) {
        return signedRelease;
    }
    return writeQimToFlash(package.get());
}

int FlashUpgrader::verifyQimSignature(const qim_package* package) {
    if (releaseSignature == nullptr) {
        return ZEL_SUCCESS;
    }
    // Signed upgrades (-K): after the validation and the report, before the
    // status file's write phase and the first erase. The signature is checked
    // through the descriptor the load validated the package through, the one
    // every part is then read from, so the bytes flashed are the bytes whose
    // signature held.
    const int fd = qim_package_get_fd(package);
    if (fd < 0) {
        release_signature::printRefusal(releaseSignature->fileName, "package file is not open");
        return result_code::kSignatureRefused;
    }
    return verifyRelease(fd);
}

int FlashUpgrader::loadAndCheckQimFile(const char* path, qim_package* package) {
    // A file that cannot be opened as a firmware file (app/firmware_file.h)
    // fails like one the reader cannot open: 6, no message.
    zel::UniqueFd file;
    const int opened = openFirmware(path, &file);
    if (opened != ZEL_SUCCESS) {
        return opened == result_code::kSignatureRefused ? opened : result_code::kPackageOpenFailed;
    }
    const zel_error_t rc = qim_package_load_fd(package, file.release(), path);
    if (rc != ZEL_SUCCESS) {
        // The reader has printed its own message.
        return static_cast<int>(rc);
    }
    if (qim_package_get_device_code(package) != qim_local_device_code()) {
        std::cerr << "device type mismatch" << std::endl;
        return result_code::kDeviceCodeMismatch;
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
    status_file::writePackagePhase(status_file::kStatusPath, status_file::kTempPath, static_cast<int>(total));

    const qim_id packageMfgc = *qim_package_get_mfgc_id(package);
    if (!qim_id_equal(&packageMfgc, &mfgcId) && !qim_id_is_any(&packageMfgc) &&
        !qim_id_is_any(&mfgcId)) {
        char device[QIM_ID_HEX_SIZE];
        char offered[QIM_ID_HEX_SIZE];
        std::cerr << "writeQimToFlash: Device manufacturer ID " << qim_id_to_hex(&mfgcId, device)
                  << " does not match QIM manufacturer ID " << qim_id_to_hex(&packageMfgc, offered)
                  << "." << std::endl;
        return result_code::kManufacturerMismatch;
    }

    const int validated = qim_package_get_fd(package);
    bool written = false;
    const int parts = qim_package_get_num_parts(package);
    for (int seq = 0; seq < parts; ++seq) {
        // A SIGINT or SIGTERM ends the package between parts, never inside one.
        if (stop_signal::pending() != 0) {
            return ZEL_INTERRUPTED;
        }
        uint32_t kind = 0;
        uint64_t position = 0;
        uint32_t size = 0;
        if (qim_package_get_part_info(package, seq, &kind, nullptr, &position, &size, nullptr) !=
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

        ImageBuffer data;
        const ReadResult read = readPartData(validated, position, size, &data);
        if (read != ReadResult::kOk) {
            std::cerr << "writeQimToFlashError reading from file" << std::endl;
            return read == ReadResult::kNoMemory ? static_cast<int>(ZEL_NOMEMORY) : result_code::kPartReadFailed;
        }
        const int rc = writeImageToFlash(name, size, isPartitionProtected(name), data.data());
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
    return result_code::kNoPartWritten;
}
