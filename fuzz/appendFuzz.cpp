// Appends to a file: finished, abandoned, or interrupted and rolled back, with its side file as written or changed in
// any way. A refused call changes nothing; after any other end the rows are the old ones, with or without the new ones
// after them.
#include "fuzzTarget.h"

using namespace support;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Input in(data, size);
    std::filesystem::remove(orva::sideFileName(in.name));
    auto stream = std::make_unique<zcmpsFilestr>(ORVA_FileStream(in.name.c_str(), "rb"));
    const bool hasWorker = in.steps.ConsumeIntegralInRange(0, 15) == 0;
    stream->setThreadCount(hasWorker ? 2 : 0);
    PartModel{in.name, kPlace, in.swap, in, inflated}.append(std::move(stream), hasWorker);
    return 0;
}
