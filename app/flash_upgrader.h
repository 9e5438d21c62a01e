// FlashUpgrader: the one upgrade context of a brivlo run. It carries the
// device identity that packages are matched against, the TFTP client used for
// downloads and the request in progress; the download, flash writing and
// compatibility operations are its methods, spread over the files of app/:
//
//   flash_upgrader.cpp   construction, init, accessors
//   status_file.cpp      updateStatusCurrent (and the status file itself)
//   partitions.cpp       partition name tables and their four lookups
//   flash_writer.cpp     writeImageToFlash, writeToFlash
//   kernel_rootfs.cpp    eraseAndWriteKernelRootFs
//   download.cpp         downloadFile, downloadSignature, tftpRequestCallback
//   package_flasher.cpp  flashQimFile, loadAndCheckQimFile, writeQimToFlash
//   compatibility.cpp    parseCapabilityForIds, extractLinuxVerFromQim,
//                        getEthernetPhyId, validateFirmwareSupport
//   release_signature.cpp  setRelease, verifyRelease (signed upgrades, -K)
//
// Methods return int codes with the zel_error_t numbers and print their own
// diagnostics: one line on standard error, the method's name first. Progress
// dots and phase lines go to standard output.
//
// Calling order: construct, init() once, identifier setters, at most one
// download and one flash operation, destroy. Single-threaded.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <sys/types.h>
#include <string>

#include "qim/qim_id.h"
#include "support/errors.h"
#include "support/unique_handles.h"

struct zel_env;
struct zel_tftp_client;
struct zel_tftp_client_request;
struct qim_package;
// One image on its way into one partition (app/flash_target.h).
struct FlashTarget;
namespace release_signature {
struct Release;
}

class FlashUpgrader {
public:
    // Stores `env` (not owned); wildcard identifiers, no client, zeroed
    // errorText. Cannot fail.
    explicit FlashUpgrader(zel_env* env);
    // Releases the TFTP client (none before init or after a failed init).
    ~FlashUpgrader();
    FlashUpgrader(const FlashUpgrader&) = delete;
    FlashUpgrader& operator=(const FlashUpgrader&) = delete;

    // Reads the device identity from the capability record (warnings only,
    // never fails), then creates the TFTP client: 0, or 6 after printing
    // "Error creating client: ..." when the client cannot be created.
    int init();
    // Creates the client on env and registers this object and
    // tftpRequestCallback on it: 0, or 6 (message above; tftpClient stays null).
    int initTftpClient();

    void setModelId(const qim_id& id);
    void setMfgcId(const qim_id& id);
    qim_id getModelId() const;
    qim_id getMfgcId() const;
    // The client made by init; null before init or when its creation failed.
    zel_tftp_client* getTftpClient() const { return tftpClient; }

    // Status file progress: replaces the "current=" line by `current`
    // through the temporary file and a rename.
    void updateStatusCurrent(int current);

    // Partition vocabulary. Names are compared exactly.
    // True for the 19 partitions that may be named on the command line and "qim".
    static bool isValidPartitionName(std::string name);
    // Part kind held by a partition; 28 ("unknown") and a message on standard
    // error for a name not in the table.
    static int flashPartNameToPartId(std::string name);
    // 1 for a write-locked partition, 0 otherwise; 1 and a message for an
    // unknown name, so callers go on treating it as locked.
    static int isPartitionProtected(std::string name);
    // Partition that receives a package part of `partId`; empty when none.
    static std::string partIdToPartitionName(uint32_t partId);

    // Writes `image` (`size` bytes) into /dev/flash/<name>: checks, unlock
    // (when `isProtected`), erase, write, lock. The partition "image" is split
    // into kernel and rootfs. 0; 18 open or unlock failed; 4 geometry, erase
    // or write failed; 28 lock failed; or the split writer's code.
    int writeImageToFlash(std::string name, uint32_t size, int isProtected, const uint8_t* image);
    // The size check of writeImageToFlash alone, for an image of `size`
    // bytes not read yet: 4 after the same "too large" line; 0 when it fits,
    // and also when the partition cannot be opened or asked for its size
    // (writeImageToFlash reports that). So a local file far larger than its
    // partition is refused before it costs any memory.
    int checkImageFits(const std::string& name, uint64_t size);
    // Write phase shared by the writers: erasesize-sized chunks, then the
    // remainder, each into the block the target's walk gives it, advancing
    // `*count` by every byte of the image. 0 or 4. The descriptor stays open.
    int writeToFlash(FlashTarget& target, const uint8_t* data, uint32_t size, int* count);
    // The combined Linux image split at its U-Boot header into
    // /dev/flash/kernel and /dev/flash/rootfs. 0, 18 (a device cannot be
    // opened) or 4.
    int eraseAndWriteKernelRootFs(uint32_t size, int current, const uint8_t* image);

    // Package path: load, check, report and write a QIM package. 0 or a code.
    int flashQimFile(const char* path);
    int loadAndCheckQimFile(const char* path, qim_package* package);
    int writeQimToFlash(qim_package* package);
    // With a release set (-K), the signature over the validated package
    // file; 0 without one (package_flasher.cpp).
    int verifyQimSignature(const qim_package* package);

    // Device compatibility.
    void parseCapabilityForIds();
    uint32_t extractLinuxVerFromQim(qim_package* package);
    int getEthernetPhyId(uint16_t* phyId);
    int validateFirmwareSupport(qim_package* package);

    // Fetches `remoteName` from host:port ("69" when empty) into /tmp/flashit.
    // 0 on success, ZEL_INTERRUPTED when a stop signal arrived, else a code;
    // ends the process with exit status 255 when the server address cannot
    // be resolved.
    int downloadFile(const std::string& host, const std::string& port, const std::string& remoteName);
    // Fetches the detached signature "<remoteName>.minisig" of the firmware
    // file `remoteName` from host:port into `text`
    // (at most QIM_SIGNATURE_TEXT_MAX bytes), after the firmware download,
    // without a file. 0; ZEL_INTERRUPTED when a stop signal arrived;
    // result_code::kSignatureRefused after printing why there is no signature.
    int downloadSignature(const std::string& host, const std::string& port, const std::string& remoteName,
                          std::string* text);
    // The TFTP client's callback; finds its FlashUpgrader through the client's
    // context.
    static void tftpRequestCallback(zel_tftp_client_request* request);

    // Signed upgrades. With a release set (not owned; it outlives the
    // flash steps), verifyRelease checks its signature over the bytes about to
    // be flashed: 0, or result_code::kSignatureRefused after the
    // refusal line. Without one both return 0 at once.
    void setRelease(const release_signature::Release* release);

    // -D: blocks that already hold what a write would leave in them are
    // neither erased nor written.
    void setSkipUnchanged(bool skip) { skipUnchanged = skip; }
    int verifyRelease(const uint8_t* data, std::size_t size);
    // Over the whole file open on `fd`, read with pread from offset 0.
    int verifyRelease(int fd);
    // Opens the firmware file to flash (app/firmware_file.h), guarded when a
    // release is set: 0 with *fd set; 2 (SYSTEM) when it cannot be read or
    // is no regular file (the caller reports that its own way);
    // result_code::kSignatureRefused after the refusal line.
    int openFirmware(const std::string& path, zel::UniqueFd* fd);

private:
    // One TFTP read request (download.cpp). New request options go here.
    struct TransferRequest {
        std::string host;
        std::string port;  // empty: the TFTP default port
        std::string remoteName;
        // Null: into the download file, announced on standard output.
        // Otherwise into this buffer, which keeps at most `limit` bytes.
        std::string* memory = nullptr;
        std::size_t limit = 0;
    };
    // How runTransfer ended. Every failure but kRequestFailed (which the
    // callback reports) leaves its text in errorText.
    enum class TransferEnd {
        kDone,
        kUnresolved,     // the server address cannot be resolved
        kNotOpened,      // the download file cannot be created
        kNotStarted,     // the request cannot be started
        kEventsFailed,   // a turn of the event loop failed
        kRequestFailed,  // the transfer failed (timeout, ERROR packet)
        kStopped,        // SIGINT or SIGTERM arrived
        kNotStored,      // the file holds less than was received
        kTooLarge,       // more than the buffer's limit was received
    };
    // What the request in progress shares with tftpRequestCallback and the
    // client's writes: one object, reached through the client's context and
    // through the stream the client writes into.
    struct Transfer {
        uint32_t progressTicks = 0;     // progress reports of this run; never reset
        zel_error_t result = ZEL_SUCCESS;  // or the failed request's code
        uint64_t bytesReceived = 0;     // of the request that completed
        std::FILE* file = nullptr;      // destination: the download file, or
        std::string* memory = nullptr;  // a buffer of at most `limit` bytes
        std::size_t limit = 0;
        int writeError = 0;  // errno of the first write that stored less than it was given

        // Stores one write of the client at the destination; the bytes stored.
        std::size_t store(const char* data, std::size_t size);
    };

    // Runs `request` to its end: resolve the server, open the destination,
    // start the request, turn the event loop until the callback ends it or a
    // stop signal arrives, then check that everything received is stored.
    // `*error` is the code of a failure.
    TransferEnd runTransfer(const TransferRequest& request, zel_error_t* error);
    // The event loop until the request in progress ends.
    TransferEnd turnUntilDone(zel_error_t* error);
    static ssize_t writeToTransfer(void* cookie, const char* data, std::size_t size);

    // The data path of one image (flash_writer.cpp). Before anything is
    // unlocked or erased: the walk over the good blocks (NAND: the bad ones
    // are asked for and skipped), refusing an image they cannot hold, and
    // with -D the blocks that already hold their bytes. 0 or 4.
    int prepareBlocks(FlashTarget& target, const uint8_t* image, uint32_t size);
    // The walk alone: on NAND the bad blocks asked for; 0, or 4 after the
    // message when the image does not fit the good blocks.
    int placeOnGoodBlocks(FlashTarget& target, uint32_t size);
    // The rootfs partition looked at before the kernel is erased
    // (kernel_rootfs.cpp): its write unit, and on NAND its good blocks for
    // `length` bytes. 0 or 4 after the message.
    int lookAheadAtRootfs(uint32_t length);
    // Erase phase (the estimate line, a dot, a status update showing the
    // count from before the block and `*count` advanced by erasesize per
    // block, one more dot), the target's writing line, then the write phase,
    // each block read back and compared as soon as it is written. 0 or 4
    // after the message.
    int eraseWriteVerify(FlashTarget& target, const uint8_t* image, uint32_t size, int* count);
    // Erases the block image block `index` goes to; on NAND a block that
    // fails with EIO is marked bad and the image moves on. 0 or 4.
    int eraseImageBlock(FlashTarget& target, uint32_t index);
    // Writes `length` bytes of image block `index` (erasing first a block it
    // moved onto), seeking when `*position` is not where it goes, and reads
    // them back. 0 or 4.
    int writeImageBlock(FlashTarget& target, uint32_t index, const uint8_t* bytes, uint32_t length,
                        uint64_t* position, const char* failureLine);
    // The block under image block `index` failed with EIO: marks it bad,
    // says so, and moves the image from `index` on to the next good blocks;
    // false after the message when none are left.
    bool retireBlock(FlashTarget& target, uint32_t index);
    // Reads back the `length` bytes just written at `at` and compares them
    // with `bytes`; 0, or 4 after naming the first differing offset.
    int verifyBlock(FlashTarget& target, uint64_t at, const uint8_t* bytes, uint32_t length);
    // One half of the combined Linux image into its partition
    // (kernel_rootfs.cpp): prepare, erase, write and verify; 0 or the
    // writers' code.
    int writeHalf(FlashTarget& target, const uint8_t* data, uint32_t length, int* current);

    zel_env* env;
    qim_id modelId;
    qim_id mfgcId;
    char errorText[ZEL_ERROR_TEXT_SIZE];
    zel_tftp_client* tftpClient;
    zel_tftp_client_request* activeRequest;
    Transfer transfer;
    const release_signature::Release* releaseSignature = nullptr;
    bool skipUnchanged = false;
    uint32_t skippedBlocks = 0;  // by -D, over the image being written
};
