// Rolling back by a side file that anybody may have written, beside a file that anybody may have written. What is
// refused changes nothing.
#include "appendJournal.h"
#include "fuzzTarget.h"

namespace {

using fuzz::Bytes;
using fuzz::require;

std::int64_t numberAt(const Bytes& bytes, std::size_t at) {
    std::int64_t number = 0;
    std::memcpy(&number, bytes.data() + at, sizeof number);
    return number;
}

void putNumber(Bytes& bytes, std::size_t at, std::int64_t number) {
    std::memcpy(bytes.data() + at, &number, sizeof number);
}

// The identity of the file and the checksum, put right as docs/recovery.md tells them: so that it is not these which
// refuse the rest.
void makeItFit(Bytes& side, const Bytes& file) {
    if (side.size() < 56) return;
    const std::int64_t length = std::ssize(file);
    const std::int64_t row0 = numberAt(side, 8);
    const std::int64_t untouched = numberAt(side, 24);
    if (row0 > 0 && row0 < length && untouched >= row0 + kHeadingSize && untouched <= length) {
        Bytes sample = fuzz::slice(file, 0, std::min<std::int64_t>(row0, 4096));
        const std::int64_t begin = std::max(row0 + kHeadingSize, untouched - 4096);
        const Bytes tail = fuzz::slice(file, begin, untouched - begin);
        sample.insert(sample.end(), tail.begin(), tail.end());
        putNumber(side, 32, static_cast<std::int64_t>(crc32_z(0, sample.data(), sample.size())));
    }
    const std::size_t summed = side.size() - 8;
    putNumber(side, summed, static_cast<std::int64_t>(crc32_z(0, side.data(), summed)));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size > fuzz::kLongestInput) return 0;
    auto [file, steps] = fuzz::Input(data, size);
    const std::int64_t length = std::min<std::int64_t>(steps.ConsumeIntegral<std::uint16_t>(), std::ssize(file));
    Bytes side = fuzz::slice(file, std::ssize(file) - length, length);
    file.resize(file.size() - side.size());
    if (steps.ConsumeIntegralInRange(0, 7) != 0) makeItFit(side, file);
    const std::string name = fuzz::pathOf("file");
    const std::string sideName = orva::sideFileName(name);
    fuzz::putFile(name, file);
    fuzz::putFile(sideName, side);

    orva::rollBackResult result{};
    if (fuzz::soundFor([&] { result = orva::rollBack(name); })) {
        require(result != orva::rollBackResult::nothingToDo, "a side file is something to do");
        require(!std::filesystem::exists(sideName), "a side file that was served goes");
        require(result != orva::rollBackResult::sideFileStale || fuzz::getFile(name) == file,
                "an append that wrote nothing has nothing to roll back");
    } else {
        require(fuzz::getFile(name) == file, "what is refused changes nothing");
        require(fuzz::getFile(sideName) == side, "a side file that is refused stays");
    }
    return 0;
}
