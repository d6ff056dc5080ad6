// heldBuffer: the memory of a Python object that has the buffer protocol, held while bytes move.
//
// Threads: made and destroyed with the GIL; the bytes may be used without it.
// Failure: TypeError if the object has no such memory, or only read-only memory.
#pragma once

#include <pybind11/pybind11.h>

#include <cstddef>
#include <span>

class heldBuffer {
public:
    enum class access { read, write };

    heldBuffer(pybind11::handle object, access wanted);
    heldBuffer(const heldBuffer&) = delete;
    heldBuffer& operator=(const heldBuffer&) = delete;
    ~heldBuffer() { PyBuffer_Release(&fView); }

    std::span<std::byte> bytes() const {
        return {static_cast<std::byte*>(fView.buf), static_cast<std::size_t>(fView.len)};
    }

private:
    Py_buffer fView{};
};
