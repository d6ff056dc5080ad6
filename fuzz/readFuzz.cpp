// Reading and seeking in a file, on every road. Each read gives what a second reader gives, byte for byte, or
// DamagedFileError where that one meets damage; the stream stays usable for the rest.
#include "fuzzTarget.h"

namespace {

using fuzz::Bytes;
using fuzz::require;
using fuzz::soundFor;

void takeRoad(zcmpsFilestr& stream, FuzzedDataProvider& steps) {
    switch (steps.ConsumeIntegralInRange(0, 15)) {
        case 0:
        case 1:
            stream.setMultiThread(2);
            break;
        case 2:
        case 3:
            stream.setThreadCount(2);
            break;
        default:  // threads take their time, and most of what reading checks needs none
            break;
    }
    stream.setBlockCache(steps.ConsumeIntegralInRange(0, 3));
}

void readAsTheOther(zcmpsFilestr& stream, const fuzz::ReferencePart& reference, FuzzedDataProvider& steps) {
    while (steps.remaining_bytes() != 0) {
        const std::int64_t pos = fuzz::kRow0 + steps.ConsumeIntegral<std::int16_t>();
        const std::size_t size = steps.ConsumeIntegralInRange<std::size_t>(0, 3 * kBlockSize);
        Bytes rows(size);
        std::size_t count = 0;
        stream.Seek(pos, ORVA_StrBaseIO::SeekFromStart);
        const bool sound = soundFor([&] { count = stream.Read(rows.data(), static_cast<std::uint32_t>(rows.size())); });
        const std::optional<Bytes> expected = reference.read(pos, size);
        require(sound == expected.has_value(), "a read fails exactly where it meets damage");
        if (!sound) continue;
        rows.resize(count);
        require(rows == *expected, "a read gives the rows that the file holds");
        require(stream.Tell() == pos + std::ssize(rows), "the position moves by what was read");
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size > fuzz::kLongestInput) return 0;
    auto [file, steps] = fuzz::Input(data, size);
    const bool swap = steps.ConsumeBool();
    const std::string name = fuzz::pathOf("file");
    fuzz::putFile(name, file);

    const fuzz::ReferencePart reference(file, fuzz::kRow0, swap);
    zcmpsFilestr stream(ORVA_FileStream(name.c_str(), "rb"));
    takeRoad(stream, steps);
    const bool opens = soundFor([&] { stream.readFilePosInfo(fuzz::kRow0, swap); });
    require(opens == reference.opens(), "a part opens exactly when its heading and index can be true");
    if (opens) readAsTheOther(stream, reference, steps);
    unsigned char byte = 0;
    if (!opens) require(!soundFor([&] { stream.Read(&byte, 1); }), "a part that does not open cannot be read");
    require(stream.Close() == 1, "a reader closes");
    return 0;
}
