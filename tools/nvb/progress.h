#ifndef NVB_TOOL_PROGRESS_H
#define NVB_TOOL_PROGRESS_H

#include <chrono>
#include <cstdint>
#include <string>

namespace nvbtool {

// A progress bar on standard error. It appears only when standard error is a terminal,
// the command is not quiet, the total is known, and the work has already taken a while;
// so short jobs, pipes and scripts never see it.
class Progress {
public:
    Progress(bool quiet, std::string label, std::uint64_t total);
    ~Progress();
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    // No bar from here on in this process, for jobs that run side by side.
    static void silence();

    void update(std::uint64_t done);
    // Removes the bar, if one was drawn.
    void finish();

private:
    using Clock = std::chrono::steady_clock;
    bool enabled_;
    bool drawn_ = false;
    std::string label_;
    std::uint64_t total_;
    Clock::time_point start_;
    Clock::time_point lastDraw_;
};

}  // namespace nvbtool

#endif
