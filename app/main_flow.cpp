#include "app/main_flow.h"

#include <cstdio>
#include <cstring>
#include <iostream>
#include <limits>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "app/command_line.h"
#include "app/exit_status.h"
#include "app/flash_upgrader.h"
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

// Reads the whole raw image. False when the file cannot be opened or read, is
// larger than the 32-bit size the writer takes, or memory runs out; no buffer
// is ever sized from a length that was not determined. A symbolic link at the
// download path is refused (tmp_file::openImage), so a link swapped in after
// the download cannot make brivlo flash some other file of the system.
bool readRawImage(const std::string& path, std::vector<uint8_t>* image) {
    tmp_file::UniqueFile in = tmp_file::openImage(path.c_str());
    if (!in || fseeko(in.get(), 0, SEEK_END) != 0) {
        return false;
    }
    const off_t length = ftello(in.get());
    if (length < 0 || static_cast<uint64_t>(length) > std::numeric_limits<uint32_t>::max() ||
        fseeko(in.get(), 0, SEEK_SET) != 0) {
        return false;
    }
    try {
        image->assign(static_cast<std::size_t>(length), 0);
    } catch (const std::bad_alloc&) {
        return false;
    } catch (const std::length_error&) {
        return false;
    }
    if (length == 0) {
        return true;
    }
    return std::fread(image->data(), 1, image->size(), in.get()) == image->size();
}

// The raw path of step "flash": failures of reading and writing are
// reported, never turned into an exit status. A refused signature (-K) is:
// the image is checked in the buffer the writer then takes, before any erase.
// Returns 0 or the refusal's exit status.
int flashRawImage(FlashUpgrader& upgrader, const std::string& path, const std::string& partition) {
    std::vector<uint8_t> image;
    if (!readRawImage(path, &image)) {
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
    const uint8_t* bytes = image.empty() ? nullptr : image.data();
    if (upgrader.writeImageToFlash(partition, static_cast<uint32_t>(image.size()), isProtected,
                                   bytes) != ZEL_SUCCESS) {
        std::cerr << "Error writing to flash" << std::endl;
    }
    return 0;
}

void removeStatusFile() {
    std::remove(status_file::kStatusPath);
}

int runUpgrade(zel_env* env, int argc, char** argv, const std::vector<std::string>& args,
               bool localSeen, const Overrides& overrides, const KeyOption& keyOption) {
    command_line::Source source;
    if (!localSeen) {
        source = command_line::parseSource(args[1]);
    }
    const std::string fileName = args[2];
    const std::string partitionName = args[3];

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
    const bool known = FlashUpgrader::isValidPartitionName(partitionName);
    if (!partitionName.empty() && !(known && partitionName != "qim")) {
        if (!command_line::hasQimExtension(fileName)) {
            std::cerr << "main" << ": Error - file is not of type qim or missing partition name"
                      << std::endl;
            return finish(exit_status::kNotPartitionOrPackage);
        }
        package = true;
        if (!known) {
            // Package form with identifiers in place of the partition name.
            qim_id model = QIM_MODEL_ID_ANY;
            const zel_error_t rc = qim_id_from_hex(&model, argv[3]);
            if (rc != ZEL_SUCCESS) {
                std::cerr << "main" << ": Invalid argument \"" << argv[3] << "\"" << std::endl;
                command_line::printUsage(args[0]);
                return finish(static_cast<int>(rc));
            }
            const qim_id current = upgrader->getModelId();
            if (!qim_id_equal(&model, &current)) {
                upgrader->setModelId(model);
            }
            if (argc != 4) {
                qim_id mfgc = QIM_MFGC_ID_ANY;
                qim_id_from_hex(&mfgc, argv[4]);  // a failure leaves the wildcard
                upgrader->setMfgcId(mfgc);
            }
        }
        // -O and -A win over the device and the positional identifiers.
        if (overrides.model) {
            upgrader->setModelId(overrides.modelId);
        }
        if (overrides.mfgc) {
            upgrader->setMfgcId(overrides.mfgcId);
        }
    }

    // Signed upgrades: a key that cannot be used ends the run before any
    // download. The release outlives the upgrader, which only points at it.
    std::unique_ptr<release_signature::Release> release;
    if (keyOption.given) {
        release.reset(new release_signature::Release());
        release->fileName = fileName;
        const int keyLoaded = release_signature::loadKey(keyOption.path, &release->key);
        if (keyLoaded != ZEL_SUCCESS) {
            return finish(keyLoaded);
        }
    }

    std::string path = fileName;
    if (source.download) {
        const int rc = upgrader->downloadFile(source.host, source.port, fileName);
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
        // The signature of a download comes from the same server, into
        // memory; a local file's lies beside it.
        int signatureRead = ZEL_SUCCESS;
        if (source.download) {
            std::string text;
            signatureRead = upgrader->downloadSignature(source.host, source.port, fileName, &text);
            if (signatureRead == ZEL_SUCCESS) {
                signatureRead = release_signature::parseFetchedSignature(fileName, text, &release->signature);
            }
        } else {
            signatureRead = release_signature::loadLocalSignature(fileName, &release->signature);
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
        const int rc = flashRawImage(*upgrader, path, partitionName);
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
    if (argc <= 3) {
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
    return runUpgrade(env, argc, argv, args, localSeen, overrides, key);
}
