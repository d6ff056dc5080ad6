// A progress bar on standard error: only on a terminal, and only after half a second.
#pragma once

#include <orva/files.h>

#include <chrono>
#include <cstdint>
#include <string>

namespace CLI {
class App;
}

struct progressOptions {
    std::string when = "auto";
    bool verbose = false;

    void addTo(CLI::App& app);
};

class progress {
public:
    // `total`: bytes of the whole work; below 0 if unknown.
    progress(const progressOptions& options, std::string label, std::int64_t total);
    progress(const progress&) = delete;
    progress& operator=(const progress&) = delete;
    // Erases the bar.
    ~progress();

    void advance(std::int64_t bytes);
    // For work that reports its own progress; must not outlive the bar.
    orva::Progress callback() {
        return [this](std::int64_t done, std::int64_t) { advance(done - fDone); };
    }
    // Erases the bar and, if there was one or the user asked for it, prints "orva: LABEL: summary, time, speed".
    void finish(const std::string& summary);

private:
    using clock = std::chrono::steady_clock;

    double secondsSinceStart() const;
    std::int64_t bytesPerSecond() const;
    void draw();
    void erase();

    const std::string fLabel;
    const std::int64_t fTotal;
    const bool bAllowed;
    const bool bVerbose;
    const clock::time_point fStart = clock::now();
    clock::time_point fNextDraw = fStart + std::chrono::milliseconds(500);
    std::int64_t fDone = 0;
    bool bDrawn = false;  // a bar is on the terminal
    bool bEverDrawn = false;
};
