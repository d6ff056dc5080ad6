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

// Reports come as tuples, in the order of the fields of the classes in orva/_files.py.

py::tuple told(const orva::Range& range) {
    return py::make_tuple(range.offset, range.length);
}

const char* told(orva::FileInfo::FoundBy by) {
    switch (by) {
        case orva::FileInfo::FoundBy::option:
            return "option";
        case orva::FileInfo::FoundBy::dictionary:
            return "dictionary";
        default:
            return "search";
    }
}

py::tuple info(const std::string& path, std::optional<i64> row0) {
    orva::FileInfo found;
    {
        const gil::released others;
        found = orva::info(path, row0);
    }
    py::list blocks;
    for (const orva::Block& block : found.blocks) {
        blocks.append(py::make_tuple(told(block.rows), block.file_offset, block.stored));
    }
    return py::make_tuple(told(found.found_by), found.swapped, found.row0, found.size, found.stored, found.file_size,
                          found.block_size, told(found.index), blocks);
}

// Lets signals act, and calls the caller's function where there is one. Outlives the work, and is made and goes with
// the GIL.
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
    orva::VerifyReport found;
    {
        const gil::released others;
        found = orva::verify(path, {.row0 = row0, .threads = threads, .progress = report.progress()});
    }
    py::list bad;
    for (const orva::BadBlock& block : found.bad) {
        bad.append(py::make_tuple(block.block, told(block.rows), decoded(block.text)));
    }
    return py::make_tuple(found.blocks, bad, decoded(found.index));
}

py::tuple recover(const std::string& from, const std::string& to, std::optional<i64> row0, bool committed,
                  bool dropLost, bool replace, const std::optional<py::function>& progress) {
    const reporter report(progress);
    orva::RecoverReport found;
    {
        const gil::released others;
        found = orva::recover(from, to,
                              {.row0 = row0,
                               .committed = committed,
                               .drop_lost = dropLost,
                               .replace = replace,
                               .progress = report.progress()});
    }
    py::list lost;
    for (const orva::LostRows& rows : found.lost) {
        lost.append(py::make_tuple(told(rows.rows), rows.estimated, decoded(rows.text)));
    }
    return py::make_tuple(found.blocks, found.size, lost);
}

const char* rollBack(const std::string& path) {
    const gil::released others;
    switch (orva::roll_back(path)) {
        case orva::RollBack::undone:
            return "undone";
        case orva::RollBack::whole:
            return "whole";
        case orva::RollBack::completed:
            return "completed";
        default:
            return "nothing";
    }
}

py::tuple join(const std::vector<std::string>& from, const std::string& to, bool replace,
               const std::optional<py::function>& progress) {
    const reporter report(progress);
    const std::vector<orva::Path> paths(from.begin(), from.end());
    orva::JoinReport found;
    {
        const gil::released others;
        found = orva::join(paths, to, {.replace = replace, .progress = report.progress()});
    }
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
    module.def("join", &join, "sources"_a, "target"_a, "replace"_a, "progress"_a);
}
