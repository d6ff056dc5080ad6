// FileCalls: sees, fails and holds up the file calls of the code under test, through the seam under platform's calls.
//
// A call of the library is told as one, also where the system needed several: "R 512+1000" is a read at offset 512 that
// asked for 1,000 bytes, "W" a write, "S" a seek; in small letters if another thread than the test's made it.
#pragma once

#include <orva/platformFaults.h>

#include <unistd.h>

#include <condition_variable>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <utility>

namespace support {

class FileCalls : public platform::faults::Hook {
public:
    using Call = platform::faults::Call;
    using Step = platform::faults::Step;
    using Verdict = platform::faults::Verdict;
    enum class Side : std::uint8_t { Test, Other };

    FileCalls() : fBefore(platform::faults::install(this)) {}
    ~FileCalls() override { platform::faults::install(fBefore); }

    // The transfers since the last time, apart by ", ". Only with no call under way: another thread's may be missing.
    std::string transfers() { return taken(fTransfers); }
    std::string seeks() { return taken(fSeeks); }
    int count(Call call) {
        const std::lock_guard guard(fLock);
        return fCounts[call];
    }

    // The n-th such call from now on this side fails, and the `times` - 1 after it.
    void fail(Call call, int error, int nth = 1, int times = 1, Side side = Side::Test) {
        const std::lock_guard guard(fLock);
        fFault = {call, side, error, nth, times};
    }
    // The other threads' reads wait until release(); awaitHeld returns when one does.
    void holdReads() {
        const std::lock_guard guard(fLock);
        fHolding = true;
    }
    void awaitHeld() {
        std::unique_lock guard(fLock);
        fChanged.wait(guard, [this] { return fHeld > 0; });
    }
    void release() {
        const std::lock_guard guard(fLock);
        fHolding = false;
        fChanged.notify_all();
    }
    // Until the other threads have ended so many reads since the hook was installed.
    void awaitReads(int reads) {
        std::unique_lock guard(fLock);
        fChanged.wait(guard, [&] { return fOtherReads >= reads; });
    }

    Verdict before(Call call, int /*descriptor*/, std::uint64_t /*size*/) override {
        std::unique_lock guard(fLock);
        if (call == Call::Read && side() == Side::Other && fHolding) {
            ++fHeld;
            fChanged.notify_all();
            fChanged.wait(guard, [this] { return !fHolding; });
            --fHeld;
        }
        if (call != fFault.call || side() != fFault.side || fFault.times == 0) return Verdict::goOn();
        if (--fFault.nth > 0) return Verdict::goOn();
        --fFault.times;
        return Verdict::fail(fFault.error);
    }

    void after(const Step& step) override {
        const std::lock_guard guard(fLock);
        ++fCounts[step.call];
        if (step.call == Call::Seek && step.flags == SEEK_SET) told(fSeeks, 'S', step.offset, -1);
        if (step.call == Call::Read || step.call == Call::Write) transferred(step);
        fChanged.notify_all();
    }

private:
    struct Fault {
        Call call;
        Side side;
        int error, nth, times;
    };

    Side side() const { return std::this_thread::get_id() == fTestThread ? Side::Test : Side::Other; }

    void transferred(const Step& step) {
        std::uint64_t& rest = fRests[step.descriptor];
        const bool continues = rest != 0 && rest == step.size;
        const bool isPart = step.result > 0 && static_cast<std::uint64_t>(step.result) < step.size;
        rest = isPart ? step.size - static_cast<std::uint64_t>(step.result) : 0;
        if (step.call == Call::Read && side() == Side::Other && rest == 0) ++fOtherReads;
        if (continues) return;
        const std::int64_t offset = step.offset >= 0 ? step.offset : ::lseek(step.descriptor, 0, SEEK_CUR);
        told(fTransfers, step.call == Call::Read ? 'R' : 'W', offset, static_cast<std::int64_t>(step.size));
    }

    void told(std::string& log, char kind, std::int64_t offset, std::int64_t size) {
        if (!log.empty()) log += ", ";
        log += side() == Side::Test ? kind : static_cast<char>(kind - 'A' + 'a');
        log += ' ' + std::to_string(offset);
        if (size >= 0) log += '+' + std::to_string(size);
    }

    std::string taken(std::string& log) {
        const std::lock_guard guard(fLock);
        return std::exchange(log, {});
    }

    const std::thread::id fTestThread = std::this_thread::get_id();
    platform::faults::Hook* const fBefore;
    std::mutex fLock;  // guards what follows
    std::condition_variable fChanged;
    std::string fTransfers;
    std::string fSeeks;
    std::map<Call, int> fCounts;
    std::map<int, std::uint64_t> fRests;  // by descriptor: what the system left undone of the call under way
    Fault fFault{Call::Read, Side::Test, 0, 0, 0};
    bool fHolding = false;
    int fHeld = 0;
    int fOtherReads = 0;
};

// Ends the program when a test goes a minute without feeding it: a thread that waits for ever fails instead of hanging.
struct Watchdog {
    Watchdog() { feed(); }
    Watchdog(const Watchdog&) = delete;
    Watchdog& operator=(const Watchdog&) = delete;
    ~Watchdog() { ::alarm(0); }
    static void feed() { ::alarm(60); }
};

}  // namespace support
