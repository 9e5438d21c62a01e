// Fetching the files a tftp:// command line names: the firmware into
// /tmp/flashit, and with -K its detached signature into memory. Both go
// through runTransfer, which takes one read request to its end; the two
// callers only say where the data goes and how each failure is reported.
#include "app/flash_upgrader.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <string>
#include <sys/socket.h>
#include <sys/stat.h>
#include <utility>

#include "app/result_code.h"
#include "app/release_signature.h"
#include "app/status_file.h"
#include "app/stop_signal.h"
#include "app/tmp_file.h"
#include "net/env.h"
#include "net/event_loop.h"
#include "net/socket.h"
#include "net/tftp_client.h"
#include "net/tftp_state.h"

namespace {

constexpr const char* kDefaultTftpService = "69";
// One dot per 150 progress reports: 150 blocks of 512 bytes.
constexpr uint32_t kTicksPerDot = 150;

// Whether everything received is stored in the download file: a full /tmp
// (or any failed write, flush or close) shows only here. Closes the file;
// errno tells why when false.
bool storedCompletely(tmp_file::UniqueFile file, uint64_t received, int writeError) {
    errno = 0;
    const bool flushed = std::fflush(file.get()) == 0 && std::ferror(file.get()) == 0;
    int error = errno != 0 ? errno : writeError;
    struct stat st;
    const bool sized = ::fstat(fileno(file.get()), &st) == 0 && static_cast<uint64_t>(st.st_size) == received;
    if (std::fclose(file.release()) != 0 && error == 0) {
        error = errno;
    }
    if (flushed && sized && error == 0) {
        return true;
    }
    // A file shorter than what was received, with no failed call to say why.
    errno = error != 0 ? error : EIO;
    return false;
}

}  // namespace

std::size_t FlashUpgrader::Transfer::store(const char* data, std::size_t size) {
    if (file != nullptr) {
        const std::size_t stored = std::fwrite(data, 1, size, file);
        if (stored < size && writeError == 0) {
            writeError = errno != 0 ? errno : EIO;
        }
        return stored;
    }
    // A server cannot make us hold more than `limit` bytes, however much it
    // sends: the rest is dropped and only counted.
    if (memory == nullptr || size > limit - memory->size()) {
        writeError = EFBIG;
        return 0;
    }
    memory->append(data, size);
    return size;
}

ssize_t FlashUpgrader::writeToTransfer(void* cookie, const char* data, std::size_t size) {
    return static_cast<ssize_t>(static_cast<Transfer*>(cookie)->store(data, size));
}

FlashUpgrader::TransferEnd FlashUpgrader::runTransfer(const TransferRequest& request, zel_error_t* error) {
    zel_sockaddr server{};
    const char* service = request.port.empty() ? kDefaultTftpService : request.port.c_str();
    *error = zel_resolve_address(&server, AF_INET, request.host.c_str(), service);
    if (*error != ZEL_SUCCESS) {
        zel_error_text(*error, errorText);
        return TransferEnd::kUnresolved;
    }

    transfer = Transfer{transfer.progressTicks};
    tmp_file::UniqueFile file;
    if (request.memory != nullptr) {
        request.memory->clear();
        transfer.memory = request.memory;
        transfer.limit = request.limit;
    } else {
        // Always a file of our own, created afresh: whatever another user
        // left at the name (a link, a FIFO, a file they keep open) is
        // removed, never written through. Only brivlo reads the firmware
        // back: nobody else needs to read it, and nobody else can write it.
        file = tmp_file::createFresh(tmp_file::kDownloadPath, 0600);
        if (!file) {
            // Formatted before anything else can change errno.
            *error = zel_error_from_errno(errno);
            zel_error_text(*error, errorText);
            return TransferEnd::kNotOpened;
        }
        transfer.file = file.get();
    }

    // The client hands every block to fwrite on the stream it is given; this
    // one, unbuffered, passes each block on to `transfer`.
    cookie_io_functions_t functions{};
    functions.write = &FlashUpgrader::writeToTransfer;
    tmp_file::UniqueFile stream(fopencookie(&transfer, "wb", functions));
    if (!stream || std::setvbuf(stream.get(), nullptr, _IONBF, 0) != 0) {
        *error = ZEL_NOMEMORY;
    } else {
        *error = zel_tftp_client__recv_file(tftpClient, &server, request.remoteName.c_str(), stream.get(),
                                            std::fwrite, nullptr, nullptr, &activeRequest);
    }
    if (*error != ZEL_SUCCESS) {
        zel_error_text(*error, errorText);
        return TransferEnd::kNotStarted;
    }
    if (request.memory == nullptr) {
        std::cout << "Starting file download" << std::endl;
    }

    const TransferEnd end = turnUntilDone(error);
    if (activeRequest != nullptr) {
        // Cut short: the request must not outlive the stream it writes into.
        zel_tftp_client_request__reset(activeRequest);
        activeRequest = nullptr;
    }
    if (end != TransferEnd::kDone) {
        return end;
    }
    if (request.memory != nullptr) {
        return transfer.bytesReceived > request.limit ? TransferEnd::kTooLarge : TransferEnd::kDone;
    }
    if (!storedCompletely(std::move(file), transfer.bytesReceived, transfer.writeError)) {
        *error = zel_error_from_errno(errno);
        zel_error_text(*error, errorText);
        return TransferEnd::kNotStored;
    }
    return TransferEnd::kDone;
}

FlashUpgrader::TransferEnd FlashUpgrader::turnUntilDone(zel_error_t* error) {
    // The client's abort timer ends every request that stops making progress,
    // so this loop ends at the latest 5 seconds after the last new block.
    const zel_utime maxWait = {1, 0};
    while (activeRequest != nullptr) {
        *error = zel_event_loop__run_once(env->loop, &maxWait);
        // SIGINT or SIGTERM: nothing is erased yet, so the run ends now (the
        // signal also cut the turn's wait short, hence before the rc test).
        if (stop_signal::pending() != 0) {
            return TransferEnd::kStopped;
        }
        if (*error != ZEL_SUCCESS) {
            zel_error_text(*error, errorText);
            return TransferEnd::kEventsFailed;
        }
    }
    *error = transfer.result;
    return transfer.result == ZEL_SUCCESS ? TransferEnd::kDone : TransferEnd::kRequestFailed;
}

int FlashUpgrader::downloadFile(const std::string& host, const std::string& port,
                                const std::string& remoteName) {
    // Marked before anything can fail, so a supervisor sees the run start.
    status_file::writeDownloadPhase(status_file::kStatusPath, status_file::kTempPath);

    TransferRequest request;
    request.host = host;
    request.port = port;
    request.remoteName = remoteName;
    zel_error_t error = ZEL_SUCCESS;
    switch (runTransfer(request, &error)) {
    case TransferEnd::kDone:
        return ZEL_SUCCESS;
    case TransferEnd::kUnresolved:
        std::cerr << "Error parsing server address: " << errorText << std::endl;
        // The one failure that ends the process here; the status file keeps
        // its "status=1" line.
        std::exit(-1);
    case TransferEnd::kNotOpened:
        std::cerr << "Error opening local file " << errorText << std::endl;
        return result_code::kDownloadOpenFailed;
    case TransferEnd::kNotStarted:
        std::cerr << "Error initiating recv: " << errorText << std::endl;
        return result_code::kDownloadStartFailed;
    case TransferEnd::kEventsFailed:
        std::cerr << "Error processing events: " << errorText << std::endl;
        return result_code::kDownloadEventsFailed;
    case TransferEnd::kRequestFailed:
        return static_cast<int>(error);
    case TransferEnd::kStopped:
        return ZEL_INTERRUPTED;
    case TransferEnd::kNotStored:
    case TransferEnd::kTooLarge:
        break;
    }
    std::cerr << "Error writing local file " << errorText << std::endl;
    return ZEL_SYSTEM;
}

int FlashUpgrader::downloadSignature(const std::string& host, const std::string& port,
                                     const std::string& remoteName, std::string* text) {
    // The same server answered a moment ago for the firmware file.
    TransferRequest request;
    request.host = host;
    request.port = port;
    request.remoteName = remoteName + release_signature::kSignatureExtension;
    request.memory = text;
    request.limit = QIM_SIGNATURE_TEXT_MAX;
    zel_error_t error = ZEL_SUCCESS;
    std::string reason;
    switch (runTransfer(request, &error)) {
    case TransferEnd::kDone:
        return ZEL_SUCCESS;
    case TransferEnd::kStopped:
        return ZEL_INTERRUPTED;
    case TransferEnd::kUnresolved:
    case TransferEnd::kNotOpened:
    case TransferEnd::kNotStarted:
        reason = std::string("cannot fetch the signature: ") + errorText;
        break;
    case TransferEnd::kRequestFailed:
        zel_error_text(error, errorText);
        reason = "no signature " + request.remoteName + ": " + errorText;
        break;
    case TransferEnd::kEventsFailed:
    case TransferEnd::kNotStored:
        reason = "no signature " + request.remoteName + ": " + errorText;
        break;
    case TransferEnd::kTooLarge:
        reason = "signature " + request.remoteName + " larger than " + std::to_string(QIM_SIGNATURE_TEXT_MAX) +
                 " bytes";
        break;
    }
    release_signature::printRefusal(remoteName, reason);
    return result_code::kSignatureRefused;
}

void FlashUpgrader::tftpRequestCallback(zel_tftp_client_request* request) {
    auto* owner = static_cast<FlashUpgrader*>(
        zel_tftp_client__context(zel_tftp_client_request__client(request)));
    if (owner == nullptr || request != owner->activeRequest) {
        std::cout << "client requests don't match" << std::endl;
        return;
    }
    Transfer& transfer = owner->transfer;
    switch (zel_tftp_client_request__state(request)) {
    case ZEL_TFTP_CLIENT_REQUEST_STATE_COMPLETED:
        transfer.result = ZEL_SUCCESS;
        transfer.bytesReceived = zel_tftp_client_request__bytes_transferred(request);
        std::cout << " " << transfer.bytesReceived << " bytes transferred" << std::endl;
        zel_tftp_client_request__reset(request);
        owner->activeRequest = nullptr;
        break;
    case ZEL_TFTP_CLIENT_REQUEST_STATE_ERROR: {
        const zel_error_t error = zel_tftp_client_request__error(request);
        transfer.result = error;
        std::cerr << "Request Error: " << zel_error_text(error, owner->errorText) << std::endl;
        zel_tftp_client_request__reset(request);
        owner->activeRequest = nullptr;
        break;
    }
    default:
        // A progress report: one per block that brought data.
        ++transfer.progressTicks;
        if (transfer.progressTicks % kTicksPerDot == 0) {
            std::cout << '.' << std::flush;
        }
        break;
    }
}
