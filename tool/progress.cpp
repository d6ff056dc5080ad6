#include "progress.h"

#include "text.h"

#include <CLI/CLI.hpp>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <utility>

namespace {

constexpr auto kRedraw = std::chrono::milliseconds(100);
constexpr int kBarWidth = 30;

std::string bar(double share) {
    const int full = static_cast<int>(share * kBarWidth);
    return '[' + std::string(static_cast<std::size_t>(full), '#') +
           std::string(static_cast<std::size_t>(kBarWidth - full), '.') + ']';
}

}  // namespace

void progressOptions::addTo(CLI::App& app) {
    app.add_option("--progress", when, "Show a progress bar: auto (on a terminal, when the work is long) or never")
        ->check(CLI::IsMember({"auto", "never"}));
    app.add_flag("-v,--verbose", verbose, "Tell what was done");
}

progress::progress(const progressOptions& options, std::string label, std::int64_t total)
    : fLabel(std::move(label)),
      fTotal(total),
      bAllowed(options.when != "never" && isatty(STDERR_FILENO) == 1),
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

double progress::bytesPerSecond() const {
    return static_cast<double>(fDone) / std::max(secondsSinceStart(), 1e-6);
}

void progress::draw() {
    const double share = fTotal > 0 ? std::min(1.0, static_cast<double>(fDone) / static_cast<double>(fTotal)) : 0;
    const std::string whole = fTotal > 0 ? bar(share) + ' ' + std::to_string(static_cast<int>(share * 100)) + "% " : "";
    std::fprintf(stderr, "\r\033[K%s%s  %s/s", whole.c_str(), humanSize(static_cast<double>(fDone)).c_str(),
                 humanSize(bytesPerSecond()).c_str());
    bDrawn = bEverDrawn = true;
}

void progress::erase() {
    if (bDrawn) std::fputs("\r\033[K", stderr);
    bDrawn = false;
}
