#include "app/image_buffer.h"

#include <sys/mman.h>

// The pages are mapped and zeroed by the kernel in one call (MAP_POPULATE)
// rather than one page fault per 4 KiB while the file is read in. For a
// 4 MiB image that is a thousand faults; on the board's CPU (and much more
// under emulation) they cost as long as writing the image to NOR flash.
bool ImageBuffer::allocate(std::size_t size) {
    release();
    if (size == 0) {
        return true;
    }
    void* memory = ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_POPULATE, -1, 0);
    if (memory == MAP_FAILED) {
        return false;
    }
    data_ = static_cast<uint8_t*>(memory);
    size_ = size;
    return true;
}

void ImageBuffer::release() {
    if (data_ != nullptr) {
        ::munmap(data_, size_);
    }
    data_ = nullptr;
    size_ = 0;
}

ImageBuffer::~ImageBuffer() {
    release();
}
