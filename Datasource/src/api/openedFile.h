// The bytes that a Reader reads: a file held open, or a caller's ByteSource. Neither has a lock, so that reads run side
// by side and a fork finds none held.
//
// Threads: any.
// Failure: FileError from the system; callbackFailure from a source.
#pragma once

#include "format/storedBytes.h"

#include <orva/platform.h>
#include <orva/reader.h>

#include <memory>
#include <string>

namespace orva {

// Throws FileError for a file whose bytes cannot be read by offset. Does not wait for the other end of a pipe.
void refusePipe(const std::string& name, const std::string& place);

// Calls source.size(). UsageError if it is below 0, which may be the source's way to report an error.
std::int64_t sizeOf(const ByteSource& source);

class openedFile final : public storedBytes {
public:
    // `name` is for messages, `place` the full name. FileError if the file cannot be opened, or by refusePipe.
    openedFile(std::string name, const std::string& place);
    openedFile(const openedFile&) = delete;
    openedFile& operator=(const openedFile&) = delete;
    ~openedFile() override;

    const std::string& name() const override { return fName; }
    std::int64_t length() const override;
    bool read(void* to, std::uint64_t size, std::int64_t place) const override;
    bool isNamed(const std::string& place) const { return platform::sameFile(fDescriptor, place.c_str()); }
    // True if a writer holds the lock of the file.
    bool isBeingWritten() const { return platform::hasWriter(fDescriptor); }

private:
    const std::string fName;
    const int fDescriptor;
};

class sourceBytes final : public storedBytes {
public:
    sourceBytes(std::shared_ptr<const ByteSource> source, const std::string& name)
        : fSource(std::move(source)), fName(name.empty() ? "the source" : name) {}

    const std::string& name() const override { return fName; }
    std::int64_t length() const override { return sizeOf(*fSource); }
    bool read(void* to, std::uint64_t size, std::int64_t place) const override;

private:
    const std::shared_ptr<const ByteSource> fSource;
    const std::string fName;
};

}  // namespace orva
