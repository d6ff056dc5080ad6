// Makes the inputs that fuzzing begins with: makeCorpus DIRECTORY gives DIRECTORY/TARGET/NAME for every target. The
// files are small ones of every kind that the library writes or meets; each is taken with several ways of steering.
#include "appendJournal.h"
#include "fuzzTarget.h"

#include <orva/lz4Compress.h>

#include <map>
#include <random>

namespace {

using fuzz::Bytes;
using fuzz::kRow0;

using Sizes = std::vector<std::size_t>;
using Files = std::map<std::string, Bytes>;

Bytes noise(std::size_t size) {
    static std::mt19937 engine(1);
    Bytes bytes(size);
    for (auto& byte : bytes) byte = static_cast<unsigned char>(engine());
    return bytes;
}

void writeBlocks(zcmpsFilestr& stream, const Sizes& sizes, bool shrinking) {
    unsigned seed = 0;
    for (const std::size_t size : sizes) {
        const Bytes rows = shrinking ? fuzz::rowsOf(size, ++seed) : noise(size);
        stream.Write(rows.data(), static_cast<std::uint32_t>(rows.size()));
        stream.Flush();
    }
}

Bytes finished(const Sizes& sizes, bool shrinking = true) {
    const std::string name = fuzz::pathOf("file");
    fuzz::putFile(name, Bytes(kRow0, 'd'));
    zcmpsFilestr stream(ORVA_FileStream(name.c_str(), "r+b"));
    stream.setRow0Pos(kRow0);
    stream.Seek(kRow0, ORVA_StrBaseIO::SeekFromStart);
    writeBlocks(stream, sizes, shrinking);
    stream.Close();
    return fuzz::getFile(name);
}

// The file and its side file in the middle of a safe append, which cuts `cut` bytes first.
std::pair<Bytes, Bytes> interrupted(const Bytes& file, std::int64_t cut, const Sizes& added) {
    const std::string name = fuzz::pathOf("file");
    fuzz::putFile(name, file);
    zcmpsFilestr stream(ORVA_FileStream(name.c_str(), "rb"));
    stream.setSafeAppend(true);
    stream.readFilePosInfo(kRow0, false);
    const std::int64_t end = fuzz::ReferencePart(file, kRow0, false).end() - cut;
    stream.Seek(end, ORVA_StrBaseIO::SeekFromStart);
    stream.setFileToAppend(end, false);
    writeBlocks(stream, added, true);
    std::pair<Bytes, Bytes> both{fuzz::getFile(name), fuzz::getFile(orva::sideFileName(name))};
    stream.abandon();
    return both;
}

// Heading and index in the other byte order.
Bytes swapped(Bytes file) {
    const fuzz::ReferencePart part(file, kRow0, false);
    compressionHeading heading = part.heading();
    const std::int64_t index = heading._indexPos;
    for (std::int64_t at = index; at < index + heading._size; at += kRecordSize) {
        filePosRecord record;
        std::memcpy(&record, file.data() + at, sizeof record);
        orva::swapRecord(record);
        std::memcpy(file.data() + at, &record, sizeof record);
    }
    orva::swapHeading(heading);
    std::memcpy(file.data() + kRow0, &heading, sizeof heading);
    return file;
}

Bytes withoutHeading(Bytes file, bool withoutIndex) {
    const std::int64_t index = fuzz::ReferencePart(file, kRow0, false).heading()._indexPos;
    std::fill_n(file.begin() + kRow0, kHeadingSize, 0);
    if (withoutIndex) file.resize(static_cast<std::size_t>(index));
    return file;
}

Bytes withDamage(Bytes file, std::size_t block) {
    const filePosRecord record = fuzz::ReferencePart(file, kRow0, false).blocks()[block].record;
    file[static_cast<std::size_t>(record.translatePos + record.translateSize / 2)] ^= 0x10;
    return file;
}

Files makeFiles() {
    const Bytes plain = finished({300, 500, 70});
    Files files{
        {"shortBlocks", plain},
        {"noRows", finished({})},
        {"fullAndShort", finished({kBlockSize, kBlockSize, 100})},
        {"fullLast", finished({60, kBlockSize})},
        {"storedHalves", finished({kBlockSize, 90}, false)},
        {"manyBlocks", finished({9, 1, 30, 2, 14, 7, 7, 7, 40, 3, 1, 1, 25, 60, 5, 8, 11, 2, 2, 31})},
        {"unfinished", withoutHeading(plain, true)},
        {"headingLost", withoutHeading(plain, false)},
        {"damagedFirst", withDamage(plain, 0)},
        {"damagedMiddle", withDamage(plain, 1)},
        {"damagedUnfinished", withoutHeading(withDamage(plain, 1), true)},
        {"interruptedAppend", interrupted(plain, 0, {200, 90, 40}).first},
        {"interruptedCut", interrupted(plain, 70, {20, 300}).first},
    };
    for (const char* name : {"shortBlocks", "noRows", "fullAndShort", "storedHalves", "damagedMiddle"}) {
        files[std::string("swapped-") + name] = swapped(files[name]);
    }
    return files;
}

Files makeBlocks() {
    Files blocks{{"one", {7}}, {"noise", noise(200)}, {"fullNoise", noise(kBlockSize)}};
    for (const unsigned seed : {1U, 2U, 3U}) {
        Bytes rows = fuzz::rowsOf(seed * 900, seed);
        Bytes deflated(compressBound(rows.size()));
        uLongf length = deflated.size();
        compress2(deflated.data(), &length, rows.data(), rows.size(), seed == 1 ? 0 : 9);
        deflated.resize(length);
        Bytes lz4(rows.size());
        lz4.resize(lz4CompressBlock::compressBlock(
            reinterpret_cast<char*>(rows.data()), static_cast<std::uint32_t>(rows.size()),
            reinterpret_cast<char*>(lz4.data()), static_cast<std::uint32_t>(lz4.size()), 0));
        const std::string name = std::to_string(seed);
        blocks["rows" + name] = rows;
        blocks["zlib" + name] = deflated;
        blocks["raw" + name] = fuzz::slice(deflated, 2, std::ssize(deflated) - 6);
        blocks["lz4" + name] = lz4;
    }
    return blocks;
}

// With numbers behind it that steer: `last` is the one taken first.
void put(const std::string& directory, const std::string& name, Bytes input, std::size_t steps,
         const Bytes& last = {}) {
    const Bytes steering = noise(steps);
    input.insert(input.end(), steering.begin(), steering.end());
    std::copy_backward(last.begin(), last.end(), input.end());
    std::filesystem::create_directories(directory);
    fuzz::putFile(directory + '/' + name, input);
}

void makeAll(const std::string& directory) {
    for (const auto& [name, file] : makeFiles()) {
        const unsigned char swap = name.rfind("swapped-", 0) == 0 ? 1 : 0;
        put(directory + "/openFuzz", name, file, 0);
        for (const char* way : {"-a", "-b", "-c"}) {
            for (const char* target : {"/readFuzz", "/appendFuzz", "/recoverFuzz"}) {
                put(directory + target, name + way, file, fuzz::kSteps, {swap});
            }
        }
    }
    const Sizes rows{200, 90};
    const std::pair<std::string, std::pair<Bytes, Bytes>> appends[] = {
        {"cut", interrupted(finished({300, 500}), 450, rows)},
        {"added", interrupted(finished({300, 500}), 0, rows)},
        {"behindFull", interrupted(finished({kBlockSize}), 0, rows)},
        {"firstRows", interrupted(finished({}), 0, rows)},
    };
    for (const auto& [name, both] : appends) {
        const auto& [file, side] = both;
        Bytes input = file;
        input.insert(input.end(), side.begin(), side.end());
        const auto low = static_cast<unsigned char>(side.size());
        const auto high = static_cast<unsigned char>(side.size() >> 8);
        put(directory + "/rollBackFuzz", name, input, fuzz::kSteps, {1, low, high});
    }
    for (const auto& [name, block] : makeBlocks()) {
        for (const char* target : {"/zlibFuzz", "/lz4Fuzz"}) put(directory + target, name, block, 8);
    }
}

}  // namespace

int main(int count, char** arguments) {
    if (count != 2) return 2;
    makeAll(arguments[1]);
    std::filesystem::remove_all(fuzz::directory());
}
