// Fetching the firmware file named on a tftp:// command line into
// /tmp/flashit: mark the download in the status file, resolve the server,
// start the TFTP request and turn the event loop until the client's callback
// reports the end of the transfer.
#include "app/flash_upgrader.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <string>
#include <sys/socket.h>
#include <sys/stat.h>
#include <utility>

#include "app/exit_status.h"
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

// Shared by downloadFile and the callback, which runs inside the event loop
// turned by downloadFile on the same thread.
int downloadResult = 0;
// Progress reports seen since the process started; never reset.
uint32_t progressTicks = 0;
// Bytes the last completed request received.
uint64_t bytesReceived = 0;
// errno of the first write into the download file that stored less than it
// was given (0: none so far).
int writeError = 0;

// The client's write function: fwrite, remembering why the first short
// write fell short. The client itself does not look at the result.
size_t storeData(const void* data, size_t size, size_t count, FILE* file) {
    const size_t stored = std::fwrite(data, size, count, file);
    if (stored < count && writeError == 0) {
        writeError = errno != 0 ? errno : EIO;
    }
    return stored;
}

// Whether everything received is stored in the file: a full /tmp (or any
// failed write, flush or close) shows only here. Closes the file; errno
// tells why when false.
bool storedCompletely(tmp_file::UniqueFile file) {
    errno = 0;
    const bool flushed = std::fflush(file.get()) == 0 && std::ferror(file.get()) == 0;
    int error = errno != 0 ? errno : writeError;
    struct stat st;
    const bool sized = ::fstat(fileno(file.get()), &st) == 0 &&
                       static_cast<uint64_t>(st.st_size) == bytesReceived;
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

// Where downloadSignature collects the signature file: the client's write
// function has no context of its own beyond the FILE* it is given (null here).
std::string* signatureText = nullptr;
bool signatureTooLarge = false;

// Appends to signatureText up to QIM_SIGNATURE_TEXT_MAX bytes; beyond that
// the rest of the transfer is counted as too large and dropped, so a server
// cannot make us hold more than a signature file's worth.
size_t appendToSignature(const void* data, size_t size, size_t count, FILE* /*file*/) {
    const size_t bytes = size * count;
    if (signatureText == nullptr || signatureTooLarge ||
        bytes > QIM_SIGNATURE_TEXT_MAX - signatureText->size()) {
        signatureTooLarge = true;
        return 0;
    }
    signatureText->append(static_cast<const char*>(data), bytes);
    return count;
}

}  // namespace

int FlashUpgrader::downloadFile(const std::string& host, const std::string& port,
                                const std::string& remoteName) {
    // Marked before anything can fail, so a supervisor sees the run start.
    status_file::writeDownloadPhase(status_file::kStatusPath, status_file::kTempPath);

    zel_sockaddr server{};
    const char* service = port.empty() ? kDefaultTftpService : port.c_str();
    zel_error_t rc = zel_resolve_address(&server, AF_INET, host.c_str(), service);
    if (rc != ZEL_SUCCESS) {
        std::cerr << "Error parsing server address: " << zel_error_text(rc, errorText) << std::endl;
        // The one failure that ends the process here; the status file keeps
        // its "status=1" line.
        std::exit(-1);
    }

    // Always a file of our own, created afresh: whatever another user left
    // at the name (a link, a FIFO, a file they keep open) is removed, never
    // written through. Only brivlo reads the firmware back: nobody else
    // needs to read it, and nobody else can write it.
    tmp_file::UniqueFile file = tmp_file::createFresh(tmp_file::kDownloadPath, 0600);
    if (!file) {
        // Formatted before anything else can change errno.
        zel_error_text(zel_error_from_errno(errno), errorText);
        std::cerr << "Error opening local file " << errorText << std::endl;
        return exit_status::kDownloadOpenFailed;
    }

    writeError = 0;
    rc = zel_tftp_client__recv_file(tftpClient, &server, remoteName.c_str(), file.get(), storeData,
                                    nullptr, nullptr, &activeRequest);
    if (rc != ZEL_SUCCESS) {
        std::cerr << "Error initiating recv: " << zel_error_text(rc, errorText) << std::endl;
        return exit_status::kDownloadStartFailed;
    }
    std::cout << "Starting file download" << std::endl;
    downloadResult = 0;

    // The client's abort timer ends every request that stops making progress,
    // so this loop ends at the latest 5 seconds after the last new block.
    const zel_utime maxWait = {1, 0};
    while (activeRequest != nullptr) {
        rc = zel_event_loop__run_once(env->loop, &maxWait);
        // SIGINT or SIGTERM: nothing is erased yet, so the run ends now (the
        // signal also cut the turn's wait short, hence before the rc test).
        if (stop_signal::pending() != 0) {
            return ZEL_INTERRUPTED;
        }
        if (rc != ZEL_SUCCESS) {
            std::cerr << "Error processing events: " << zel_error_text(rc, errorText) << std::endl;
            return exit_status::kDownloadEventsFailed;
        }
    }
    if (downloadResult != 0) {
        return downloadResult;
    }
    if (!storedCompletely(std::move(file))) {
        zel_error_text(zel_error_from_errno(errno), errorText);
        std::cerr << "Error writing local file " << errorText << std::endl;
        return ZEL_SYSTEM;
    }
    return ZEL_SUCCESS;
}

int FlashUpgrader::downloadSignature(const std::string& host, const std::string& port,
                                     const std::string& remoteName, std::string* text) {
    const std::string signatureName = remoteName + release_signature::kSignatureExtension;
    zel_sockaddr server{};
    const char* service = port.empty() ? kDefaultTftpService : port.c_str();
    // The same server answered a moment ago for the firmware file.
    zel_error_t rc = zel_resolve_address(&server, AF_INET, host.c_str(), service);
    if (rc == ZEL_SUCCESS) {
        text->clear();
        signatureText = text;
        signatureTooLarge = false;
        rc = zel_tftp_client__recv_file(tftpClient, &server, signatureName.c_str(), nullptr, appendToSignature,
                                        nullptr, nullptr, &activeRequest);
    }
    if (rc != ZEL_SUCCESS) {
        signatureText = nullptr;
        release_signature::printRefusal(remoteName, std::string("cannot fetch the signature: ") +
                                                        zel_error_text(rc, errorText));
        return exit_status::kSignatureRefused;
    }
    downloadResult = 0;
    const zel_utime maxWait = {1, 0};
    while (activeRequest != nullptr && rc == ZEL_SUCCESS) {
        rc = zel_event_loop__run_once(env->loop, &maxWait);
    }
    signatureText = nullptr;
    if (rc != ZEL_SUCCESS || downloadResult != 0) {
        const zel_error_t why = rc != ZEL_SUCCESS ? rc : static_cast<zel_error_t>(downloadResult);
        release_signature::printRefusal(remoteName, "no signature " + signatureName + ": " +
                                                        zel_error_text(why, errorText));
        return exit_status::kSignatureRefused;
    }
    if (signatureTooLarge) {
        release_signature::printRefusal(remoteName, "signature " + signatureName + " larger than " +
                                                        std::to_string(QIM_SIGNATURE_TEXT_MAX) + " bytes");
        return exit_status::kSignatureRefused;
    }
    return ZEL_SUCCESS;
}

void FlashUpgrader::tftpRequestCallback(zel_tftp_client_request* request) {
    auto* owner = static_cast<FlashUpgrader*>(
        zel_tftp_client__context(zel_tftp_client_request__client(request)));
    if (owner == nullptr || request != owner->activeRequest) {
        std::cout << "client requests don't match" << std::endl;
        return;
    }
    switch (zel_tftp_client_request__state(request)) {
    case ZEL_TFTP_CLIENT_REQUEST_STATE_COMPLETED:
        downloadResult = 0;
        bytesReceived = zel_tftp_client_request__bytes_transferred(request);
        std::cout << " " << zel_tftp_client_request__bytes_transferred(request) << " bytes transferred"
                  << std::endl;
        zel_tftp_client_request__reset(request);
        owner->activeRequest = nullptr;
        break;
    case ZEL_TFTP_CLIENT_REQUEST_STATE_ERROR: {
        const zel_error_t error = zel_tftp_client_request__error(request);
        downloadResult = static_cast<int>(error);
        std::cerr << "Request Error: " << zel_error_text(error, owner->errorText) << std::endl;
        zel_tftp_client_request__reset(request);
        owner->activeRequest = nullptr;
        break;
    }
    default:
        // A progress report: one per block that brought data.
        ++progressTicks;
        if (progressTicks % kTicksPerDot == 0) {
            std::cout << '.' << std::flush;
        }
        break;
    }
}
