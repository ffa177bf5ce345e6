#include "nvb/several_inputs.h"

#include "nvb/progress.h"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <optional>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace nvbtool {

namespace {

namespace fs = std::filesystem;

int exitCodeOfChild(int status) {
    if (WIFEXITED(status)) return WEXITSTATUS(status);
    return kExitUsage;
}

// The name of each file's result in the folder, or nothing after telling why the
// inputs can't be laid out there.
std::optional<std::vector<std::string>> targetsOf(const std::vector<std::string>& inputs, const fs::path& folder,
                                                  const std::string& suffix) {
    std::vector<std::string> targets;
    std::map<std::string, std::string> taken;
    for (const std::string& input : inputs) {
        if (input == "-") {
            reportError("standard input", "can't be converted into a folder: name files");
            return std::nullopt;
        }
        const fs::path name = fs::path(input).filename();
        const std::string target =
            (folder / (suffix.empty() ? name : fs::path(name).replace_extension(suffix))).string();
        const auto [earlier, added] = taken.try_emplace(target, input);
        if (!added) {
            reportError(input,
                        fmt::format("would be written to {} as {} is: rename one of them", target, earlier->second));
            return std::nullopt;
        }
        targets.push_back(target);
    }
    return targets;
}

bool makeFolder(const std::string& output) {
    std::error_code error;
    if (fs::is_directory(output, error)) return true;
    if (output == "-" || fs::exists(output, error)) {
        reportError(output, "is not a folder: with several inputs, -o names the folder to write into");
        return false;
    }
    if (!fs::create_directories(output, error)) {
        reportError(output, fmt::format("the folder can't be made: {}", error.message()));
        return false;
    }
    return true;
}

}  // namespace

int convertEach(InputOptions& in, std::string& output, const std::string& suffix, const CommonOptions& common,
                const std::function<int()>& convert) {
    std::error_code error;
    if (in.paths.size() == 1 && !fs::is_directory(output, error)) {
        in.path = in.paths.front();
        return convert();
    }
    const auto targets = targetsOf(in.paths, output, suffix);
    if (!targets || !makeFolder(output)) return kExitUsage;

    // Every file in a process of its own: one reader state each, and one file's failure
    // can't reach another's. Messages name their file, and each is one write to standard
    // error, so lines of parallel jobs do not mix.
    const std::size_t jobs = std::max(1, common.jobs);
    std::map<pid_t, std::size_t> running;
    std::vector<int> codes(in.paths.size(), kExitClean);
    const auto reap = [&] {
        int status = 0;
        pid_t pid = -1;
        do {
            pid = ::wait(&status);
        } while (pid < 0 && errno == EINTR);
        if (pid < 0) {
            // no child left to wait for: those not heard of count as failed
            for (const auto& [lost, lostIndex] : running) codes[lostIndex] = kExitUsage;
            running.clear();
            return false;
        }
        const auto found = running.find(pid);
        if (found == running.end()) return true;
        const std::size_t index = found->second;
        running.erase(found);
        codes[index] = exitCodeOfChild(status);
        if (WIFSIGNALED(status)) reportError(in.paths[index], fmt::format("stopped by signal {}", WTERMSIG(status)));
        return true;
    };
    for (std::size_t index = 0; index < in.paths.size(); ++index) {
        while (running.size() >= jobs && reap()) {
        }
        std::fflush(nullptr);
        const pid_t pid = ::fork();
        if (pid == 0) {
            in.path = in.paths[index];
            output = (*targets)[index];
            // bars of jobs side by side would draw over each other
            if (jobs > 1) Progress::silence();
            const int code = convert();
            std::fflush(nullptr);
            std::_Exit(code);
        }
        if (pid < 0) {
            reportError(in.paths[index], "no process could be started for it");
            codes[index] = kExitUsage;
            continue;
        }
        running.emplace(pid, index);
    }
    while (!running.empty() && reap()) {
    }
    const auto converted = std::count_if(codes.begin(), codes.end(), [](int code) { return code != kExitUsage; });
    reportNote(common.quiet, fmt::format("{}: {} of {} files converted", output, converted, codes.size()));
    return *std::max_element(codes.begin(), codes.end());
}

}  // namespace nvbtool
