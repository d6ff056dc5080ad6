// Makes the inputs that fuzzing begins with: makeCorpus DIRECTORY writes DIRECTORY/TARGET/NAME for every target. They
// are small files of every kind that the library writes or meets, each with several ways of steering.
#include "fuzzTarget.h"

using namespace support;

using Files = std::map<std::string, Bytes>;

SeededBytes any(1);

Bytes finished(const std::vector<Bytes>& blocks) {
    makeFile(pathOf("file"), blocks, kPlace);
    return readBytes(pathOf("file"));
}

// A file without an index. An append leaves the previous heading, a new part none.
Bytes interrupted(const Bytes& before, const Bytes& file) {
    const Bytes heading = slice(before, kPlace, kHeadingSize);
    return with(slice(file, 0, secondReader(file, kPlace, false).blocksEnd), kPlace, heading);
}

Files makeFiles() {
    const Bytes plain = finished(blocksOf({300, 500, 70}));
    Files files{
        {"shortBlocks", plain},
        {"noRows", finished({})},
        {"fullAndShort", finished(blocksOf({kBlockSize, kBlockSize, 100}))},
        {"fullLast", finished(blocksOf({60, kBlockSize}))},
        {"storedHalves", finished({any.noise(kBlockSize), any.noise(90)})},
        {"manyBlocks", finished(blocksOf({9, 1, 30, 2, 14, 7, 7, 7, 40, 3, 1, 1, 25, 60, 5, 8, 11, 2, 2, 31}))},
        {"unfinished", interrupted(Bytes(kPlace + kHeadingSize), plain)},
        {"interruptedAppend", interrupted(plain, finished(blocksOf({300, 500, 70, 200, 90, 40})))},
        {"interruptedCut", interrupted(plain, finished(blocksOf({300, 500, 20, 300})))},
    };
    for (const char* name : {"shortBlocks", "noRows", "fullAndShort", "storedHalves"})
        files[std::string("swapped-") + name] = swapped(files[name], kPlace);
    return files;
}

// Appends numbers that steer; `last` is consumed first.
void put(const std::string& directory, const std::string& name, Bytes input, unsigned char last = 0) {
    input = std::move(input) + any.noise(kSteps);
    input.back() = last;
    std::filesystem::create_directories(directory);
    writeBytes(directory + '/' + name, input);
}

int main(int count, char** arguments) {
    if (count != 2) return 2;
    const std::string directory = arguments[1];
    for (const auto& [name, file] : makeFiles()) {
        const unsigned char swap = name.starts_with("swapped-") ? 1 : 0;
        for (const char* target : {"/partFuzz", "/appendFuzz", "/recoverFuzz"}) {
            for (const char* way : {"-a", "-b", "-c"}) put(directory + target, name + way, file, swap);
        }
    }
    // codecFuzz takes 5 bytes for steering and the rest as rows.
    for (const std::size_t size : std::vector<std::size_t>{1, 200, 900, 2700, kBlockSize - kSteps + 5}) {
        put(directory + "/codecFuzz", "rows" + std::to_string(size), any.rows(size));
        put(directory + "/codecFuzz", "noise" + std::to_string(size), any.noise(size));
    }
}
