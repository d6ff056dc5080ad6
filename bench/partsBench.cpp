// The cost of a block on each of two threads, timed call by call, and of those steps that only one thread can take:
// docs/performance.md calculates from them how far more cores help.
#include "base/blockBuffer.h"
#include "benchData.h"
#include "paired.h"

#include <orva/blockSize.h>
#include <orva/ktthread.h>
#include <orva/reader.h>
#include <orva/writer.h>

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <span>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace {

using namespace bench;

constexpr std::size_t kBlock = kHandyBlockLength;
constexpr std::size_t kBlocks = 128;
using Clock = std::chrono::steady_clock;

// When each thread began a block: from one call to its next it has completed one.
class Laps {
public:
    void lap() {
        const std::lock_guard guard(fLock);
        fTimes[std::this_thread::get_id()].push_back(Clock::now());
    }
    // The median time for a block, of this thread or of the other one, in seconds.
    double median(bool own) const {
        for (const auto& [thread, times] : fTimes) {
            if ((thread == std::this_thread::get_id()) != own || times.size() < 2) continue;
            std::vector<double> taken;
            for (std::size_t i = 1; i < times.size(); ++i) {
                taken.push_back(std::chrono::duration<double>(times[i] - times[i - 1]).count());
            }
            const auto middle = taken.begin() + static_cast<std::ptrdiff_t>(taken.size() / 2);
            std::nth_element(taken.begin(), middle, taken.end());
            return *middle;
        }
        require(false, "both threads have had blocks");
        return 0;
    }

private:
    std::mutex fLock;
    std::map<std::thread::id, std::vector<Clock::time_point>> fTimes;
};

// Bytes in memory that are as far away as a file in the page cache.
struct Stored final : orva::ByteSource {
    explicit Stored(Bytes rows) : bytes(std::move(rows)) {}
    explicit Stored(const std::string& name) : bytes(std::filesystem::file_size(name)) {
        BareFile(name, O_RDONLY).read(bytes.data(), bytes.size());
    }
    orva::i64 size() const override { return std::ssize(bytes); }
    std::size_t read_at(orva::i64 offset, orva::Bytes to) const override {
        if (to.size() > 1'000) laps->lap();
        const std::size_t count = std::min(to.size(), bytes.size() - static_cast<std::size_t>(offset));
        std::memcpy(to.data(), bytes.data() + offset, count);
        return count;
    }
    Bytes bytes;
    std::shared_ptr<Laps> laps;
};

using Rows = Bytes (*)(std::size_t);

// One pass measures both; each side takes one of the figures.
Pair bothThreads(const std::function<void(const std::shared_ptr<Laps>&)>& pass) {
    const auto medianOf = [pass](bool own) {
        return [pass, own] {
            const auto laps = std::make_shared<Laps>();
            pass(laps);
            return laps->median(own);
        };
    };
    return {medianOf(true), medianOf(false)};
}

Pair reading(Rows make) {
    const Scratch scratch;
    orva::Writer writer(scratch.path("rows"), {.durable = false, .block = kBlock});
    writer.write_rows(make(kBlocks * kBlock));
    writer.finish();
    const auto stored = std::make_shared<Stored>(scratch.path("rows"));
    const auto to = std::make_shared<Bytes>(kBlocks * kBlock);
    return bothThreads([=](const std::shared_ptr<Laps>& laps) {
        stored->laps = std::make_shared<Laps>();
        const orva::Reader reader(stored, {.threads = 2});
        stored->laps = laps;
        require(reader.read_at(0, std::as_writable_bytes(std::span(*to))) == to->size(), "all rows are read");
    });
}

Pair writing(Rows make) {
    const auto rows = std::make_shared<Stored>(make(kBlocks * kBlock));
    const auto scratch = std::make_shared<Scratch>();
    return bothThreads([=](const std::shared_ptr<Laps>& laps) {
        rows->laps = laps;
        orva::Writer writer(scratch->path("made"), {.threads = 2, .durable = false, .replace = true, .block = kBlock});
        writer.write_from(*rows);
        writer.finish();
    });
}

// The seconds of one hand-over for each block: half of the way to another thread and back.
double handOvers() {
    ktSemaphore there{0};
    ktSemaphore back{0};
    std::thread other([&] {
        for (std::size_t i = 0; i < kBlocks; ++i) there.waitSemaphore(), back.postSemaphore();
    });
    const double seconds = wallSeconds([&] {
        for (std::size_t i = 0; i < kBlocks; ++i) there.postSemaphore(), back.waitSemaphore();
    });
    other.join();
    return seconds / 2;
}

void writeBlocks(int descriptor, const Bytes& block) {
    for (std::size_t i = 0; i < kBlocks; ++i) {
        for (std::size_t at = 0; at < block.size(); at += 1U << 16) {
            require(::write(descriptor, block.data() + at, 1U << 16) == 1 << 16, "write");
        }
    }
}

double intoFile(const Scratch& scratch, const Bytes& block) {
    const int descriptor = open(scratch.path("out").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    const double seconds = wallSeconds([&] { writeBlocks(descriptor, block); });
    close(descriptor);
    return seconds;
}

double intoPipe(const Bytes& block) {
    int ends[2];
    require(pipe(ends) == 0, "pipe");
    std::thread reader([&] {
        Bytes to(1U << 16);
        while (read(ends[0], to.data(), to.size()) > 0) {
        }
    });
    const double seconds = wallSeconds([&] { writeBlocks(ends[1], block); });
    close(ends[1]);
    reader.join();
    close(ends[0]);
    return seconds;
}

// Copies blocks between memory that no cache holds, on `threads` threads.
double copying(std::size_t threads, const Bytes& from, Bytes& to) {
    const auto share = from.size() / threads;
    const auto copy = [&](std::size_t i) { std::memcpy(to.data() + i * share, from.data() + i * share, share); };
    return wallSeconds([&] {
        std::vector<std::thread> others;
        for (std::size_t i = 1; i < threads; ++i) others.emplace_back(copy, i);
        copy(0);
        for (std::thread& other : others) other.join();
    });
}

}  // namespace

int main(int argc, char** argv) {
    const std::pair<std::string, Rows> kinds[] = {{"survey", surveyRows}, {"text", textRows}};
    for (const auto& [name, rows] : kinds) {
        add("parts: inflate a MiB, " + name + ": the caller's thread / the other", noGoal(),
            [rows = rows] { return reading(rows); });
        add("parts: deflate a MiB, " + name + ": the caller's thread / the other", noGoal(),
            [rows = rows] { return writing(rows); });
    }
    const auto blocks = static_cast<double>(kBlocks);
    add("parts: a hand-over / write of a MiB into a file in memory", noGoal(), [=] {
        const auto scratch = std::make_shared<Scratch>();
        const auto block = std::make_shared<Bytes>(noise(kBlock));
        return Pair{handOvers, [=] { return intoFile(*scratch, *block); }, blocks};
    });
    add("parts: a hand-over / write of a MiB into a pipe that a thread empties", noGoal(), [=] {
        const auto block = std::make_shared<Bytes>(noise(kBlock));
        return Pair{handOvers, [=] { return intoPipe(*block); }, blocks};
    });
    add("parts: copy of a MiB: one thread / two threads", noGoal(), [=] {
        const auto from = std::make_shared<Bytes>(kBlocks * kBlock);
        const auto to = std::make_shared<Bytes>(kBlocks * kBlock);
        return Pair{[=] { return copying(1, *from, *to); }, [=] { return copying(2, *from, *to); }, blocks};
    });
    return run(argc, argv);
}
