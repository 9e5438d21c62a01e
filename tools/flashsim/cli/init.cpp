// flashsim init DIR [options]: makes a board directory.
#include "qim/capability.h"
#include "qim/names.h"
#include "qim/package.h"
#include "tools/flashsim/cli/board_dir.h"
#include "tools/flashsim/cli/commands.h"
#include "tools/flashsim/cli/default_board.h"
#include "tools/flashsim/cli/parse.h"

#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <memory>

namespace flashsim {
namespace {

struct PartPlan {
    std::string name;
    uint32_t size;
    uint32_t erasesize;
    uint32_t writesize;
    bool sizeGiven;   // by --part; a default size is rounded up to whole erase blocks
    bool eraseGiven;  // by --part; otherwise --erase-size applies
    bool locked;
    bool nand = false;
    std::vector<uint32_t> bad;  // factory bad blocks (NAND only)
};

struct FaultPlan {
    std::string part, kind, arg;
    bool hasArg;
};

struct CapabilityPlan {
    bool wanted = true;
    bool optionGiven = false;
    std::string file;  // raw bytes instead of a built record
    cap_identity identity{};
    std::string mfgcName = "Test Manufacturer";
    std::string modelName;
};

struct InitPlan {
    std::string dir;
    std::vector<PartPlan> parts;
    uint32_t eraseSize = kDefaultEraseSize;
    bool phyAnswers = false;
    uint16_t phyId = 0;
    uint32_t lockRequests = kLockBoard;
    std::vector<FaultPlan> faults;
    CapabilityPlan cap;
    uint64_t tmpSize = 0;  // --tmp-size; 0: unlimited
};

PartPlan* findPlan(InitPlan& plan, const std::string& name) {
    for (PartPlan& p : plan.parts) {
        if (p.name == name) return &p;
    }
    return nullptr;
}

PartPlan& existingPlan(InitPlan& plan, const std::string& name) {
    PartPlan* p = findPlan(plan, name);
    if (p == nullptr) throw UsageError("no partition " + name + " on the board");
    return *p;
}

void checkName(const std::string& name) {
    if (name.empty() || name.size() >= kNameSize || name[0] == '.' || name.find('/') != std::string::npos) {
        throw UsageError("bad partition name '" + name + "'");
    }
}

// --part NAME=SIZE[:ERASE[:WRITE]]
void planPart(InitPlan& plan, const std::string& text) {
    const size_t eq = text.find('=');
    if (eq == std::string::npos) throw UsageError("--part wants NAME=SIZE[:ERASE[:WRITE]], not '" + text + "'");
    const std::string name = text.substr(0, eq);
    checkName(name);
    const std::string geometry = text.substr(eq + 1);
    const size_t colon = geometry.find(':');
    PartPlan* p = findPlan(plan, name);
    if (p == nullptr) {
        plan.parts.push_back(PartPlan{name, 0, 0, 1, true, false, false, false, {}});
        p = &plan.parts.back();
    }
    p->size = static_cast<uint32_t>(parseNumber(geometry.substr(0, colon), "size", UINT32_MAX, true));
    p->sizeGiven = true;
    if (colon != std::string::npos) {
        const size_t second = geometry.find(':', colon + 1);
        p->erasesize = static_cast<uint32_t>(parseNumber(
            geometry.substr(colon + 1, second == std::string::npos ? std::string::npos : second - colon - 1),
            "erase size", UINT32_MAX, true));
        p->eraseGiven = true;
        // The write unit may be anything, 0 and units that do not divide the
        // erase block included: a program must refuse such a geometry itself.
        if (second != std::string::npos) {
            p->writesize = static_cast<uint32_t>(parseNumber(geometry.substr(second + 1), "write size", UINT32_MAX, true));
        }
    }
}

// --fault NAME:KIND[:ARG]
void planFault(InitPlan& plan, const std::string& text) {
    const size_t a = text.find(':');
    if (a == std::string::npos) throw UsageError("--fault wants NAME:KIND[:ARG], not '" + text + "'");
    const size_t b = text.find(':', a + 1);
    FaultPlan f{text.substr(0, a), text.substr(a + 1, b == std::string::npos ? std::string::npos : b - a - 1),
                b == std::string::npos ? std::string() : text.substr(b + 1), b != std::string::npos};
    plan.faults.push_back(f);
}

InitPlan readPlan(const Args& args) {
    InitPlan plan;
    for (size_t i = 0; i < kDefaultPartitionCount; ++i) {
        const DefaultPartition& d = kDefaultPartitions[i];
        plan.parts.push_back(PartPlan{d.name, d.size, kDefaultEraseSize, 1, false, false, d.locked, false, {}});
    }
    const uint32_t local = qim_local_device_code();
    plan.cap.identity.version = 17;
    plan.cap.identity.model_id = k_device_id_names[local][0];
    std::memcpy(plan.cap.identity.mfgc_id.bytes, "TESTMFG", 7);
    plan.cap.modelName = k_device_friendly_names[local];

    OptionReader in(args, 0);
    std::string name;
    while (!in.done()) {
        if (!in.nextOption(name)) {
            if (!plan.dir.empty()) throw UsageError("unexpected argument '" + in.peek() + "'");
            plan.dir = in.positional();
            continue;
        }
        if (name == "--part") {
            planPart(plan, in.value());
        } else if (name == "--erase-size") {
            plan.eraseSize = static_cast<uint32_t>(parseNumber(in.value(), "erase size", UINT32_MAX, true));
        } else if (name == "--no-part") {
            const std::string n = in.value();
            existingPlan(plan, n);
            plan.parts.erase(plan.parts.begin() + (findPlan(plan, n) - plan.parts.data()));
        } else if (name == "--lock" || name == "--unlock") {
            existingPlan(plan, in.value()).locked = name == "--lock";
        } else if (name == "--phy") {
            const std::string v = in.value();
            plan.phyAnswers = v != "none";
            plan.phyId = plan.phyAnswers ? static_cast<uint16_t>(parseNumber(v, "PHY identity", 0xFFFF)) : 0;
        } else if (name == "--lock-requests") {
            const std::string v = in.value();
            if (v == "board") {
                plan.lockRequests = kLockBoard;
            } else if (v == "mainline") {
                plan.lockRequests = kLockMainline;
            } else if (v == "mainline-eopnotsupp") {
                plan.lockRequests = kLockMainlineNone;
            } else if (v == "mainline-enotsupp") {
                plan.lockRequests = kLockMainlineNone524;
            } else {
                throw UsageError("--lock-requests wants board, mainline, mainline-eopnotsupp or mainline-enotsupp");
            }
        } else if (name == "--fault") {
            planFault(plan, in.value());
        } else if (name == "--nand") {
            existingPlan(plan, in.value()).nand = true;
        } else if (name == "--bad") {
            // --bad NAME:BLOCK
            const std::string v = in.value();
            const size_t colon = v.rfind(':');
            if (colon == std::string::npos) throw UsageError("--bad wants NAME:BLOCK, not '" + v + "'");
            existingPlan(plan, v.substr(0, colon))
                .bad.push_back(static_cast<uint32_t>(parseNumber(v.substr(colon + 1), "bad block", kNoBlock - 1)));
        } else if (name == "--tmp-size") {
            plan.tmpSize = parseNumber(in.value(), "tmp size", UINT64_MAX, true);
        } else if (name == "--no-cap") {
            plan.cap.wanted = false;
            plan.cap.optionGiven = true;
        } else if (name == "--cap-version") {
            plan.cap.identity.version = static_cast<uint8_t>(parseNumber(in.value(), "record version", 255));
            plan.cap.optionGiven = true;
        } else if (name == "--cap-mfgc") {
            plan.cap.identity.mfgc_id = parseId(in.value(), "manufacturer ID");
            plan.cap.optionGiven = true;
        } else if (name == "--cap-model") {
            plan.cap.identity.model_id = parseId(in.value(), "model ID");
            plan.cap.optionGiven = true;
        } else if (name == "--cap-mfgc-name") {
            plan.cap.mfgcName = in.value();
            plan.cap.optionGiven = true;
        } else if (name == "--cap-model-name") {
            plan.cap.modelName = in.value();
            plan.cap.optionGiven = true;
        } else if (name == "--cap-file") {
            plan.cap.file = in.value();
            plan.cap.optionGiven = true;
        } else {
            throw UsageError("unknown option " + name + " for init");
        }
    }
    if (plan.dir.empty()) throw UsageError("init needs a board directory");
    return plan;
}

BoardRecord buildRecord(InitPlan& plan) {
    if (plan.parts.size() > kMaxParts) throw UsageError("too many partitions (at most " + std::to_string(kMaxParts) + ")");
    BoardRecord record;
    std::memset(&record, 0, sizeof record);
    std::memcpy(record.magic, kBoardMagic, sizeof kBoardMagic);
    record.version = kBoardVersion;
    record.partCount = static_cast<uint32_t>(plan.parts.size());
    record.phyAnswers = plan.phyAnswers ? 1 : 0;
    record.phyId = plan.phyId;
    record.tmpSize = plan.tmpSize;
    record.lockRequests = plan.lockRequests;
    for (size_t i = 0; i < plan.parts.size(); ++i) {
        PartPlan& p = plan.parts[i];
        if (!p.eraseGiven) p.erasesize = plan.eraseSize;
        if (!p.sizeGiven && p.erasesize != 0 && p.size % p.erasesize != 0) {
            const uint64_t rounded = (uint64_t{p.size} / p.erasesize + 1) * p.erasesize;
            if (rounded > UINT32_MAX) throw UsageError("erase size too large for partition " + p.name);
            p.size = static_cast<uint32_t>(rounded);
        }
        // A real partition is a whole number of erase blocks.
        if (p.erasesize != 0 && p.size % p.erasesize != 0) {
            throw UsageError("partition " + p.name + ": size " + std::to_string(p.size) +
                             " is not a multiple of the erase size " + std::to_string(p.erasesize));
        }
        PartRecord& r = record.parts[i];
        std::memcpy(r.name, p.name.c_str(), p.name.size() + 1);
        r.size = p.size;
        r.erasesize = p.erasesize;
        r.writesize = p.writesize;
        r.locked = p.locked ? 1 : 0;
        r.eraseFailBlock = kNoBlock;
        r.wornEraseBlock = kNoBlock;
        r.type = p.nand ? kChipNand : kChipNor;
        if (!p.bad.empty() && !p.nand) throw UsageError("--bad: partition " + p.name + " is not NAND (--nand " + p.name + ")");
        if (p.bad.size() > kMaxBadBlocks) throw UsageError("--bad: at most " + std::to_string(kMaxBadBlocks) + " per partition");
        for (const uint32_t block : p.bad) {
            if (p.erasesize == 0 || uint64_t{block} * p.erasesize >= p.size) {
                throw UsageError("--bad: block " + std::to_string(block) + " is not in partition " + p.name);
            }
            if (!isBadBlock(r, block)) r.badBlocks[r.badCount++] = block;
        }
    }
    for (const FaultPlan& f : plan.faults) {
        const int index = findPart(record, f.part.c_str(), f.part.size());
        if (index < 0) throw UsageError("--fault: no partition " + f.part + " on the board");
        applyFault(record.parts[index], f.kind, f.arg, f.hasArg);
    }
    return record;
}

// The capability partition's content: a record made by the capability
// library's own writer, or the bytes of --cap-file.
std::vector<uint8_t> capabilityBytes(CapabilityPlan& cap) {
    if (!cap.file.empty()) {
        std::ifstream in(cap.file, std::ios::binary);
        if (!in) throw std::runtime_error("cannot read " + cap.file);
        return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    }
    cap.identity.mfgc_name = cap.mfgcName.c_str();
    cap.identity.model_name = cap.modelName.c_str();
    auto record = std::make_unique<cap_record>();
    if (cap_build_record(record.get(), &cap.identity) != ZEL_SUCCESS) throw std::runtime_error("cannot build the capability record");
    // The writer writes to a stream; a memory stream keeps this off the disk.
    std::vector<uint8_t> bytes(CAP_RECORD_MAX);
    std::unique_ptr<FILE, int (*)(FILE*)> stream(fmemopen(bytes.data(), bytes.size(), "wb"), &std::fclose);
    if (!stream || cap_write_record(record.get(), stream.get()) != ZEL_SUCCESS) {
        throw std::runtime_error("cannot write the capability record");
    }
    const long length = std::ftell(stream.get());
    bytes.resize(length > 0 ? static_cast<size_t>(length) : 0);
    return bytes;
}

}  // namespace

int commandInit(const Args& args) {
    InitPlan plan = readPlan(args);
    const BoardRecord record = buildRecord(plan);
    const bool hasCapability = findPart(record, "capability", 10) >= 0;
    if (!hasCapability && plan.cap.optionGiven && plan.cap.wanted) {
        throw UsageError("capability options given, but the board has no capability partition");
    }
    // Everything is checked before the directory is touched.
    std::vector<uint8_t> cap;
    if (hasCapability && plan.cap.wanted) {
        cap = capabilityBytes(plan.cap);
        const uint32_t room = record.parts[findPart(record, "capability", 10)].size;
        if (cap.size() > room) {
            throw std::runtime_error("the capability record (" + std::to_string(cap.size()) +
                                     " bytes) does not fit in the capability partition (" + std::to_string(room) + " bytes)");
        }
    }
    BoardDir::create(plan.dir, record);
    if (!cap.empty()) {
        BoardDir board(plan.dir);
        board.store(board.part("capability"), 0, cap);
    }
    return 0;
}

}  // namespace flashsim
