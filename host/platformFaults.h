// platformFaults: the seam under platform's calls, for tests. A hook is called before each raw system call, which it
// may let pass, fail or shorten, and after it, with the result: enough to make the n-th call fail, and to replay
// recorded writes against a simulated disk. The seam lies below the loops that restart and continue calls, so a test
// sees and disturbs the system calls themselves. The cipher of the process (workdir.h), which makes no system calls,
// calls the hook too: with Cipher for its blocks, and with RunEnd for the end of a run.
//
// Exists only in a build with ORVA_FAULT_SEAM; in any other build no code uses these types.
//
// Owner:   the test owns the hook, which outlives its installation and every call that began under it.
// Threads: a hook runs on whichever thread makes the call, on several at once.
#pragma once

#include <cstdint>

namespace platform::faults {

enum class Call { Open, Seek, Read, Write, Duplicate, Close, Sync, Truncate, Lock, Rename, Unlink, Cipher, RunEnd };

struct Verdict {
    int error = 0;                     // if not 0, the call is not made and fails with this errno
    std::uint64_t limit = UINT64_MAX;  // Read, Write: the most bytes of this call

    static Verdict goOn() { return {}; }
    static Verdict fail(int error) { return {error, UINT64_MAX}; }
    static Verdict atMost(std::uint64_t limit) { return {0, limit}; }
};

// One raw call. Fields that a call does not have keep their defaults.
struct Step {
    Call call;
    int descriptor = -1;  // Open: -1. Duplicate: the old one. Their result is the new one. Sync: may be a directory's.
    std::uint64_t size = 0;         // Read, Write: bytes asked for. Truncate: the length
    const void* data = nullptr;     // Read, Write: `result` bytes are valid, during after() only
    const char* name = nullptr;     // Open, Rename, Unlink
    const char* newName = nullptr;  // Rename
    int flags = 0;                  // Open: the system's own flags. Seek: the origin
    std::int64_t offset = -1;  // Read, Write: file offset of the bytes; -1 before, and after a failure, if the call
                               // uses the descriptor's position. Seek: the offset asked for
    std::int64_t result = -1;  // as the system gave it
};

class Hook {
public:
    virtual ~Hook() = default;

    // Called before the call, so `step` has no result. A Close is made even if it is to fail, since a system frees the
    // number of a close that fails.
    virtual Verdict before(const Step& step) = 0;
    // Called after the call, also after one that was made to fail.
    virtual void after(const Step& /*step*/) {}
};

#ifdef ORVA_FAULT_SEAM
// Sets the hook of the process, null for none. Returns the previous one.
Hook* install(Hook* hook) noexcept;
// For the cipher: true if the hook makes the call fail, which then sets errno and touches nothing.
bool refuses(Call call) noexcept;

// Installs a hook for the length of a scope.
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
