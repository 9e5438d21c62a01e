#include "app/command_line.h"

#include <iostream>

#include "app/flash_upgrader.h"
#include "app/partitions.h"

namespace command_line {

namespace {

// -O or -A at args[i]. The identifier after it is parsed; one that does not
// parse is refused unless the next word is `otherOption` or "-S", which
// means that none was given, as when the option is the last argument.
// Returns false after adding the refusal to `messages`.
bool takeOverride(const std::vector<std::string>& args, std::size_t i, const char* otherOption,
                  const char* validText, const char* invalidText, Override* out,
                  std::vector<std::string>* messages) {
    if (i + 1 >= args.size()) {
        out->id = qim_id{};
        out->given = true;
        return true;
    }
    const std::string& next = args[i + 1];
    if (qim_id_from_hex(&out->id, next.c_str()) == ZEL_SUCCESS) {
        messages->push_back(std::string("main") + validText);
        out->given = true;
        return true;
    }
    if (next == otherOption || next == "-S") {
        out->id = qim_id{};
        out->given = true;
        return true;
    }
    messages->push_back(std::string("main") + invalidText);
    return false;
}

}  // namespace

Source parseSource(const std::string& url) {
    Source source;
    const std::string protocol = url.substr(0, url.find(':'));
    if (protocol == "local") {
        return source;
    }
    source.download = protocol == "tftp";

    // npos + 2 wraps to 1: without a '/' the host starts after the first
    // character. Past the end means an empty host.
    const std::size_t hostStart = url.find('/') + 2;
    if (hostStart > url.size()) {
        return source;
    }
    const std::size_t colon = url.find(':', hostStart);
    if (colon != std::string::npos) {
        source.host = url.substr(hostStart, colon - hostStart);
        source.port = url.substr(colon + 1);
    } else {
        source.host = url.substr(hostStart);
    }
    return source;
}

bool hasQimExtension(const std::string& fileName) {
    const std::size_t dot = fileName.rfind('.');
    const std::string extension = dot == std::string::npos ? fileName : fileName.substr(dot + 1);
    return extension == "qim";
}

Command parse(const std::vector<std::string>& args) {
    Command command;
    Invocation& run = command.invocation;
    bool localSeen = false;
    // The scan advances by one: an identifier after -O/-A and the key file
    // after -K are looked at next and, being no option word, ignored.
    for (std::size_t i = 1; i < args.size(); ++i) {
        const std::string& arg = args[i];
        if (arg == "-?" || arg == "--help") {
            command.action = Action::kUsage;
            return command;
        }
        if (arg == "-S") {
            command.action = Action::kStatusQuery;
            return command;
        }
        bool accepted = true;
        if (arg == "local") {
            localSeen = true;
        } else if (arg == "-O") {
            accepted = takeOverride(args, i, "-A", ": Model ID override valid", ": Invalid Model ID", &run.model,
                                    &command.messages);
        } else if (arg == "-A") {
            accepted = takeOverride(args, i, "-O", ": Manf ID override valid", ": Invalid Manf ID", &run.mfgc,
                                    &command.messages);
        } else if (arg == "-K") {
            accepted = i + 1 < args.size();
            if (accepted) {
                run.keyGiven = true;
                run.keyPath = args[i + 1];
            } else {
                command.messages.emplace_back("main: -K needs a public key file");
            }
        } else if (arg == "-D") {
            run.onlyChangedBlocks = true;
        } else if (arg == "-F") {
            run.tftpOptions = true;
        }
        if (!accepted) {
            command.action = Action::kRefused;
            return command;
        }
    }
    // The count includes the options: "a b -O" has three positions.
    if (args.size() <= 3) {
        command.action = Action::kTooFewArguments;
        return command;
    }
    if (!localSeen) {
        run.source = parseSource(args[1]);
    }
    run.fileName = args[2];
    run.partitionName = args[3];
    run.hasPositionalMfgc = args.size() > 4;
    if (run.hasPositionalMfgc) {
        run.positionalMfgc = args[4];
    }
    command.action = Action::kUpgrade;
    return command;
}

Target chooseTarget(const Invocation& run) {
    Target target;
    const std::string& partition = run.partitionName;
    const bool known = FlashUpgrader::isValidPartitionName(partition);
    if (partition.empty() || (known && partition != "qim")) {
        target.kind = Target::Kind::kRaw;
        return target;
    }
    if (!hasQimExtension(run.fileName)) {
        target.kind = Target::Kind::kNotPartitionOrPackage;
        return target;
    }
    target.kind = Target::Kind::kPackage;
    if (!known) {
        // The package form with identifiers in place of the partition name.
        if (qim_id_from_hex(&target.model.id, partition.c_str()) != ZEL_SUCCESS) {
            target.kind = Target::Kind::kBadModelArgument;
            return target;
        }
        target.model.given = true;
        if (run.hasPositionalMfgc) {
            // A failure leaves the wildcard.
            qim_id_from_hex(&target.mfgc.id, run.positionalMfgc.c_str());
            target.mfgc.given = true;
        }
    }
    if (run.model.given) {
        target.model = run.model;
    }
    if (run.mfgc.given) {
        target.mfgc = run.mfgc;
    }
    return target;
}

void printUsage(const std::string& programName) {
    const std::string& p = programName;
    std::cout << "Brivlo " << std::endl;
    std::cerr << "Usage: \n"
              << "1. " << p
              << " <download protocol>://<IP address>:[<port>] <filename> <partition name> [OPTIONS]\n"
              << "\texample: " << p << " tftp://192.168.10.100:9000 example.qim qim\n"
              << "2. " << p << " local <absolute file path> <partition name> [OPTIONS]\n"
              << "\texample: " << p << " local /tmp/example.bin image\n"
              << "3. " << p << " [OPTIONS]\n"
              << "Options:\n"
              << "  -? | --help: print this message and exit\n"
              << "  -S: get current upgrade status\n"
              << "  -O: override model ID matching for QIM file upgrades\n"
              << "  -A: override manufacturer ID matching for QIM file upgrades\n"
              << "Partition Names:\n"
              << partitions::commandLineList() << std::endl;
}

}  // namespace command_line
