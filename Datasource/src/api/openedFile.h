// What a Reader reads from: a file held open, or a caller's ByteSource. Both without a lock, so that reads run side by
// side and a fork finds nothing taken.
//
// Threads: any.
// Failure: FileError from the system; callersFailure from a source.
#pragma once

#include "format/storedBytes.h"

#include <orva/platform.h>
#include <orva/reader.h>

#include <memory>
#include <string>

namespace orva {

// FileError for what can't be read at any place. Nobody is waited for at the other end of a pipe.
void refusePipe(const std::string& name, const std::string& place);

// Asks the caller's own. UsageError for what is below 0: no size, but an error that the source may have met.
std::int64_t sizeOf(const ByteSource& source);

class openedFile final : public storedBytes {
public:
    // `name` is for messages, `place` its full name. FileError if it cannot be opened, or is refused as a pipe is.
    openedFile(std::string name, const std::string& place);
    openedFile(const openedFile&) = delete;
    openedFile& operator=(const openedFile&) = delete;
    ~openedFile() override;

    const std::string& name() const override { return fName; }
    std::int64_t length() const override;
    bool read(void* to, std::uint64_t size, std::int64_t place) const override;
    bool isNamed(const std::string& place) const { return platform::sameFile(fDescriptor, place.c_str()); }
    // A writer holds its lock.
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
