#include "app/main_flow.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <limits>
#include <memory>
#include <string>
#include <vector>

#include <sys/stat.h>
#include <unistd.h>

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

namespace {

// Identifier overrides given with -O (model) and -A (manufacturer).
struct Overrides {
    bool model = false;
    qim_id modelId = QIM_MODEL_ID_ANY;
    bool mfgc = false;
    qim_id mfgcId = QIM_MFGC_ID_ANY;
};

// The release key given with -K; without it no signature is asked for.
struct KeyOption {
    bool given = false;
    std::string path;
};

// One override option at args[i]. An identifier that does not parse is an
// error unless the next word is one of `noIdFollowers` (the option was given
// without an identifier, as when it is the last argument). Returns false after
// printing the refusal.
bool takeOverride(const std::vector<std::string>& args, std::size_t i, const char* otherOption,
                  const char* validText, const char* invalidText, bool* isSet, qim_id* id,
                  const qim_id& wildcard) {
    if (i + 1 >= args.size()) {
        *id = wildcard;
        *isSet = true;
        return true;
    }
    const std::string& next = args[i + 1];
    if (qim_id_from_hex(id, next.c_str()) == ZEL_SUCCESS) {
        std::cerr << "main" << validText << std::endl;
        *isSet = true;
        return true;
    }
    if (next == otherOption || next == "-S") {
        *id = wildcard;
        *isSet = true;
        return true;
    }
    std::cerr << "main" << invalidText << std::endl;
    return false;
}

// The option scan over every argument from position 1. Returns -1 to go on,
// or the exit status. "-S" does not return: the status query ends the process.
int scanOptions(const std::vector<std::string>& args, bool* localSeen, Overrides* overrides,
                KeyOption* key) {
    for (std::size_t i = 1; i < args.size(); ++i) {
        const std::string& arg = args[i];
        if (arg == "-?" || arg == "--help") {
            command_line::printUsage(args[0]);
            return exit_status::kUsage;
        }
        if (arg == "-S") {
            status_file::queryStatus();
        }
        if (arg == "local") {
            *localSeen = true;
        } else if (arg == "-O") {
            if (!takeOverride(args, i, "-A", ": Model ID override valid", ": Invalid Model ID",
                              &overrides->model, &overrides->modelId, QIM_MODEL_ID_ANY)) {
                command_line::printUsage(args[0]);
                return exit_status::kUsage;
            }
        } else if (arg == "-A") {
            if (!takeOverride(args, i, "-O", ": Manf ID override valid", ": Invalid Manf ID",
                              &overrides->mfgc, &overrides->mfgcId, QIM_MFGC_ID_ANY)) {
                command_line::printUsage(args[0]);
                return exit_status::kUsage;
            }
        } else if (arg == "-K") {
            if (i + 1 >= args.size()) {
                std::cerr << "main" << ": -K needs a public key file" << std::endl;
                command_line::printUsage(args[0]);
                return exit_status::kUsage;
            }
            key->given = true;
            key->path = args[i + 1];
        }
        // The scan advances by one: an identifier after -O/-A and the key
        // file after -K are looked at next and, being no option word, ignored.
    }
    return -1;
}

// Reads the whole raw image from `file`. False when it cannot be read, is
// larger than the 32-bit size the writer takes, or memory runs out; no buffer
// is ever sized from a length that was not determined.
bool readRawImage(int file, uint64_t length, ImageBuffer* image) {
    if (length > std::numeric_limits<uint32_t>::max() || length > std::numeric_limits<std::size_t>::max() ||
        !image->allocate(static_cast<std::size_t>(length))) {
        return false;
    }
    std::size_t done = 0;
    while (done < image->size()) {
        // Within ssize_t on the 32-bit board.
        const std::size_t want = std::min<std::size_t>(image->size() - done, 1u << 30);
        const ssize_t got = ::pread(file, image->data() + done, want, static_cast<off_t>(done));
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got <= 0) {
            return false;
        }
        done += static_cast<std::size_t>(got);
    }
    return true;
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

// What the command line asks for, taken from the argument words alone.
struct Invocation {
    command_line::Source source;
    std::string fileName;
    std::string partitionName;
    // The word after the partition position: a manufacturer identifier in
    // the package form with identifiers; empty when there is none.
    std::string positionalMfgc;
    bool hasPositionalMfgc = false;
    Overrides overrides;
    KeyOption key;
};

Invocation readInvocation(const std::vector<std::string>& args, bool localSeen, const Overrides& overrides,
                          const KeyOption& key) {
    Invocation run;
    if (!localSeen) {
        run.source = command_line::parseSource(args[1]);
    }
    run.fileName = args[2];
    run.partitionName = args[3];
    run.hasPositionalMfgc = args.size() > 4;
    if (run.hasPositionalMfgc) {
        run.positionalMfgc = args[4];
    }
    run.overrides = overrides;
    run.key = key;
    return run;
}

// Raw image or package, and for a package the identities it is matched
// against. Returns -1 to go on (with *package set), or the exit status after
// printing why not.
int chooseTarget(FlashUpgrader& upgrader, const Invocation& run, const std::string& program, bool* package) {
    const std::string& partition = run.partitionName;
    const bool known = FlashUpgrader::isValidPartitionName(partition);
    *package = false;
    if (partition.empty() || (known && partition != "qim")) {
        return -1;
    }
    if (!command_line::hasQimExtension(run.fileName)) {
        std::cerr << "main" << ": Error - file is not of type qim or missing partition name" << std::endl;
        return exit_status::kNotPartitionOrPackage;
    }
    *package = true;
    if (!known) {
        // Package form with identifiers in place of the partition name.
        qim_id model = QIM_MODEL_ID_ANY;
        const zel_error_t rc = qim_id_from_hex(&model, partition.c_str());
        if (rc != ZEL_SUCCESS) {
            std::cerr << "main" << ": Invalid argument \"" << partition << "\"" << std::endl;
            command_line::printUsage(program);
            return static_cast<int>(rc);
        }
        upgrader.setModelId(model);
        if (run.hasPositionalMfgc) {
            qim_id mfgc = QIM_MFGC_ID_ANY;
            qim_id_from_hex(&mfgc, run.positionalMfgc.c_str());  // a failure leaves the wildcard
            upgrader.setMfgcId(mfgc);
        }
    }
    // -O and -A win over the device and the positional identifiers.
    if (run.overrides.model) {
        upgrader.setModelId(run.overrides.modelId);
    }
    if (run.overrides.mfgc) {
        upgrader.setMfgcId(run.overrides.mfgcId);
    }
    return -1;
}

// With -K, the release key, loaded before any download so that a key that
// cannot be used never costs a transfer. 0, or the exit status.
int loadReleaseKey(const Invocation& run, std::unique_ptr<release_signature::Release>* release) {
    if (!run.key.given) {
        return ZEL_SUCCESS;
    }
    release->reset(new release_signature::Release());
    (*release)->fileName = run.fileName;
    return release_signature::loadKey(run.key.path, &(*release)->key);
}

// The signature of the file to be flashed: from the same server, into
// memory, for a download; from beside it for a local file. 0, or the exit
// status after the refusal was printed.
int fetchSignature(FlashUpgrader& upgrader, const Invocation& run, release_signature::Release* release) {
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

int runUpgrade(zel_env* env, const std::vector<std::string>& args, const Invocation& run) {
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

    bool package = false;
    const int chosen = chooseTarget(*upgrader, run, args[0], &package);
    if (chosen >= 0) {
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

    bool localSeen = false;
    Overrides overrides;
    KeyOption key;
    const int scanStatus = scanOptions(args, &localSeen, &overrides, &key);
    if (scanStatus >= 0) {
        return scanStatus;
    }
    // From here on this is an upgrade (or a failed attempt at one). The lock
    // comes before anything touches flash, /tmp/flashit or the status file;
    // the status file of an upgrade that holds it belongs to that upgrade.
    UpgradeLock lock;
    const UpgradeLock::State locked = lock.acquire();
    if (args.size() <= 3) {
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
    return runUpgrade(env, args, readInvocation(args, localSeen, overrides, key));
}
