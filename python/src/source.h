// pythonSource: a Python object as a ByteSource, by its `size()` and `read_at(offset, memoryview)` (orva/_source.py),
// which let one thread at a time read.
//
// Threads: any, without the GIL, which each call takes.
#pragma once

#include <orva/reader.h>

#include <pybind11/pybind11.h>

class pythonSource : public orva::ByteSource {
public:
    explicit pythonSource(pybind11::object source) : fSource(std::move(source)) {}
    ~pythonSource() override;
    orva::i64 size() const override;
    std::size_t read_at(orva::i64 offset, orva::Bytes to) const override;

private:
    pybind11::object fSource;
};
