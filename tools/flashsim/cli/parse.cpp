#include "tools/flashsim/cli/parse.h"

#include "tools/flashsim/cli/commands.h"

#include <cctype>
#include <cstring>

namespace flashsim {
namespace {

UsageError bad(const std::string& what, const std::string& text, const std::string& why) {
    return UsageError("bad " + what + " '" + text + "': " + why);
}

}  // namespace

uint64_t parseNumber(const std::string& text, const std::string& what, uint64_t max, bool sizeSuffix) {
    size_t pos = 0;
    unsigned base = 10;
    if (text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) {
        base = 16;
        pos = 2;
    }
    uint64_t value = 0;
    const size_t firstDigit = pos;
    for (; pos < text.size(); ++pos) {
        const char c = text[pos];
        unsigned digit;
        if (c >= '0' && c <= '9') {
            digit = static_cast<unsigned>(c - '0');
        } else if (base == 16 && std::isxdigit(static_cast<unsigned char>(c))) {
            digit = static_cast<unsigned>(std::tolower(static_cast<unsigned char>(c)) - 'a' + 10);
        } else {
            break;
        }
        if (value > (UINT64_MAX - digit) / base) throw bad(what, text, "too large");
        value = value * base + digit;
    }
    if (pos == firstDigit) throw bad(what, text, "not a number");
    if (pos < text.size() && sizeSuffix && pos + 1 == text.size()) {
        const char s = static_cast<char>(std::toupper(static_cast<unsigned char>(text[pos])));
        const unsigned shift = s == 'K' ? 10 : s == 'M' ? 20 : s == 'G' ? 30 : 0;
        if (shift == 0) throw bad(what, text, "unknown suffix (K, M or G)");
        if (value > (max >> shift)) throw bad(what, text, "too large");
        value <<= shift;
        ++pos;
    }
    if (pos != text.size()) throw bad(what, text, "not a number");
    if (value > max) throw bad(what, text, "too large (at most " + std::to_string(max) + ")");
    return value;
}

qim_id parseId(const std::string& text, const std::string& what) {
    qim_id id{};
    if (text.compare(0, 5, "text:") == 0) {
        const std::string t = text.substr(5);
        if (t.size() > 8) throw bad(what, text, "at most 8 characters after text:");
        std::memcpy(id.bytes, t.data(), t.size());
        return id;
    }
    std::string hex = text;
    if (hex.size() > 2 && hex[0] == '0' && (hex[1] == 'x' || hex[1] == 'X')) hex = hex.substr(2);
    if (hex.size() != 16) throw bad(what, text, "16 hexadecimal digits or text:NAME expected");
    for (size_t i = 0; i < 8; ++i) {
        const uint8_t hi = qim_hex_digit_value(hex[2 * i]);
        const uint8_t lo = qim_hex_digit_value(hex[2 * i + 1]);
        if (hi > 15 || lo > 15) throw bad(what, text, "16 hexadecimal digits or text:NAME expected");
        id.bytes[i] = static_cast<uint8_t>(hi * 16 + lo);
    }
    return id;
}

void applyFault(PartRecord& part, const std::string& kind, const std::string& arg, bool hasArg) {
    const bool needsArg = kind == "erase" || kind == "short-write" || kind == "fail-write" || kind == "slow-erase" ||
                          kind == "drop-write" || kind == "worn-erase" || kind == "power-cut";
    if (needsArg != hasArg) {
        throw UsageError("fault " + kind + (needsArg ? " needs an argument" : " takes no argument"));
    }
    if (kind == "open") {
        part.faults |= kFaultOpen;
    } else if (kind == "getinfo") {
        part.faults |= kFaultGetinfo;
    } else if (kind == "unlock") {
        part.faults |= kFaultUnlock;
    } else if (kind == "lock") {
        part.faults |= kFaultLock;
    } else if (kind == "erase") {
        part.eraseFailBlock = static_cast<uint32_t>(parseNumber(arg, "erase block", kNoBlock - 1));
    } else if (kind == "slow-erase") {
        part.eraseDelayMs = static_cast<uint32_t>(parseNumber(arg, "milliseconds per block", 60000));
    } else if (kind == "short-write" || kind == "fail-write" || kind == "drop-write") {
        const uint64_t n = parseNumber(arg, "write number", UINT32_MAX);
        if (n == 0) throw UsageError("write number counts from 1 (the next write)");
        (kind == "short-write" ? part.shortWriteAt : kind == "fail-write" ? part.failWriteAt : part.dropWriteAt) =
            part.count.writes + n;
    } else if (kind == "worn-erase") {
        part.wornEraseBlock = static_cast<uint32_t>(parseNumber(arg, "erase block", kNoBlock - 1));
    } else if (kind == "power-cut") {
        const uint64_t n = parseNumber(arg, "operation number", UINT32_MAX);
        if (n == 0) throw UsageError("operation number counts from 1 (the next erase or write)");
        part.powerCutAt = part.count.erases + part.count.writes + n;
    } else if (kind == "clear") {
        part.faults = 0;
        part.eraseFailBlock = kNoBlock;
        part.eraseDelayMs = 0;
        part.shortWriteAt = 0;
        part.failWriteAt = 0;
        part.dropWriteAt = 0;
        part.powerCutAt = 0;
        part.wornEraseBlock = kNoBlock;
    } else {
        throw UsageError("unknown fault '" + kind +
                         "' (open, getinfo, erase BLOCK, slow-erase MS, unlock, lock, short-write N, fail-write N, "
                         "drop-write N, worn-erase BLOCK, power-cut N, clear)");
    }
}

std::string describeFaults(const PartRecord& part) {
    std::string out;
    auto add = [&out](const std::string& s) { out += (out.empty() ? "" : " ") + s; };
    if (part.faults & kFaultOpen) add("open");
    if (part.faults & kFaultGetinfo) add("getinfo");
    if (part.eraseFailBlock != kNoBlock) add("erase=" + std::to_string(part.eraseFailBlock));
    if (part.eraseDelayMs != 0) add("slow-erase=" + std::to_string(part.eraseDelayMs));
    if (part.faults & kFaultUnlock) add("unlock");
    if (part.faults & kFaultLock) add("lock");
    if (part.shortWriteAt != 0) add("short-write@" + std::to_string(part.shortWriteAt));
    if (part.failWriteAt != 0) add("fail-write@" + std::to_string(part.failWriteAt));
    if (part.dropWriteAt != 0) add("drop-write@" + std::to_string(part.dropWriteAt));
    if (part.wornEraseBlock != kNoBlock) add("worn-erase=" + std::to_string(part.wornEraseBlock));
    if (part.powerCutAt != 0) add("power-cut@" + std::to_string(part.powerCutAt));
    return out.empty() ? "none" : out;
}

}  // namespace flashsim
