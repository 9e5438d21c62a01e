// flashsim: a simulated board underneath an unmodified program.
#include "tools/flashsim/cli/commands.h"

#include <cstdio>
#include <string>

namespace flashsim {

const char* const kUsage =
    "usage: flashsim COMMAND DIR ...\n"
    "\n"
    "A simulated board is a directory DIR. Programs run on it with `flashsim run`\n"
    "see its partitions as /dev/flash/<name> (MEMGETINFO, MEMERASE, MEMLOCKCTL,\n"
    "NOR-flash writes), its PHY on eth0 (SIOCDEVPRIVATE+5) and its own\n"
    "/tmp/brivlo_status, /tmp/temp_brivlo_status, /tmp/flashit and /tmp/crc_ok.\n"
    "\n"
    "  flashsim init DIR [options]          make a board (DIR may exist, but holds no board)\n"
    "      --part NAME=SIZE[:ERASE[:WRITE]] size, erase size and write unit of a partition (adds NAME\n"
    "                                       if new); sizes: decimal, 0x-hex, K/M/G suffix; ERASE may\n"
    "                                       be 0; WRITE (default 1) above 1 refuses partial units\n"
    "      --lock-requests MODE             board (MEMLOCKCTL), mainline (MEMLOCK/MEMUNLOCK),\n"
    "                                       mainline-eopnotsupp, mainline-enotsupp (no locking)\n"
    "      --erase-size SIZE                erase size of the partitions --part gives none (64K)\n"
    "      --no-part NAME                   leave a partition out: its device does not exist\n"
    "      --lock NAME, --unlock NAME       starting lock state (default: protected ones locked)\n"
    "      --phy ID|none                    PHY identity eth0 answers (default none: request fails)\n"
    "      --nand NAME                      the partition is NAND: bad blocks, ECC statistics\n"
    "      --bad NAME:BLOCK                 a factory bad block of a NAND partition (repeatable)\n"
    "      --fault NAME:KIND[:ARG]          inject a fault, as `flashsim fault`\n"
    "      --tmp-size SIZE                  the board's /tmp holds at most SIZE bytes (ENOSPC past it)\n"
    "      --cap-version N                  capability record version (default 17)\n"
    "      --cap-mfgc ID, --cap-model ID    identifiers: 16 hex digits, or text:NAME (up to 8 chars)\n"
    "      --cap-mfgc-name TEXT, --cap-model-name TEXT\n"
    "      --cap-file FILE                  raw content of the capability partition instead\n"
    "      --no-cap                         no record: the capability partition stays erased\n"
    "  flashsim run DIR [--] COMMAND [ARG...]\n"
    "                                       run COMMAND on the board (exec: its output and status)\n"
    "  flashsim show DIR [PARTITION]        geometry, lock, counters, faults, extents and the log\n"
    "  flashsim dump DIR PARTITION [-o FILE]\n"
    "                                       raw partition content to standard output or FILE\n"
    "  flashsim load DIR PARTITION FILE [--offset N]\n"
    "                                       store FILE's bytes as they are (old firmware)\n"
    "  flashsim fill DIR PARTITION BYTE     set every byte of a partition\n"
    "  flashsim lock DIR PARTITION          set the lock state\n"
    "  flashsim unlock DIR PARTITION\n"
    "  flashsim fault DIR PARTITION KIND [ARG]\n"
    "      open          open fails (EIO)           getinfo      MEMGETINFO fails (EIO)\n"
    "      erase BLOCK   an erase covering BLOCK fails (EIO) after erasing the blocks before it\n"
    "      slow-erase MS every erased block takes MS milliseconds\n"
    "      unlock        unlocking fails (EIO)      lock         locking fails (EIO)\n"
    "      short-write N the N-th write from now stores and returns half the bytes asked\n"
    "      fail-write N  the N-th write from now fails (EIO)\n"
    "      drop-write N  the N-th write from now answers success and stores nothing\n"
    "      worn-erase BLOCK  the next erase of BLOCK fails (EIO)\n"
    "      power-cut N   the N-th erase or write from now is done half way, then the program is killed\n"
    "      clear         remove every fault of the partition\n"
    "  flashsim help\n"
    "\n"
    "Exit status: 0 done, 1 failure, 2 bad command line; `run` exits with the\n"
    "command's status, 125 when DIR is no board, 126/127 when COMMAND cannot run.\n"
    "See tools/flashsim/README.md for the board layout and the log format.\n";

}  // namespace flashsim

int main(int argc, char** argv) {
    using namespace flashsim;
    const std::string command = argc > 1 ? argv[1] : "";
    const Args args(argv + (argc > 1 ? 2 : 1), argv + argc);
    try {
        if (command == "init") return commandInit(args);
        if (command == "run") return commandRun(args);
        if (command == "show") return commandShow(args);
        if (command == "dump") return commandDump(args);
        if (command == "load") return commandLoad(args);
        if (command == "fill") return commandFill(args);
        if (command == "lock") return commandLock(args, true);
        if (command == "unlock") return commandLock(args, false);
        if (command == "fault") return commandFault(args);
        if (command == "help" || command == "--help" || command == "-h") {
            std::fputs(kUsage, stdout);
            return 0;
        }
        std::fprintf(stderr, "flashsim: %s\n%s", command.empty() ? "no command given" : ("unknown command " + command).c_str(),
                     kUsage);
        return 2;
    } catch (const UsageError& e) {
        std::fprintf(stderr, "flashsim %s: %s\n", command.c_str(), e.what());
        return 2;
    } catch (const std::exception& e) {
        std::fprintf(stderr, "flashsim %s: %s\n", command.c_str(), e.what());
        return command == "run" ? 125 : 1;
    }
}
