#include "progress.h"

#include "system.h"
#include "text.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <utility>

namespace {

constexpr auto kRedraw = std::chrono::milliseconds(100);
constexpr std::size_t kLongestBar = 30;
constexpr std::size_t kShortestBar = 5;

std::string bar(double share, std::size_t width) {
    const auto full = static_cast<std::size_t>(share * static_cast<double>(width));
    return '[' + std::string(full, '#') + std::string(width - full, '.') + "] ";
}

}  // namespace

void progressOptions::addTo(CLI::App& app) {
    app.add_option("--progress", when, "A progress bar: auto (on a terminal, when the work is long) or never")
        ->option_text("WHEN")
        ->check(CLI::IsMember({"auto", "never"}));
    app.add_flag("-v,--verbose", verbose, "Say what was done, and how fast");
}

progress::progress(const progressOptions& options, std::string label, std::int64_t total)
    : fLabel(std::move(label)),
      fTotal(total),
      bAllowed(options.when != "never" && terminalWidth() != 0),
      bVerbose(options.verbose) {}

progress::~progress() {
    erase();
}

void progress::advance(std::int64_t bytes) {
    fDone += bytes;
    if (!bAllowed) return;
    const auto now = clock::now();
    if (now < fNextDraw) return;
    fNextDraw = now + kRedraw;
    draw();
}

void progress::finish(const std::string& summary) {
    erase();
    if (!bVerbose && !bEverDrawn) return;
    std::fprintf(stderr, "orva: %s: %s, %.2f s, %s/s\n", fLabel.c_str(), summary.c_str(), secondsSinceStart(),
                 humanSize(bytesPerSecond()).c_str());
}

double progress::secondsSinceStart() const {
    return std::chrono::duration<double>(clock::now() - fStart).count();
}

std::int64_t progress::bytesPerSecond() const {
    return std::llround(static_cast<double>(fDone) / std::max(secondsSinceStart(), 1e-6));
}

// The last column stays free, since a terminal wraps after it. The bar gives way to the numbers.
void progress::draw() {
    const auto room = static_cast<std::size_t>(std::max(terminalWidth() - 1, 0));
    std::string line = humanSize(fDone) + "  " + humanSize(bytesPerSecond()) + "/s";
    if (fTotal > 0) {
        const double share = std::min(1.0, static_cast<double>(fDone) / static_cast<double>(fTotal));
        line.insert(0, std::to_string(static_cast<int>(share * 100)) + "% ");
        const std::size_t around = line.size() + 3;
        if (room >= around + kShortestBar) line.insert(0, bar(share, std::min(kLongestBar, room - around)));
    }
    std::fprintf(stderr, "\r\033[K%s", line.substr(0, room).c_str());
    bDrawn = bEverDrawn = true;
}

void progress::erase() {
    if (bDrawn) std::fputs("\r\033[K", stderr);
    bDrawn = false;
}
