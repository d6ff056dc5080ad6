// What tests of enciphered files share: files that go through the cipher, and a hook that sees and fails its calls.
#pragma once

#include "support/tempDir.h"

#include <orva/file.h>
#include <orva/workdirFaults.h>

#include <array>
#include <atomic>

namespace support {

// Counts the cipher's calls; the n-th of a kind fails.
class CipherCalls : public workdir::faults::Hook {
public:
    using Call = workdir::faults::Call;

    CipherCalls() : fBefore(workdir::faults::install(this)) {}
    ~CipherCalls() override { workdir::faults::install(fBefore); }

    void fail(Call call, int nth) {
        fCall = call;
        fNth = nth;
    }
    int count(Call call) const { return fCounts[static_cast<std::size_t>(call)]; }

    bool fails(Call call) noexcept override {
        ++fCounts[static_cast<std::size_t>(call)];
        return call == fCall && --fNth == 0;
    }

private:
    workdir::faults::Hook* const fBefore;
    std::array<std::atomic<int>, 3> fCounts{};
    Call fCall = Call::Encrypt;
    std::atomic<int> fNth{0};
};

class CipherFixture : public TempDir {
protected:
    CipherFixture() { SetKeepEncrypt(true); }
    ~CipherFixture() override { SetKeepEncrypt(false); }

    ExtNameStr named(const std::string& name) const {
        ExtNameStr result;
        result.SetGeneric(path(name));
        return result;
    }
    static Bytes read(ORVA_File& file, std::int64_t offset = 0, unsigned int size = 8192) {
        Bytes bytes(size);
        bytes.resize(file.Read(bytes.data(), size, offset));
        return bytes;
    }
};

}  // namespace support
