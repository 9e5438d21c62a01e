#include "app/main_flow.h"

#include <cstdio>
#include <cstring>
#include <iostream>
#include <limits>
#include <memory>
#include <string>
#include <vector>

#include <sys/stat.h>

#include "app/command_line.h"
#include "app/exit_status.h"
#include "app/flash_upgrader.h"
#include "app/image_buffer.h"
#include "app/release_signature.h"
#include "app/status_file.h"
#include "app/stop_signal.h"
#include "app/tmp_file.h"
#include "app/upgrade_lock.h"
#include "net/env.h"
#include "net/log.h"
#include "qim/qim_id.h"
#include "support/system.h"

namespace {

// Reads the whole raw image of `length` bytes from `file`. False when it
// cannot be read, is larger than the 32-bit size the writer takes, or memory
// runs out; no buffer is ever sized from a length that was not determined.
bool readRawImage(int file, uint64_t length, ImageBuffer* image) {
    if (length > std::numeric_limits<uint32_t>::max() || length > std::numeric_limits<std::size_t>::max() ||
        !image->allocate(static_cast<std::size_t>(length))) {
        return false;
    }
    // A file that ends early was changed under us: as unreadable as one
    // whose read fails.
    std::size_t got = 0;
    return zel_read_at(file, 0, image->data(), image->size(), &got) == ZEL_SUCCESS && got == image->size();
}

// The raw path of step "flash": failures of reading and writing are
// reported, never turned into an exit status. A refused signature (-K) is:
// the image is checked in the buffer the writer then takes, before any erase.
// Returns 0 or the refusal's exit status.
int flashRawImage(FlashUpgrader& upgrader, const std::string& path, const std::string& partition) {
    // The firmware file rules (app/firmware_file.h): a link swapped in at the
    // download path, a FIFO, a device or a directory is a file that cannot be
    // read; under -K one that others may write is refused.
    zel::UniqueFd file;
    const int opened = upgrader.openFirmware(path, &file);
    if (opened == exit_status::kSignatureRefused) {
        return opened;
    }
    struct stat st;
    if (opened != ZEL_SUCCESS || ::fstat(file.get(), &st) != 0) {
        std::cerr << "Error reading from file " << path << std::endl;
        return 0;
    }
    // The partition's size is known before the file is read: an image that
    // cannot fit is refused without costing its size in memory.
    const uint64_t length = static_cast<uint64_t>(st.st_size);
    if (upgrader.checkImageFits(partition, length) != ZEL_SUCCESS) {
        std::cerr << "Error writing to flash" << std::endl;
        return 0;
    }
    ImageBuffer image;
    if (!readRawImage(file.get(), length, &image)) {
        std::cerr << "Error reading from file " << path << std::endl;
        return 0;
    }
    const int verified = upgrader.verifyRelease(image.data(), image.size());
    if (verified != ZEL_SUCCESS) {
        return verified;
    }
    // Reading a large image takes a while; a stop asked for meanwhile is
    // honoured before the partition is touched.
    if (stop_signal::pending() != 0) {
        return 0;
    }
    const int isProtected = FlashUpgrader::isPartitionProtected(partition);
    if (upgrader.writeImageToFlash(partition, static_cast<uint32_t>(image.size()), isProtected,
                                   image.data()) != ZEL_SUCCESS) {
        std::cerr << "Error writing to flash" << std::endl;
    }
    return 0;
}

void removeStatusFile() {
    std::remove(status_file::kStatusPath);
}

// With -K, the release key, loaded before any download so that a key that
// cannot be used never costs a transfer. 0, or the exit status.
int loadReleaseKey(const command_line::Invocation& run, std::unique_ptr<release_signature::Release>* release) {
    if (!run.keyGiven) {
        return ZEL_SUCCESS;
    }
    release->reset(new release_signature::Release());
    (*release)->fileName = run.fileName;
    return release_signature::loadKey(run.keyPath, &(*release)->key);
}

// The signature of the file to be flashed: from the same server, into
// memory, for a download; from beside it for a local file. 0, or the exit
// status after the refusal was printed.
int fetchSignature(FlashUpgrader& upgrader, const command_line::Invocation& run, release_signature::Release* release) {
    if (!run.source.download) {
        return release_signature::loadLocalSignature(run.fileName, &release->signature);
    }
    std::string text;
    const int fetched = upgrader.downloadSignature(run.source.host, run.source.port, run.fileName, &text);
    if (fetched != ZEL_SUCCESS) {
        return fetched;
    }
    return release_signature::parseFetchedSignature(run.fileName, text, &release->signature);
}

// Sets the identities a package is matched against. 0 when the run goes on
// as `*package` says, or the exit status after printing why not.
int applyTarget(FlashUpgrader& upgrader, const command_line::Invocation& run, const std::string& program,
                bool* package) {
    using Kind = command_line::Target::Kind;
    const command_line::Target target = command_line::chooseTarget(run);
    switch (target.kind) {
    case Kind::kNotPartitionOrPackage:
        std::cerr << "main" << ": Error - file is not of type qim or missing partition name" << std::endl;
        return exit_status::kNotPartitionOrPackage;
    case Kind::kBadModelArgument:
        std::cerr << "main" << ": Invalid argument \"" << run.partitionName << "\"" << std::endl;
        command_line::printUsage(program);
        return exit_status::kBadModelArgument;
    case Kind::kRaw:
    case Kind::kPackage:
        break;
    }
    *package = target.kind == Kind::kPackage;
    if (target.model.given) {
        upgrader.setModelId(target.model.id);
    }
    if (target.mfgc.given) {
        upgrader.setMfgcId(target.mfgc.id);
    }
    return 0;
}

int runUpgrade(zel_env* env, const std::string& program, const command_line::Invocation& run) {
    std::unique_ptr<FlashUpgrader> upgrader(new FlashUpgrader(env));
    // Every return below this point destroys the context before the status
    // file goes, so nothing writes the file after its removal.
    auto finish = [&upgrader](int status) {
        upgrader.reset();
        removeStatusFile();
        return status;
    };
    // A SIGINT or SIGTERM that was honoured: the partition in progress, if
    // any, has been completed.
    auto stopped = [&finish](int signal) {
        std::cerr << "main: Upgrade stopped by signal " << signal << " (" << strsignal(signal) << ")"
                  << std::endl;
        return finish(stop_signal::exitStatus(signal));
    };
    if (upgrader->init() != ZEL_SUCCESS) {
        std::cerr << "Error initialising brivlo" << std::endl;
        return finish(exit_status::kUsage);
    }
    upgrader->setSkipUnchanged(run.onlyChangedBlocks);

    bool package = false;
    const int chosen = applyTarget(*upgrader, run, program, &package);
    if (chosen != 0) {
        return finish(chosen);
    }
    // The release outlives the upgrader, which only points at it.
    std::unique_ptr<release_signature::Release> release;
    const int keyLoaded = loadReleaseKey(run, &release);
    if (keyLoaded != ZEL_SUCCESS) {
        return finish(keyLoaded);
    }

    std::string path = run.fileName;
    if (run.source.download) {
        const int rc = upgrader->downloadFile(run.source.host, run.source.port, run.fileName);
        // A download cut short by a signal is no download failure.
        if (rc != ZEL_SUCCESS && stop_signal::pending() == 0) {
            std::cerr << "TFTP download error" << std::endl;
            return finish(exit_status::kDownloadFailed);
        }
        path = tmp_file::kDownloadPath;
    }
    if (const int signal = stop_signal::pending()) {
        return stopped(signal);
    }
    if (release) {
        const int signatureRead = fetchSignature(*upgrader, run, release.get());
        if (const int signal = stop_signal::pending()) {
            return stopped(signal);
        }
        if (signatureRead != ZEL_SUCCESS) {
            return finish(signatureRead);
        }
        upgrader->setRelease(release.get());
    }

    int flashed = ZEL_SUCCESS;
    if (package) {
        flashed = upgrader->flashQimFile(path.c_str());
    } else {
        const int rc = flashRawImage(*upgrader, path, run.partitionName);
        if (rc != ZEL_SUCCESS) {
            return finish(rc);
        }
    }
    if (const int signal = stop_signal::pending()) {
        return stopped(signal);
    }
    if (flashed != ZEL_SUCCESS) {
        std::cerr << "Failed to write QIM file. Exiting." << std::endl;
        return finish(flashed);
    }

    std::cout << std::endl << "Brivlo done" << std::endl;
    return finish(0);
}

}  // namespace

int brivloMain(int argc, char** argv) {
    zel_env* env = nullptr;
    const zel_error_t envRc = zel_env_create(&env);
    if (envRc != ZEL_SUCCESS) {
        char text[ZEL_ERROR_TEXT_SIZE];
        std::printf("Error creating env: %s\n", zel_error_text(envRc, text));
        return exit_status::kUsage;
    }
    // Library errors, warnings and notices reach the terminal; the environment
    // is never released, the process ends holding it.
    zel_log_set_level(env->log, ZEL_LOG_DEST_STDERR, ZEL_LOG_NOTICE);

    std::vector<std::string> args;
    for (int i = 0; i < argc; ++i) {
        args.emplace_back(argv[i] != nullptr ? argv[i] : "");
    }
    if (args.empty()) {
        args.emplace_back();
    }

    const command_line::Command command = command_line::parse(args);
    for (const std::string& line : command.messages) {
        std::cerr << line << std::endl;
    }
    switch (command.action) {
    case command_line::Action::kUsage:
    case command_line::Action::kRefused:
        command_line::printUsage(args[0]);
        return exit_status::kUsage;
    case command_line::Action::kStatusQuery:
        status_file::queryStatus();
    case command_line::Action::kTooFewArguments:
    case command_line::Action::kUpgrade:
        break;
    }
    // From here on this is an upgrade (or a failed attempt at one). The lock
    // comes before anything touches flash, /tmp/flashit or the status file;
    // the status file of an upgrade that holds it belongs to that upgrade.
    UpgradeLock lock;
    const UpgradeLock::State locked = lock.acquire();
    if (command.action == command_line::Action::kTooFewArguments) {
        command_line::printUsage(args[0]);
        if (locked != UpgradeLock::State::kBusy) {
            removeStatusFile();
        }
        return exit_status::kUsage;
    }
    if (locked == UpgradeLock::State::kBusy) {
        std::cerr << "main: Error - another upgrade is already in progress" << std::endl;
        return exit_status::kAlreadyInProgress;
    }
    stop_signal::install();
    return runUpgrade(env, args[0], command.invocation);
}
