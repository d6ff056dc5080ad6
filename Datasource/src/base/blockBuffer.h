// blockBuffer: memory for one block, aligned so that reads from the page cache run at full speed, kept by its owner
// over all blocks. A fresh one a block would cost its page faults each time, three quarters of an inflate.
#pragma once

#include <orva/blockSize.h>

#include <cstddef>
#include <memory>
#include <new>

namespace orva {

class blockBuffer {
public:
    blockBuffer() = default;
    explicit blockBuffer(std::size_t size)
        : fBytes(static_cast<unsigned char*>(::operator new (size, std::align_val_t{kBufferAlignment}))) {}

    unsigned char* get() const { return fBytes.get(); }
    explicit operator bool() const { return fBytes != nullptr; }

private:
    struct release {
        void operator()(unsigned char* bytes) const { ::operator delete (bytes, std::align_val_t{kBufferAlignment}); }
    };
    std::unique_ptr<unsigned char, release> fBytes;
};

}  // namespace orva
