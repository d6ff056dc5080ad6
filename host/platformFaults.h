// platformFaults: the seam under platform's calls, for tests. A hook is asked before each raw system call, which it may
// let pass, fail or cut short, and told afterwards what the call did: enough to make the n-th call fail, and to replay
// recorded writes against an imagined disk. It lies under the loops that restart and complete, so a test sees and
// disturbs what the system would. The cipher of the process (workdir.h), which is no system's, asks it too: Cipher for
// its blocks, RunEnd for the end of a run.
//
// Only a build with ORVA_FAULT_SEAM has it; in any other build these types exist and no code uses them.
//
// Owner:   the hook belongs to the test and outlives its installation and every call that began under it.
// Threads: a hook is called on whichever thread makes the call, several at once.
#pragma once

#include <cstdint>

namespace platform::faults {

enum class Call { Open, Seek, Read, Write, Duplicate, Close, Sync, Truncate, Lock, Rename, Unlink, Cipher, RunEnd };

struct Verdict {
    int error = 0;                     // not 0: the call fails with this errno and is not made
    std::uint64_t limit = UINT64_MAX;  // Read and Write: at most so many bytes in this one call

    static Verdict goOn() { return {}; }
    static Verdict fail(int error) { return {error, UINT64_MAX}; }
    static Verdict atMost(std::uint64_t limit) { return {0, limit}; }
};

// One raw call. What a call does not have keeps its default.
struct Step {
    Call call;
    int descriptor = -1;         // Open and Duplicate: -1, the new one is the result. A directory's Sync has its own.
    std::uint64_t size = 0;      // Read, Write: bytes asked for. Truncate: the length
    const void* data = nullptr;  // Read, Write: `result` bytes are valid, during after() only
    const char* name = nullptr;  // Open, Rename, Unlink
    const char* newName = nullptr;  // Rename
    int flags = 0;                  // Open: the system's own flags. Seek: the origin
    std::int64_t offset = -1;       // Read, Write: where the bytes stand in the file; of a failed one that named no
                                    // place -1. Seek: what was asked for
    std::int64_t result = -1;       // as the system gave it
    int error = 0;                  // errno where result is -1
};

class Hook {
public:
    virtual ~Hook() = default;

    // The call as it is about to be made, without result. A failing Close is made all the same, as a system frees the
    // number of a close that fails.
    virtual Verdict before(const Step& step) = 0;
    // Also after calls that were made to fail.
    virtual void after(const Step& /*step*/) {}
};

#ifdef ORVA_FAULT_SEAM
// The hook of the process from now on, null for none. Gives back the one before.
Hook* install(Hook* hook) noexcept;
// The cipher asks. True: the call fails, with errno, and touches nothing.
bool refuses(Call call) noexcept;

// Installed for a block of code.
class Installed {
public:
    explicit Installed(Hook& hook) : fBefore(install(&hook)) {}
    Installed(const Installed&) = delete;
    Installed& operator=(const Installed&) = delete;
    ~Installed() { install(fBefore); }

private:
    Hook* fBefore;
};
#else
constexpr bool refuses(Call /*call*/) noexcept {
    return false;
}
#endif

}  // namespace platform::faults
