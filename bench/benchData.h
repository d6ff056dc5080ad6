// Shared by the benches: rows of three kinds, files in memory, bare system calls that fail loudly, and work of a set
// length.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace bench {

using Bytes = std::vector<unsigned char>;

// Rows of doubles as from a questionnaire: codes, an age, a weight, now and then no answer.
Bytes surveyRows(std::size_t size);
// Rows of doubles as from instruments: several slow signals with noise, rounded to the instrument's resolution.
Bytes measuredRows(std::size_t size);
// Text written by people: the licences that every Debian system keeps. runtime_error without them.
Bytes textRows(std::size_t size);
// Bytes that do not compress.
Bytes noise(std::size_t size);

// A directory for one run, removed with the object.
class Scratch {
public:
    // On a file system in memory.
    Scratch() : Scratch("/dev/shm") {}
    explicit Scratch(const std::string& parent);
    Scratch(const Scratch&) = delete;
    Scratch& operator=(const Scratch&) = delete;
    ~Scratch();
    std::string path(const std::string& name) const { return fDirectory + "/" + name; }
    // Makes a file of these bytes and returns its name.
    std::string made(const std::string& name, const Bytes& bytes) const;

private:
    std::string fDirectory;
};

// A file descriptor with its calls; a short transfer throws system_error.
class BareFile {
public:
    BareFile(const std::string& name, int flags);
    BareFile(const BareFile&) = delete;
    BareFile& operator=(const BareFile&) = delete;
    ~BareFile() { close(); }
    void read(void* to, std::size_t size) const;
    void write(const void* from, std::size_t size) const;
    void seek(std::int64_t offset) const;
    // Makes the system write the file out and drop its pages, so that the next read comes from the disk.
    void forgetPages() const;
    void close();

private:
    int fDescriptor;
};

void require(bool good, const char* what);

// Keeps a core busy without using memory, for as many turns as take `seconds` on an idle core. The number of turns is
// fixed, not the time: time that another process takes is not work done.
class BusyWork {
public:
    explicit BusyWork(double seconds);
    void operator()() const;

private:
    std::uint64_t fTurns;
};

}  // namespace bench
