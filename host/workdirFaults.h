// workdirFaults: the seam through which tests see the cipher's calls and make them fail. Only a build with
// ORVA_FAULT_SEAM has it; in any other build no code comes of it.
//
// Owner:   the hook belongs to the test and outlives its installation.
// Threads: a hook is called on whichever thread makes the call, several at once.
#pragma once

#include <cstdint>

namespace workdir::faults {

enum class Call : std::uint8_t { Encrypt, EndEncrypt, Decrypt };

class Hook {
public:
    virtual ~Hook() = default;

    // Asked at the start of each call. True: it gives 0 and touches nothing, not even its results.
    virtual bool fails(Call call) noexcept = 0;
};

#ifdef ORVA_FAULT_SEAM
// The hook of the process from now on, null for none. Gives back the one before.
Hook* install(Hook* hook) noexcept;
bool fails(Call call) noexcept;
#else
constexpr bool fails(Call /*call*/) noexcept {
    return false;
}
#endif

}  // namespace workdir::faults
