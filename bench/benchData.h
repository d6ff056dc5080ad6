// What benches run over: rows of three kinds, files in memory, bare system calls that fail loudly, work of a set
// length.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace bench {

using Bytes = std::vector<unsigned char>;

// Rows of doubles as a questionnaire gives them: codes, an age, a weight, now and then nothing.
Bytes surveyRows(std::size_t size);
// Rows of doubles as instruments give them: several slow signals with noise, rounded to what the instrument tells.
Bytes measuredRows(std::size_t size);
// Text as people wrote it, from the licences that every Debian system keeps; runtime_error without them.
Bytes textRows(std::size_t size);
// Bytes that do not compress.
Bytes noise(std::size_t size);

// A directory of the run's own, gone with it.
class Scratch {
public:
    // On a file system in memory.
    Scratch() : Scratch("/dev/shm") {}
    explicit Scratch(const std::string& parent);
    Scratch(const Scratch&) = delete;
    Scratch& operator=(const Scratch&) = delete;
    ~Scratch();
    std::string path(const std::string& name) const { return fDirectory + "/" + name; }
    // A file of these bytes; its name.
    std::string made(const std::string& name, const Bytes& bytes) const;

private:
    std::string fDirectory;
};

// A descriptor and the calls on it; a short count is a system_error.
class BareFile {
public:
    BareFile(const std::string& name, int flags);
    BareFile(const BareFile&) = delete;
    BareFile& operator=(const BareFile&) = delete;
    ~BareFile() { close(); }
    void read(void* to, std::size_t size) const;
    void write(const void* from, std::size_t size) const;
    void seek(std::int64_t offset) const;
    // Has the system write the file out and forget its pages, so that the next read is one of the disk.
    void forgetPages() const;
    void close();

private:
    int fDescriptor;
};

void require(bool good, const char* what);

// Keeps a core busy without memory: as many turns as take that long on an idle core. A set number of turns, not a
// watch on the clock: time that another process takes is not work done.
class BusyWork {
public:
    explicit BusyWork(double seconds);
    void operator()() const;

private:
    std::uint64_t fTurns;
};

}  // namespace bench
