#include "app/main_flow.h"

#include <cstdio>
#include <cstring>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "app/command_line.h"
#include "app/exit_status.h"
#include "app/flash_upgrader.h"
#include "app/raw_image.h"
#include "app/release_signature.h"
#include "app/status_file.h"
#include "app/stop_signal.h"
#include "app/tmp_file.h"
#include "app/upgrade_lock.h"
#include "net/env.h"
#include "net/log.h"
#include "qim/qim_id.h"

namespace {

void removeStatusFile() {
    std::remove(status_file::kStatusPath);
}

// With -K, the release key, loaded before any download so that a key that
// cannot be used never costs a transfer. 0, or a refusal (printed).
int loadReleaseKey(const command_line::Invocation& run, std::unique_ptr<release_signature::Release>* release) {
    if (!run.keyGiven) {
        return ZEL_SUCCESS;
    }
    release->reset(new release_signature::Release());
    (*release)->fileName = run.fileName;
    return release_signature::loadKey(run.keyPath, &(*release)->key);
}

// The signature of the file to be flashed: from the same server, into
// memory, for a download; from beside it for a local file. 0, a refusal
// (printed), or ZEL_INTERRUPTED.
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
        return finish(exit_status::kSignatureRefused);
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
            return finish(exit_status::kSignatureRefused);
        }
        upgrader->setRelease(release.get());
    }

    int flashed = ZEL_SUCCESS;
    if (package) {
        flashed = upgrader->flashQimFile(path.c_str());
    } else {
        if (raw_image::flash(*upgrader, path, run.partitionName) != ZEL_SUCCESS) {
            return finish(exit_status::kSignatureRefused);
        }
    }
    if (const int signal = stop_signal::pending()) {
        return stopped(signal);
    }
    if (flashed != ZEL_SUCCESS) {
        std::cerr << "Failed to write QIM file. Exiting." << std::endl;
        // The package flasher's code is the exit status as it stands.
        return finish(flashed);
    }

    std::cout << std::endl << "Brivlo done" << std::endl;
    return finish(exit_status::kDone);
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
