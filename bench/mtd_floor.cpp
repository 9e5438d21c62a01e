// The least a raw flash write can do on an MTD partition: read the image,
// MEMGETINFO, erase the blocks it covers, write it in erase-block chunks. No
// console output, no status file. Run on a flashsim board next to brivlo, it
// separates the simulator's cost from brivlo's own.
//
//   bench_mtd_floor IMAGE PARTITION      exit 0 when written, 1 otherwise
#include <cstdint>
#include <fcntl.h>
#include <string>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr unsigned long kMemGetInfo = 0x80204D01;
constexpr unsigned long kMemErase = 0x40084D02;

struct MtdInfo {  // mtd_info_user
    uint8_t type;
    uint32_t flags, size, erasesize, writesize, oobsize;
    uint64_t padding;
};
struct EraseInfo {  // erase_info_user
    uint32_t start, length;
};

struct Fd {
    int fd;
    explicit Fd(int f) : fd(f) {}
    Fd(const Fd&) = delete;
    Fd& operator=(const Fd&) = delete;
    ~Fd() {
        if (fd >= 0) ::close(fd);
    }
};

// The image in pages mapped at once, as brivlo holds it: a vector's zero
// fill would fault them in one by one and put that cost into the floor.
struct Image {
    uint8_t* data = nullptr;
    std::size_t size = 0;
    Image() = default;
    Image(const Image&) = delete;
    Image& operator=(const Image&) = delete;
    ~Image() {
        if (data != nullptr) ::munmap(data, size);
    }
};

bool readImage(const char* path, Image* image) {
    Fd in(::open(path, O_RDONLY));
    struct stat st {};
    if (in.fd < 0 || ::fstat(in.fd, &st) != 0 || st.st_size == 0) return false;
    const auto size = static_cast<std::size_t>(st.st_size);
    void* memory = ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_POPULATE, -1, 0);
    if (memory == MAP_FAILED) return false;
    image->data = static_cast<uint8_t*>(memory);
    image->size = size;
    std::size_t done = 0;
    while (done < size) {
        const ssize_t n = ::read(in.fd, image->data + done, size - done);
        if (n <= 0) return false;
        done += static_cast<std::size_t>(n);
    }
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) return 2;
    Image image;
    if (!readImage(argv[1], &image)) return 1;
    Fd dev(::open((std::string("/dev/flash/") + argv[2]).c_str(), O_RDWR));
    MtdInfo info{};
    if (dev.fd < 0 || ::ioctl(dev.fd, kMemGetInfo, &info) < 0 || info.erasesize == 0 || info.size < image.size) {
        return 1;
    }
    const std::size_t chunk = info.erasesize;
    for (std::size_t start = 0; start < image.size; start += chunk) {
        EraseInfo erase{static_cast<uint32_t>(start), info.erasesize};
        if (::ioctl(dev.fd, kMemErase, &erase) < 0) return 1;
    }
    for (std::size_t done = 0; done < image.size; done += chunk) {
        const std::size_t n = image.size - done < chunk ? image.size - done : chunk;
        if (::write(dev.fd, image.data + done, n) != static_cast<ssize_t>(n)) return 1;
    }
    return 0;
}
