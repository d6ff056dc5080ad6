// blockBuffer: memory for one block, aligned so that reads from the page cache run at full speed, kept by its owner
// over all blocks: the first touch of a page costs more than what is done with its bytes.
//
// Where a quarter of a huge page or more will be used it stands on such pages, if the system has any to give: a block
// then is two of them instead of 1,023 small ones, each of which can cost more to touch first than a huge one. Nothing
// is zeroed here.
#pragma once

#include <orva/blockSize.h>

#include <cstddef>
#include <memory>

namespace orva {

class blockBuffer {
public:
    blockBuffer() = default;
    // bad_alloc without memory.
    explicit blockBuffer(std::size_t size) : blockBuffer(size, size) {}
    // `used`: how much of it will be touched, as far as is known. More may be.
    blockBuffer(std::size_t size, std::size_t used);

    unsigned char* get() const { return fBytes.get(); }
    explicit operator bool() const { return fBytes != nullptr; }

private:
    struct release {
        std::size_t alignment;
        void operator()(unsigned char* bytes) const;
    };
    std::unique_ptr<unsigned char, release> fBytes;
};

// Takes the memory back from the cores that have read it, in one streaming pass, and leaves it without a meaning. What
// stores into lines that another core holds has to win back each of them, and an inflate stores little at a time.
void regain(unsigned char* bytes, std::size_t size);

}  // namespace orva
