#include "blockwise.h"
#include "buffer.h"
#include "gil.h"
#include "module.h"
#include "signals.h"
#include "source.h"

#include <orva/platform.h>
#include <orva/reader.h>

#include <pybind11/stl.h>

#include <algorithm>
#include <numeric>
#include <optional>
#include <string>

namespace py = pybind11;
using orva::i64;

namespace {

constexpr std::size_t kSmallRead = 65'536;  // usually lies in two blocks at most

// A Reader that can be closed. A call under way has a copy of the Reader, and goes on.
class closableReader {
public:
    template <class From>
    closableReader(const From& from, std::optional<i64> row0, int threads, const std::string& name = {})
        // Two blocks: a search that ends at the border of two reads them by turns.
        : fReader(opened(from, {.row0 = row0, .threads = threads, .cached_blocks = 2, .name = name})),
          fBlocks(blocksAtATime(threads != 0 ? threads : static_cast<int>(platform::coreCount()))) {}

    void close() { fReader.reset(); }
    bool isClosed() const { return !fReader; }
    orva::Reader get() const {
        if (!fReader) throw py::value_error("I/O operation on closed file");
        return *fReader;
    }

    std::size_t readAt(i64 offset, py::handle to, const std::optional<py::list>& lost) const {
        const orva::Reader reader = get();
        const heldBuffer buffer(to, heldBuffer::access::write);
        return read(reader, offset, buffer.bytes(), lost);
    }

    py::bytes readBytes(i64 offset, i64 size) const {
        const orva::Reader reader = get();
        const i64 count = std::clamp<i64>(reader.size() - offset, 0, size);
        auto rows = py::reinterpret_steal<py::bytes>(PyBytes_FromStringAndSize(nullptr, count));
        if (!rows) throw py::error_already_set();
        const std::span memory(PyBytes_AS_STRING(rows.ptr()), static_cast<std::size_t>(count));
        read(reader, offset, std::as_writable_bytes(memory), {});
        return rows;
    }

    // Copies record rows[i] of `size` bytes to the i-th place of `to`. Nobody may write to `rows` meanwhile.
    void take(py::handle rows, i64 size, py::handle to, const std::optional<py::list>& lost) const {
        const orva::Reader reader = get();
        const heldBuffer numbers(rows, heldBuffer::access::read);
        const heldBuffer buffer(to, heldBuffer::access::write);
        const std::span wanted(reinterpret_cast<const i64*>(numbers.bytes().data()),
                               numbers.bytes().size() / sizeof(i64));
        const i64 count = reader.size() / size;
        collecting(lost, [&](std::vector<orva::Range>* found) {
            std::vector<std::size_t> order(wanted.size());
            std::iota(order.begin(), order.end(), 0U);
            const auto row = [&](std::size_t i) { return wanted[i]; };
            if (!std::ranges::is_sorted(wanted)) std::ranges::sort(order, {}, row);
            blockwise reads(reader, fBlocks, found);
            const auto length = static_cast<std::size_t>(size);
            for (const std::size_t i : order) {
                if (wanted[i] < 0 || wanted[i] >= count) throw py::index_error("row number out of range");
                reads.request(wanted[i] * size, buffer.bytes().subspan(i * length, length));
            }
            reads.finish();
        });
    }

private:
    static orva::Reader opened(const std::string& path, const orva::ReaderOptions& options) {
        orva::ReaderOptions searching = options;
        searching.progress = [](i64, i64) { checkSignals(); };
        return gil::without([&] { return orva::Reader(orva::Path(path), searching); });
    }
    static orva::Reader opened(const py::object& object, const orva::ReaderOptions& options) {
        auto source = std::make_shared<pythonSource>(object);
        return gil::without([&] { return orva::Reader(std::move(source), options); });
    }

    // Threads end with each call, which waits for the last of them: many blocks a call make that wait matter little.
    static int blocksAtATime(int threads) { return threads == 1 ? 1 : 16 * threads; }

    // Runs `read` without the GIL, and appends the damaged blocks that it finds to `lost`, if given.
    template <class Read>
    static void collecting(const std::optional<py::list>& lost, Read read) {
        std::vector<orva::Range> found;
        gil::without([&] { read(lost ? &found : nullptr); });
        for (const orva::Range& range : found) py::list(*lost).append(py::make_tuple(range.offset, range.length));
    }

    std::size_t read(const orva::Reader& reader, i64 offset, orva::Bytes to,
                     const std::optional<py::list>& lost) const {
        if (offset < 0) throw py::value_error("the offset must be 0 or more");
        const orva::Bytes wanted =
            to.first(static_cast<std::size_t>(std::clamp<i64>(reader.size() - offset, 0, std::ssize(to))));
        if (!lost && wanted.size() <= kSmallRead) return gil::without([&] { return reader.read_at(offset, wanted); });
        collecting(lost, [&](std::vector<orva::Range>* found) {
            blockwise reads(reader, fBlocks, found);
            reads.request(offset, wanted);
            reads.finish();
        });
        return wanted.size();
    }

    std::optional<orva::Reader> fReader;
    const int fBlocks;  // blocks at a time
};

py::bytes dictionary(const closableReader& reader) {
    const std::vector<std::byte> bytes = gil::without([own = reader.get()] { return own.dictionary(); });
    return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

// Four int64 for each block: offset and length of its rows, offset and length of its compressed bytes in the file.
py::bytes blocks(const closableReader& reader) {
    static_assert(sizeof(orva::Block) == 4 * sizeof(i64));
    const std::vector<orva::Block> all = reader.get().blocks();
    return {reinterpret_cast<const char*>(all.data()), all.size() * sizeof(orva::Block)};
}

std::vector<std::pair<i64, i64>> splits(const closableReader& reader, int count, i64 recordSize) {
    std::vector<std::pair<i64, i64>> ranges;
    for (const orva::Range& range : reader.get().splits(count, recordSize)) {
        ranges.emplace_back(range.offset, range.length);
    }
    return ranges;
}

}  // namespace

void bindReader(py::module_& module) {
    using namespace py::literals;
    py::class_<closableReader>(module, "Reader")
        .def(py::init<const std::string&, std::optional<i64>, int>(), "path"_a, "row0"_a, "threads"_a)
        .def(py::init<const py::object&, std::optional<i64>, int, const std::string&>(), "source"_a, "row0"_a,
             "threads"_a, "name"_a)
        .def_property_readonly("closed", &closableReader::isClosed)
        .def_property_readonly("size", [](const closableReader& reader) { return reader.get().size(); })
        .def_property_readonly("row0", [](const closableReader& reader) { return reader.get().row0(); })
        .def_property_readonly("swapped", [](const closableReader& reader) { return reader.get().swapped(); })
        .def("dictionary", &dictionary)
        .def("blocks", &blocks)
        .def("end_of_block", [](const closableReader& reader, i64 offset) { return reader.get().end_of_block(offset); })
        .def("splits", &splits, "count"_a, "record_size"_a)
        .def("read_at", &closableReader::readAt, "offset"_a, "to"_a, "lost"_a = py::none())
        .def("read_bytes", &closableReader::readBytes, "offset"_a, "size"_a)
        .def("take", &closableReader::take, "rows"_a, "size"_a, "to"_a, "lost"_a = py::none())
        .def("close", &closableReader::close);
}
