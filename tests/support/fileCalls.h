// FileCalls: sees and fails the file calls of the code under test, through the seam under platform's calls.
//
// A call of the library is told as one, also where the system needed several: "R 512+1000" is a read at offset 512 that
// asked for 1,000 bytes, "R@512+1000" the same after one seek, "R@@" after two, "W" a write, "S" a seek; in small
// letters if another thread than the test's made it.
#pragma once

#include <orva/platformFaults.h>

#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <tuple>
#include <utility>

namespace support {

class FileCalls : public platform::faults::Hook {
public:
    using Call = platform::faults::Call;
    using Verdict = platform::faults::Verdict;

    // What was made since the last time, apart by ", ". Only with no call under way: another thread's may be missing.
    std::string transfers() { return taken(fTransfers); }
    std::string seeks() { return taken(fSeeks); }
    // The n-th such call from now on fails, of the test's thread or of the others.
    void fail(Call call, int error, int nth = 1, bool ofOthers = false) {
        const std::lock_guard guard(fLock);
        std::tie(fFails, fError, fNth, fFailsOthers) = std::tuple(call, error, nth, ofOthers);
    }
    // Until the other threads have ended so many reads since the hook was installed.
    void awaitReads(int reads) const {
        while (fOtherReads < reads) std::this_thread::yield();
    }
    Verdict before(Call call, int /*descriptor*/, std::uint64_t /*size*/) override {
        const std::lock_guard guard(fLock);
        const bool counts = call == fFails && onOtherThread() == fFailsOthers;
        return counts && --fNth == 0 ? Verdict::fail(fError) : Verdict::goOn();
    }

    void after(const platform::faults::Step& step) override {
        const std::lock_guard guard(fLock);
        const bool seeks = step.call == Call::Seek && step.flags == SEEK_SET;
        if (seeks) told(fSeeks, "S ", step.offset);
        fSought += seeks ? "@" : "";
        if (step.call == Call::Read || step.call == Call::Write) transferred(step);
    }

private:
    bool onOtherThread() const { return std::this_thread::get_id() != fTestThread; }

    void transferred(const platform::faults::Step& step) {
        std::uint64_t& rest = fRests[step.descriptor];
        const bool continues = rest != 0 && rest == step.size;
        rest = step.result > 0 ? step.size - static_cast<std::uint64_t>(step.result) : 0;
        if (step.call == Call::Read && onOtherThread() && rest == 0) ++fOtherReads;
        if (continues) return;
        const std::int64_t offset = step.offset >= 0 ? step.offset : ::lseek(step.descriptor, 0, SEEK_CUR);
        told(fTransfers, (step.call == Call::Read ? "R" : "W") + (fSought.empty() ? " " : fSought), offset);
        fTransfers += '+' + std::to_string(step.size);
        fSought.clear();
    }
    void told(std::string& log, std::string kind, std::int64_t offset) {
        if (onOtherThread()) kind[0] += 'a' - 'A';
        log += (log.empty() ? "" : ", ") + kind + std::to_string(offset);
    }
    std::string taken(std::string& log) {
        const std::lock_guard guard(fLock);
        return std::exchange(log, {});
    }

    const std::thread::id fTestThread = std::this_thread::get_id();
    std::atomic<int> fOtherReads{0};
    std::mutex fLock;  // guards what follows
    std::string fTransfers, fSeeks, fSought;
    std::map<int, std::uint64_t> fRests;  // by descriptor: what the system left undone of the call under way
    Call fFails{};
    int fError = 0, fNth = 0;
    bool fFailsOthers = false;
    platform::faults::Installed fInstalled{*this};
};

}  // namespace support
