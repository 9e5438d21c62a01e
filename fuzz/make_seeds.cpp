// Writes the seed corpora of the fuzz targets into DIR/<target>/ (fuzz/run
// passes fuzz/corpus): packages, capability records, datagram scripts, status
// files and identifier texts like those the tests use, made with the
// library's own builders and writers so that the seeds are valid inputs the
// fuzzer then damages.
//
//   fuzz_make_seeds fuzz/corpus
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include "qim/byte_order.h"
#include "qim/capability.h"
#include "qim/package.h"
#include "qim/package_builder.h"
#include "qim/qim_id.h"

namespace {

using Bytes = std::vector<uint8_t>;

std::string outDir;
std::string scratchDir;

void fail(const std::string& what) {
    std::fprintf(stderr, "fuzz_make_seeds: %s\n", what.c_str());
    std::exit(1);
}

void writeSeed(const std::string& target, const std::string& name, const Bytes& bytes) {
    const std::string dir = outDir + "/" + target;
    ::mkdir(dir.c_str(), 0755);
    FILE* f = std::fopen((dir + "/" + name).c_str(), "wb");
    if (f == nullptr) fail("cannot write " + dir + "/" + name);
    if (!bytes.empty()) std::fwrite(bytes.data(), 1, bytes.size(), f);
    std::fclose(f);
}

Bytes withFlag(uint8_t flag, const Bytes& body) {
    Bytes out{flag};
    out.insert(out.end(), body.begin(), body.end());
    return out;
}

Bytes text(const std::string& s) { return Bytes(s.begin(), s.end()); }

std::string scratchFile(const std::string& name, const Bytes& content) {
    const std::string path = scratchDir + "/" + name;
    FILE* f = std::fopen(path.c_str(), "wb");
    if (f == nullptr) fail("cannot write " + path);
    if (!content.empty()) std::fwrite(content.data(), 1, content.size(), f);
    std::fclose(f);
    return path;
}

Bytes readAll(FILE* f) {
    Bytes out;
    std::rewind(f);
    uint8_t buf[4096];
    std::size_t n;
    while ((n = std::fread(buf, 1, sizeof buf, f)) > 0) out.insert(out.end(), buf, buf + n);
    return out;
}

qim_id textId(const char* s) {
    qim_id id{};
    qim_id_from_text(&id, s);
    return id;
}

Bytes capabilityRecord(uint8_t version) {
    std::unique_ptr<cap_record> rec(new cap_record);
    cap_identity id{version, textId("TESTMFG"), textId("TER100"), "Test Manufacturer", "Terminal 100"};
    if (cap_build_record(rec.get(), &id) != ZEL_SUCCESS) fail("cap_build_record");
    const uint32_t length = qim_get_be16(rec->data + CAP_OFF_LENGTH);
    return Bytes(rec->data, rec->data + length);
}

Bytes capuPart(uint8_t version) {
    Bytes buf(2048);
    const qim_id model = textId("TER100");
    const std::size_t n = capu_build(buf.data(), buf.size(), version, &model, "Test Manufacturer", "Terminal 100");
    if (n == 0) fail("capu_build");
    buf.resize(n);
    return buf;
}

struct Part {
    uint32_t kind;
    Bytes data;
};

// A package written by the library: version 3 (writer 3), 2 or 1.
Bytes package(int version, const std::vector<Part>& parts, bool twoModels) {
    qim_package* pkg = nullptr;
    if (qim_package_create(&pkg) != ZEL_SUCCESS) fail("create");
    const qim_id mfgc = textId("TESTMFG");
    if (qim_package_init_header(pkg, 40, 0x04020600, &mfgc) != ZEL_SUCCESS) fail("init_header");
    int index = 0;
    for (const Part& p : parts) {
        const std::string path = scratchFile("part" + std::to_string(index++), p.data);
        if (qim_package_add_part_file(pkg, p.kind, 0x04020600, path.c_str(), nullptr) != ZEL_SUCCESS) {
            fail("add_part_file");
        }
    }
    const qim_id models[2] = {textId("TER100"), textId("TER200")};
    for (int m = 0; m < (twoModels ? 2 : 1); ++m) {
        qim_package_add_model(pkg, &models[m]);
        for (int seq = 0; seq < static_cast<int>(parts.size()); ++seq) {
            if (m == 0 || seq % 2 == 0) qim_package_set_model_part(pkg, &models[m], seq);
        }
    }
    FILE* out = std::tmpfile();
    if (out == nullptr) fail("tmpfile");
    const zel_error_t rc = version == 3   ? qim_package_write(pkg, out)
                           : version == 2 ? qim_package_write_v2(pkg, out)
                                          : qim_package_write_v1(pkg, out);
    if (rc != ZEL_SUCCESS) fail("write package");
    Bytes bytes = readAll(out);
    std::fclose(out);
    qim_package_free(pkg);
    return bytes;
}

Bytes pattern(std::size_t n, uint8_t seed) {
    Bytes b(n);
    for (std::size_t i = 0; i < n; ++i) b[i] = static_cast<uint8_t>(seed + i * 7);
    return b;
}

void packageSeeds() {
    const std::vector<Part> parts = {{4, pattern(700, 1)}, {9, capabilityRecord(17)}, {14, capuPart(17)}};
    const Bytes v3 = package(3, parts, true);
    const Bytes v3one = package(3, {{2, pattern(100, 9)}}, false);
    const Bytes v2 = package(2, {{4, pattern(300, 3)}, {9, capabilityRecord(16)}}, false);
    const Bytes v1 = package(1, {{4, pattern(40, 5)}}, false);
    const Bytes head(v3.begin(), v3.begin() + (v3.size() < 512 ? v3.size() : 512));

    writeSeed("package_header", "v3-parts-models", withFlag(0, head));
    writeSeed("package_header", "v3-fixed", withFlag(1, head));
    writeSeed("package_header", "v3-one-part", withFlag(0, v3one));
    writeSeed("package_header", "v2", withFlag(1, v2));
    writeSeed("package_header", "v1-unsupported", withFlag(0, v1));
    writeSeed("package_header", "short-63", withFlag(0, Bytes(v3.begin(), v3.begin() + 63)));

    writeSeed("package_load", "v3-cap1-capu", withFlag(0, v3));
    writeSeed("package_load", "v3-cap1-capu-fixed", withFlag(1, v3));
    writeSeed("package_load", "v3-one-part", withFlag(0, v3one));
    writeSeed("package_load", "v2-cap1", withFlag(0, v2));
    writeSeed("package_load", "v2-cap1-fixed", withFlag(1, v2));
    writeSeed("package_load", "v1-unsupported", withFlag(0, v1));
}

void capabilitySeeds() {
    writeSeed("capability", "record-v17", withFlag(0, capabilityRecord(17)));
    writeSeed("capability", "record-v17-fixed", withFlag(1, capabilityRecord(17)));
    writeSeed("capability", "record-v16", withFlag(0, capabilityRecord(16)));
    writeSeed("capability", "record-v11", withFlag(0, capabilityRecord(11)));
    writeSeed("capability", "capu-v17", withFlag(0, capuPart(17)));
    writeSeed("capability", "capu-v17-fixed", withFlag(2, capuPart(17)));
    writeSeed("capability", "capu-v5", withFlag(0, capuPart(5)));
    const Bytes record = capabilityRecord(17);
    writeSeed("capability", "short-19", withFlag(0, Bytes(record.begin(), record.begin() + 19)));
}

// Control byte of a datagram (see tftp_fuzz.cpp): source | what << 2 | length class << 4.
uint8_t control(unsigned source, unsigned what, unsigned lengthClass) {
    return static_cast<uint8_t>(source | what << 2 | lengthClass << 4);
}

void tftpSeeds() {
    const Bytes full(512, 0x42);
    auto script = [&](uint8_t options, const std::vector<Bytes>& datagrams) {
        Bytes out{options};
        for (const Bytes& d : datagrams) out.insert(out.end(), d.begin(), d.end());
        return out;
    };
    const Bytes next512 = [&] { Bytes b{control(0, 1, 0)}; b.insert(b.end(), full.begin(), full.end()); return b; }();
    const Bytes nextEmpty{control(0, 1, 2)};
    const Bytes repeat512 = [&] { Bytes b{control(0, 2, 0)}; b.insert(b.end(), full.begin(), full.end()); return b; }();
    const Bytes foreign512 = [&] { Bytes b{control(2, 1, 0)}; b.insert(b.end(), full.begin(), full.end()); return b; }();
    const Bytes error1{control(0, 3, 0), 0x00, 0x01};
    // Raw: a 16-bit length, then the datagram (here DATA block 1 "hi").
    const Bytes rawData{control(0, 0, 0), 0x00, 0x06, 0x00, 0x03, 0x00, 0x01, 'h', 'i'};
    // A short block of 100 bytes: length class 1 takes a 16-bit length.
    Bytes short100{control(0, 1, 1), 0x00, 100};
    short100.resize(short100.size() + 100, 0x33);
    // An oversized block (length class 3: 513 + n), cut by the client to 1472 bytes.
    Bytes oversized{control(0, 1, 3), 0x04, 0x00};
    oversized.resize(oversized.size() + 513 + 0x400 % 1088, 0x44);

    writeSeed("tftp", "two-blocks", script(0, {next512, nextEmpty}));
    writeSeed("tftp", "repeat-then-end", script(1, {next512, repeat512, nextEmpty}));
    writeSeed("tftp", "foreign-host", script(0, {foreign512, next512, nextEmpty}));
    writeSeed("tftp", "error-not-found", script(0, {next512, error1}));
    writeSeed("tftp", "lossy", script(6, {next512, next512, nextEmpty}));
    writeSeed("tftp", "raw", script(0, {rawData}));
    writeSeed("tftp", "short-block", script(0, {next512, short100}));
    writeSeed("tftp", "oversized", script(0, {oversized, nextEmpty}));
    // Options byte bit 3: the rest is the option bytes of an OACK.
    const char oackText[] = "blksize\0" "1468\0windowsize\0" "8\0tsize\0" "67108865";
    const std::string oack(oackText, sizeof oackText);  // the array's own terminator ends the last value
    Bytes oackSeed{8};
    oackSeed.insert(oackSeed.end(), oack.begin(), oack.end());
    writeSeed("tftp", "oack", oackSeed);
    const char refusedText[] = "BLKSIZE\0" "2000\0timeout\0" "3";
    const std::string refused(refusedText, sizeof refusedText);
    Bytes refusedSeed{8};
    refusedSeed.insert(refusedSeed.end(), refused.begin(), refused.end());
    writeSeed("tftp", "oack-refused", refusedSeed);
}

void statusSeeds() {
    const char* files[][2] = {
        {"phase1", "status=1"},
        {"phase1-lf", "status=1\n"},
        {"half", "status=2\ntotal=1000\ncurrent=500"},
        {"full", "status=2\ntotal=1000\ncurrent=1000"},
        {"big", "status=2\ntotal=200000000\ncurrent=100000000"},
        {"no-current", "status=2\ntotal=8192"},
        {"total-zero", "status=2\ntotal=0\ncurrent=5"},
        {"after-current", "status=2\ntotal=8192\ncurrent=0\nextra=1"},
        {"damaged", "status= +12x\ntotal=99999999999\ncurrent=-"},
        {"empty", ""},
    };
    for (const auto& f : files) writeSeed("status", f[0], text(f[1]));
}

void qimIdSeeds() {
    const char* texts[][2] = {
        {"hex-prefix", "0x0011223344556677"},
        {"hex-upper-x", "0X0011223344556677"},
        {"hex-blanks", "  00 11 22 33 44 55 66 77"},
        {"hex-15", "001122334455667"},
        {"hex-4", "0011"},
        {"name-text", "abc-1_2"},
        {"name-hex", "_5f616263"},
        {"name-any", "_00"},
        {"name-odd", "_123"},
        {"num", "0011223344556677:42"},
        {"num-big", "ffffffffffffffff:65535"},
    };
    uint8_t selector = 0;
    for (const auto& t : texts) {
        writeSeed("qim_id", t[0], withFlag(selector, text(t[1])));
        selector = static_cast<uint8_t>(selector + 0x25);
    }
}

// Key and signature files as minisign 0.11 and signify-openbsd write them.
void signatureSeeds() {
    const char* files[][3] = {
        {"minisign-key", "\1",
         "untrusted comment: minisign public key 57170AD0F66E77D2\n"
         "RWTSd2720AoXV6Ilww42nqTHGjlNxn2caKoH7b9jWKHjDObjM89XD09t\n"},
        {"signify-key", "\1",
         "untrusted comment: signify public key\n"
         "RWSCRDUhUxeepoFKyrTt59iaNLnpGqUXPwcwBr14M5c/mBz7vT14Qwvj\n"},
        {"prehashed", "\0",
         "untrusted comment: signature from minisign secret key\n"
         "RUTSd2720AoXVy85je//k9XdWnDrYcjR/FMXtwPTDD68yrtUlMM/ejKu028jlHkB1Wt1Ea9sLCpGmQEuG2hbyZvNtvfCz1FpUQ4=\n"
         "trusted comment: release 1.2.3\n"
         "ZT74QPiKUpsEzRQUPqz8ZGSdCDsIqnvKVED8PUhekmU6eer/BoQIeKktPe+xw9RbhHS0x1dlayMFwgAbAfvcDA==\n"},
        {"legacy", "\0",
         "untrusted comment: signature from minisign secret key\n"
         "RWTSd2720AoXV6OqqeXGE17iULyihACaK1wMwqal2pyTRiLFjU01RoPgB2zPcn8GX5HTU7bmUpOLPyr6AobSC36f/aypNXWp5QI=\n"
         "trusted comment: legacy\n"
         "Lt5gggHTfVZaMe4BM+2RWNAZsf2wlj3syX68ReSP+fvgUeaSmSAgyGtmN7cFkayXSpt8OvCMYc0jhVaJloboBA==\n"},
        {"signify", "\0",
         "untrusted comment: verify with s.pub\n"
         "RWSCRDUhUxeepmKGgTVeyDDZRXPs93dfZzfmk0nrE7SkOpr8+puPj8YSwfgKDwkBaSGf1BXsXCJrHDMnQ68LS9Nuqghvg62KoAU=\n"},
    };
    for (const auto& f : files) {
        writeSeed("signature", f[0], withFlag(static_cast<uint8_t>(f[1][0]), text(f[2])));
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: fuzz_make_seeds DIR\n");
        return 2;
    }
    outDir = argv[1];
    ::mkdir(outDir.c_str(), 0755);
    char pattern[] = "/tmp/brivlo-seeds-XXXXXX";
    if (mkdtemp(pattern) == nullptr) fail("mkdtemp");
    scratchDir = pattern;

    packageSeeds();
    capabilitySeeds();
    tftpSeeds();
    statusSeeds();
    qimIdSeeds();
    signatureSeeds();

    for (int i = 0; i < 8; ++i) std::remove((scratchDir + "/part" + std::to_string(i)).c_str());
    ::rmdir(scratchDir.c_str());
    return 0;
}
