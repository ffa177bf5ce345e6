#include "nvb/progress.h"

#include <algorithm>
#include <cstdio>
#include <string>
#include <unistd.h>

namespace nvbtool {

namespace {

constexpr auto kQuietStart = std::chrono::milliseconds(800);
constexpr auto kRedrawEvery = std::chrono::milliseconds(100);
constexpr int kBarWidth = 30;
bool silenced = false;

}  // namespace

Progress::Progress(bool quiet, std::string label, std::uint64_t total)
    : enabled_(!quiet && !silenced && total > 0 && isatty(STDERR_FILENO) == 1),
      label_(std::move(label)),
      total_(total),
      start_(Clock::now()),
      lastDraw_(start_) {}

Progress::~Progress() {
    finish();
}

void Progress::silence() {
    silenced = true;
}

void Progress::update(std::uint64_t done) {
    if (!enabled_) return;
    const Clock::time_point now = Clock::now();
    if (now - start_ < kQuietStart || now - lastDraw_ < kRedrawEvery) return;
    lastDraw_ = now;
    const double fraction = std::min(1.0, static_cast<double>(done) / static_cast<double>(total_));
    const int filled = static_cast<int>(fraction * kBarWidth);
    const double elapsed = std::chrono::duration<double>(now - start_).count();
    const double remaining = fraction > 0 ? elapsed * (1.0 - fraction) / fraction : 0.0;
    std::fprintf(stderr, "\r%s [%s%s] %3.0f%%  %.0f s left\033[K", label_.c_str(), std::string(filled, '#').c_str(),
                 std::string(kBarWidth - filled, '.').c_str(), fraction * 100.0, remaining);
    std::fflush(stderr);
    drawn_ = true;
}

void Progress::finish() {
    if (!drawn_) return;
    std::fprintf(stderr, "\r\033[K");
    std::fflush(stderr);
    drawn_ = false;
}

}  // namespace nvbtool
