// Reading and seeking in a file, on every road. Each read gives what a second reader gives, byte for byte, or
// DamagedFileError where that one meets damage; the stream stays usable for the rest.
#include "fuzzTarget.h"

using namespace fuzz;

namespace {

// Threads take their time, and most of what reading checks needs none.
void takeRoad(zcmpsFilestr& stream, FuzzedDataProvider& steps) {
    const int road = steps.ConsumeIntegralInRange(0, 15);
    if (road < 2) stream.setMultiThread(2);
    if (road == 2 || road == 3) stream.setThreadCount(2);
    stream.setBlockCache(steps.ConsumeIntegralInRange(0, 3));
}

void readAsTheOther(zcmpsFilestr& stream, const Part& reference, FuzzedDataProvider& steps) {
    const std::int64_t pos = kRow0 + steps.ConsumeIntegral<std::int16_t>();
    const auto size = steps.ConsumeIntegralInRange<std::uint32_t>(0, 3 * kBlockSize);
    Bytes rows(size);
    stream.Seek(pos, ORVA_StrBaseIO::SeekFromStart);
    const bool sound = soundFor([&] { rows.resize(stream.Read(rows.data(), size)); });
    const std::optional<Bytes> expected = reference.read(pos, size);
    require(sound == expected.has_value(), "a read fails exactly where it meets damage");
    require(!sound || rows == *expected, "a read gives the rows that the file holds");
    require(!sound || stream.Tell() == pos + std::ssize(rows), "the position moves by what was read");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Input in(data, size);
    const Part reference(in.file, kRow0, in.swap);
    zcmpsFilestr stream(ORVA_FileStream(in.name.c_str(), "rb"));
    takeRoad(stream, in.steps);
    const bool opens = soundFor([&] { stream.readFilePosInfo(kRow0, in.swap); });
    require(opens == reference.opens, "a part opens exactly when its heading and index can be true");
    while (opens && in.steps.remaining_bytes() != 0) readAsTheOther(stream, reference, in.steps);
    unsigned char byte = 0;
    require(opens || !soundFor([&] { stream.Read(&byte, 1); }), "a part that does not open cannot be read");
    require(stream.Close() == 1, "a reader closes");
    return 0;
}
