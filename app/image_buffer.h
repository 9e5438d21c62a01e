// The memory an image or a package part is held in while it is checked and
// written: zero-filled, owned, released exactly once.
#pragma once

#include <cstddef>
#include <cstdint>

class ImageBuffer {
public:
    ImageBuffer() = default;
    ~ImageBuffer();
    ImageBuffer(const ImageBuffer&) = delete;
    ImageBuffer& operator=(const ImageBuffer&) = delete;

    // Replaces what the buffer held with `size` zero bytes. False (the
    // buffer then empty) when the memory cannot be had. Size 0 holds nothing.
    bool allocate(std::size_t size);

    // Null when empty.
    uint8_t* data() const { return data_; }
    std::size_t size() const { return size_; }
    bool empty() const { return size_ == 0; }

private:
    void release();

    uint8_t* data_ = nullptr;
    std::size_t size_ = 0;
};
