// The one buffer type for a private key in the clear, and for what is kept beside it: bytes of
// its own (array new), wiped before they are released on every path. It may also adopt bytes
// handed over by a call that allocates with array new, such as the engine's key reads.
#ifndef QORLDAP_PLATFORM_WIPEDBUFFER_H
#define QORLDAP_PLATFORM_WIPEDBUFFER_H

#include <cstddef>

#include <openssl/crypto.h>

class WipedBuffer {
  public:
    WipedBuffer() = default;

    // size bytes of its own, not initialised.
    explicit WipedBuffer(size_t size) : data_(new unsigned char[size]), size_(size), wiped_(size) {}

    // Adopts data, allocated with array new, of which size bytes are to be wiped (null takes
    // nothing, whatever the size).
    WipedBuffer(unsigned char* data, size_t size) noexcept
        : data_(data), size_(data != nullptr ? size : 0), wiped_(size_) {}

    ~WipedBuffer() { Reset(); }

    WipedBuffer(WipedBuffer&& other) noexcept
        : data_(other.data_), size_(other.size_), wiped_(other.wiped_) {
        other.Forget();
    }
    WipedBuffer& operator=(WipedBuffer&& other) noexcept {
        if (this != &other) {
            Reset();
            data_ = other.data_;
            size_ = other.size_;
            wiped_ = other.wiped_;
            other.Forget();
        }
        return *this;
    }
    WipedBuffer(WipedBuffer const&) = delete;
    WipedBuffer& operator=(WipedBuffer const&) = delete;

    unsigned char* Data() noexcept { return data_; }
    unsigned char const* Data() const noexcept { return data_; }
    // The bytes in use: all of them, or fewer after Shrink.
    size_t Size() const noexcept { return size_; }

    // Keeps the first size bytes in use and wipes the rest now; a larger size changes nothing.
    // The release still wipes everything the buffer was made or adopted with.
    void Shrink(size_t size) noexcept {
        if (size < size_) {
            OPENSSL_cleanse(data_ + size, size_ - size);
            size_ = size;
        }
    }

    // Wipes and releases the bytes; the buffer is empty afterwards.
    void Reset() noexcept {
        if (data_ != nullptr) {
            OPENSSL_cleanse(data_, wiped_);
            delete[] data_;
        }
        Forget();
    }

  private:
    void Forget() noexcept {
        data_ = nullptr;
        size_ = 0;
        wiped_ = 0;
    }

    unsigned char* data_ = nullptr;
    size_t size_ = 0;   // in use
    size_t wiped_ = 0;  // wiped at release
};

#endif
