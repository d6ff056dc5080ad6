// blockBuffer: memory for one block, aligned so that reads from the page cache run at full speed. Owners use one buffer
// for all their blocks, since the first touch of a page costs more than the work on its bytes.
//
// A buffer of which at least a quarter of a huge page will be used lies on huge pages, if the system has any to give: a
// block then takes two of them instead of 1,023 small pages, each of which can cost more to touch first than a huge
// one. The memory is not zeroed.
#pragma once

#include <orva/blockSize.h>

#include <cstddef>
#include <memory>

namespace orva {

class blockBuffer {
public:
    blockBuffer() = default;
    // Throws bad_alloc if there is no memory.
    explicit blockBuffer(std::size_t size) : blockBuffer(size, size) {}
    // `used`: how many bytes are likely to be touched. More may be.
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

// Evicts the memory from the caches of all cores in one streaming pass, if the processor has such stores, and leaves
// its content undefined. A store into a line in another core's cache has to fetch it first, and inflating stores little
// at a time.
void evictFromCaches(unsigned char* bytes, std::size_t size);

}  // namespace orva
