// hostdep: the name of a file, as the host hands it around, and the road from the name to an open descriptor.
//
// Owner:   a value: copies are independent of each other.
// Threads: no lock. Several threads may read one name while nobody changes it.
// Failure: bad_alloc from copying and setting changes nothing; Sopen answers by its result and errno.
#pragma once

#include <orva/hostApi.h>

#include <string>

class ORVA_HOST_API ExtNameStr {
public:
    // Each takes the name as bytes. File names are bytes on the systems served here, so that every form of a name is
    // the same string and nothing is converted.
    void SetGeneric(const std::string& name);
    void SetU8(const std::string& name);

    // The bytes last set. The reference holds while this object lives and is not changed.
    const std::string& GetGeneric() const noexcept;
    const std::string& GetCP() const noexcept;

    // A descriptor for platform's calls, or -1 with errno. Flags: platform::openShared. A name with a zero byte in it
    // names no file: opening what stands before the zero would open another one.
    int Sopen(int oflag, int shflag, int pmode) const;

private:
    std::string fName;
};
