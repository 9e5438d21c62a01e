#include "tools/flashsim/cli/board_dir.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <stdexcept>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace flashsim {
namespace {

std::runtime_error systemError(const std::string& what) {
    return std::runtime_error(what + ": " + std::strerror(errno));
}

// A descriptor closed on every path out.
class Fd {
public:
    explicit Fd(int fd) : fd_(fd) {}
    ~Fd() {
        if (fd_ >= 0) ::close(fd_);
    }
    Fd(const Fd&) = delete;
    Fd& operator=(const Fd&) = delete;
    int get() const { return fd_; }

private:
    int fd_;
};

void writeAll(int fd, const void* data, size_t length, uint64_t offset, const std::string& path) {
    const auto* p = static_cast<const uint8_t*>(data);
    while (length > 0) {
        const ssize_t n = ::pwrite(fd, p, length, static_cast<off_t>(offset));
        if (n <= 0) throw systemError("cannot write " + path);
        p += n;
        length -= static_cast<size_t>(n);
        offset += static_cast<uint64_t>(n);
    }
}

void makeDir(const std::string& path) {
    if (::mkdir(path.c_str(), 0755) != 0 && errno != EEXIST) throw systemError("cannot create " + path);
}

}  // namespace

BoardDir::BoardDir(const std::string& dir) : dir_(dir) {
    while (dir_.size() > 1 && dir_.back() == '/') dir_.pop_back();
    const std::string path = dir_ + "/" + kBoardFile;
    Fd fd(::open(path.c_str(), O_RDWR | O_CLOEXEC));
    if (fd.get() < 0) throw std::runtime_error(dir_ + ": not a simulated board (no board file; make one with flashsim init)");
    struct stat st;
    if (::fstat(fd.get(), &st) != 0 || static_cast<size_t>(st.st_size) != sizeof(BoardRecord)) {
        throw std::runtime_error(dir_ + ": not a simulated board (board file has the wrong size)");
    }
    void* map = ::mmap(nullptr, sizeof(BoardRecord), PROT_READ | PROT_WRITE, MAP_SHARED, fd.get(), 0);
    if (map == MAP_FAILED) throw systemError("cannot map " + path);
    if (const char* problem = boardRecordProblem(map, sizeof(BoardRecord))) {
        ::munmap(map, sizeof(BoardRecord));
        throw std::runtime_error(dir_ + ": not a simulated board (" + problem + ")");
    }
    record_ = static_cast<BoardRecord*>(map);
}

BoardDir::~BoardDir() {
    if (record_ != nullptr) ::munmap(record_, sizeof(BoardRecord));
}

void BoardDir::create(const std::string& dir, const BoardRecord& record) {
    makeDir(dir);
    const std::string boardPath = dir + "/" + kBoardFile;
    if (::access(boardPath.c_str(), F_OK) == 0) throw std::runtime_error(dir + ": already holds a board");
    makeDir(dir + "/" + kFlashDir);
    // Like /tmp: every user may create files there, only the owner of a
    // file may remove or rename it. chmod, because mkdir's mode passes the umask.
    const std::string tmp = dir + "/" + kTmpDir;
    makeDir(tmp);
    if (::chmod(tmp.c_str(), 01777) != 0) throw systemError("cannot make " + tmp + " world-writable");
    // Like /run: only the board directory's owner (root on the board) may
    // create files there, such as the upgrade lock.
    const std::string run = dir + "/" + kRunDir;
    makeDir(run);
    if (::chmod(run.c_str(), 0755) != 0) throw systemError("cannot set the mode of " + run);
    const std::string logPath = dir + "/" + kLogFile;
    Fd log(::open(logPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
    if (log.get() < 0) throw systemError("cannot create " + logPath);
    // Written aside and renamed, so a half-made board is never mistaken for one.
    const std::string temp = boardPath + ".new";
    {
        Fd fd(::open(temp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
        if (fd.get() < 0) throw systemError("cannot create " + temp);
        writeAll(fd.get(), &record, sizeof record, 0, temp);
    }
    if (::rename(temp.c_str(), boardPath.c_str()) != 0) throw systemError("cannot create " + boardPath);
}

int BoardDir::part(const std::string& name) const {
    const int index = findPart(*record_, name.c_str(), name.size());
    if (index < 0) throw std::runtime_error("no partition " + name + " on the board " + dir_);
    return index;
}

std::string BoardDir::backingPath(int part) const {
    return dir_ + "/" + kFlashDir + "/" + record_->parts[part].name;
}

bool BoardDir::materialised(int part) const { return ::access(backingPath(part).c_str(), F_OK) == 0; }

void BoardDir::materialise(int part) const {
    if (materialised(part)) return;
    // The same procedure as the preload library's: build aside, link into place.
    const std::string path = backingPath(part);
    const std::string temp = path + ".new." + std::to_string(::getpid());
    {
        Fd fd(::open(temp.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
        if (fd.get() < 0) throw systemError("cannot create " + temp);
        const uint32_t size = record_->parts[part].size;
        if (::ftruncate(fd.get(), size) != 0) throw systemError("cannot size " + temp);
        const std::vector<uint8_t> erased(65536, 0xFF);
        for (uint64_t at = 0; at < size; at += erased.size()) {
            writeAll(fd.get(), erased.data(), static_cast<size_t>(std::min<uint64_t>(erased.size(), size - at)), at, temp);
        }
    }
    const bool linked = ::link(temp.c_str(), path.c_str()) == 0 || errno == EEXIST;
    const int error = errno;
    ::unlink(temp.c_str());
    errno = error;
    if (!linked) throw systemError("cannot create " + path);
}

std::vector<uint8_t> BoardDir::content(int part) const {
    std::vector<uint8_t> bytes(record_->parts[part].size, 0xFF);
    if (!materialised(part)) return bytes;
    const std::string path = backingPath(part);
    Fd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (fd.get() < 0) throw systemError("cannot open " + path);
    size_t done = 0;
    while (done < bytes.size()) {
        const ssize_t n = ::pread(fd.get(), bytes.data() + done, bytes.size() - done, static_cast<off_t>(done));
        if (n < 0) throw systemError("cannot read " + path);
        if (n == 0) break;  // a shorter file than the partition: the rest reads as erased
        done += static_cast<size_t>(n);
    }
    return bytes;
}

void BoardDir::store(int part, uint64_t offset, const std::vector<uint8_t>& bytes) const {
    const PartRecord& p = record_->parts[part];
    if (offset > p.size || bytes.size() > p.size - offset) {
        throw std::runtime_error(std::to_string(bytes.size()) + " bytes at offset " + std::to_string(offset) +
                                 " do not fit in partition " + p.name + " of size " + std::to_string(p.size));
    }
    materialise(part);
    const std::string path = backingPath(part);
    Fd fd(::open(path.c_str(), O_WRONLY | O_CLOEXEC));
    if (fd.get() < 0) throw systemError("cannot open " + path);
    writeAll(fd.get(), bytes.data(), bytes.size(), offset, path);
}

}  // namespace flashsim
