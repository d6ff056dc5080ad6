#include "buffer.h"
#include "gil.h"
#include "module.h"
#include "signals.h"

#include <orva/writer.h>

#include <pybind11/stl.h>

#include <algorithm>
#include <memory>
#include <optional>
#include <string>

namespace py = pybind11;
using orva::i64;

namespace {

// A Writer that can be dropped. Its user makes sure that one thread at a time calls it. A signal handler that drops it
// during a write takes effect when that write ends.
class droppableWriter {
public:
    explicit droppableWriter(orva::Writer writer) : fWriter(std::make_shared<orva::Writer>(std::move(writer))) {}

    // Returns the number of bytes.
    std::size_t write(py::handle rows) {
        constexpr std::size_t piece = 1 << 20;  // a block of a new file; signals act between them
        const std::shared_ptr<orva::Writer> writer = get();
        const heldBuffer buffer(rows, heldBuffer::access::read);
        const gil::released guard;
        for (std::span<const std::byte> left = buffer.bytes(); !left.empty();) {
            const std::size_t size = std::min(left.size(), piece);
            writer->write(left.first(size));
            left = left.subspan(size);
            checkSignals();
        }
        return buffer.bytes().size();
    }

    i64 size() const { return get()->size(); }

    void finish() {
        gil::without([writer = get()] { writer->finish(); });
    }

    // Abandons what is not finished, ends the threads and closes the file.
    void drop() {
        std::shared_ptr<orva::Writer> writer = std::move(fWriter);
        const gil::released guard;
        writer.reset();
    }

private:
    std::shared_ptr<orva::Writer> get() const {
        if (fWriter == nullptr) throw py::value_error("I/O operation on closed file");
        return fWriter;
    }

    std::shared_ptr<orva::Writer> fWriter;
};

std::unique_ptr<droppableWriter> create(const std::string& path, const std::string& dictionary, int threads,
                                        bool replace, int level, i64 block) {
    const auto text = std::as_bytes(std::span(dictionary));
    const orva::WriterOptions options{.dictionary = {text.begin(), text.end()},
                                      .threads = threads,
                                      .replace = replace,
                                      .level = level,
                                      .block = block};
    return gil::without([&] { return std::make_unique<droppableWriter>(orva::Writer(path, options)); });
}

std::unique_ptr<droppableWriter> append(const std::string& path, std::optional<i64> row0, int threads, int level,
                                        i64 block, bool rollBack) {
    const orva::AppendOptions options{.row0 = row0,
                                      .threads = threads,
                                      .level = level,
                                      .block = block,
                                      .roll_back = rollBack,
                                      .progress = [](i64, i64) { checkSignals(); }};
    return gil::without([&] { return std::make_unique<droppableWriter>(orva::Writer::append(path, options)); });
}

}  // namespace

void bindWriter(py::module_& module) {
    using namespace py::literals;
    py::class_<droppableWriter>(module, "Writer")
        .def_property_readonly("size", &droppableWriter::size)
        .def("write", &droppableWriter::write)
        .def("finish", &droppableWriter::finish)
        .def("drop", &droppableWriter::drop);
    module.def("create", &create, "path"_a, "dictionary"_a, "threads"_a, "replace"_a, "level"_a, "block"_a);
    module.def("append", &append, "path"_a, "row0"_a, "threads"_a, "level"_a, "block"_a, "roll_back"_a);
}
