// hostdep: ExtNameStr, the name of a file as the host passes it around, and how to open that file.
//
// Owner:   a plain value: copies are independent.
// Threads: no lock. Several threads may read one name while none changes it.
// Failure: copying and setting may throw bad_alloc, which changes nothing; Sopen returns -1 with errno.
#pragma once

#include <orva/hostApi.h>

#include <string>

class ORVA_HOST_API ExtNameStr {
public:
    // Both take the bytes of the name. File names are bytes on the supported systems, so every form of a name is the
    // same string, and nothing is converted.
    void SetGeneric(const std::string& name);
    void SetU8(const std::string& name);

    // Both return the bytes last set. The reference is valid until this object is changed or destroyed.
    const std::string& GetGeneric() const noexcept;
    const std::string& GetCP() const noexcept;

    // Opens the file and returns a descriptor for platform's calls, or -1 with errno. Flags: platform::openShared. A
    // name with a zero byte gives ENOENT: the bytes before the zero may name another file.
    int Sopen(int oflag, int shflag, int pmode) const;

private:
    std::string fName;
};
