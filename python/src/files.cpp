#include "errors.h"
#include "gil.h"
#include "module.h"
#include "signals.h"

#include <orva/files.h>

#include <pybind11/stl.h>

#include <optional>
#include <string>

namespace py = pybind11;
using orva::i64;

namespace {

// Reports are tuples in the order of the fields of the classes in orva/_files.py.

py::tuple asTuple(const orva::Range& range) {
    return py::make_tuple(range.offset, range.length);
}

py::tuple info(const std::string& path, std::optional<i64> row0) {
    constexpr const char* ways[] = {"option", "dictionary", "search"};
    const orva::FileInfo found = gil::without(
        [&] { return orva::info(orva::Reader(path, {.row0 = row0, .progress = [](i64, i64) { checkSignals(); }})); });
    py::list blocks;
    for (const orva::Block& block : found.blocks) {
        blocks.append(py::make_tuple(asTuple(block.rows), block.file_offset, block.stored));
    }
    return py::make_tuple(ways[static_cast<std::size_t>(found.found_by)], found.swapped, found.row0, found.size,
                          found.stored, found.file_size, found.block_size, asTuple(found.index), blocks);
}

// Lets signals act, and calls the caller's function if there is one. Outlives the work; made and destroyed with the
// GIL.
class reporter {
public:
    explicit reporter(const std::optional<py::function>& call) : fCall(call) {}
    orva::Progress progress() const {
        return [this](i64 done, i64 total) {
            checkSignals();
            if (!fCall) return;
            const gil::held python;
            (*fCall)(done, total);
        };
    }

private:
    const std::optional<py::function>& fCall;
};

py::tuple verify(const std::string& path, std::optional<i64> row0, int threads,
                 const std::optional<py::function>& progress) {
    const reporter report(progress);
    const orva::VerifyReport found = gil::without(
        [&] { return orva::verify(path, {.row0 = row0, .threads = threads, .progress = report.progress()}); });
    py::list bad;
    for (const orva::BadBlock& block : found.bad) {
        bad.append(py::make_tuple(block.block, asTuple(block.rows), decoded(block.text)));
    }
    return py::make_tuple(found.blocks, bad, decoded(found.index));
}

py::tuple recover(const std::string& from, const std::string& to, std::optional<i64> row0, bool committed,
                  bool dropLost, bool replace, const std::optional<py::function>& progress) {
    const reporter report(progress);
    const orva::RecoverOptions how{
        .row0 = row0, .committed = committed, .drop_lost = dropLost, .replace = replace, .progress = report.progress()};
    const orva::RecoverReport found = gil::without([&] { return orva::recover(from, to, how); });
    py::list lost;
    for (const orva::LostRows& rows : found.lost) {
        lost.append(py::make_tuple(asTuple(rows.rows), rows.estimated, decoded(rows.text)));
    }
    return py::make_tuple(found.blocks, found.size, lost);
}

const char* rollBack(const std::string& path) {
    constexpr const char* ends[] = {"nothing", "undone", "whole", "completed"};
    return ends[static_cast<std::size_t>(gil::without([&] { return orva::roll_back(path); }))];
}

py::tuple join(const std::vector<std::string>& from, const std::string& to, std::optional<i64> row0, bool replace,
               const std::optional<py::function>& progress) {
    const reporter report(progress);
    const std::vector<orva::Path> paths(from.begin(), from.end());
    const orva::JoinOptions how{.row0 = row0, .replace = replace, .progress = report.progress()};
    const orva::JoinReport found = gil::without([&] { return orva::join(paths, to, how); });
    return py::make_tuple(found.blocks, found.size);
}

}  // namespace

void bindFiles(py::module_& module) {
    using namespace py::literals;
    module.def("info", &info, "path"_a, "row0"_a);
    module.def("verify", &verify, "path"_a, "row0"_a, "threads"_a, "progress"_a);
    module.def("recover", &recover, "source"_a, "target"_a, "row0"_a, "committed"_a, "drop_lost"_a, "replace"_a,
               "progress"_a);
    module.def("roll_back", &rollBack, "path"_a);
    module.def("join", &join, "sources"_a, "target"_a, "row0"_a, "replace"_a, "progress"_a);
}
