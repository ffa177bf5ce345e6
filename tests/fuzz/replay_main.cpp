// Runs a fuzz target over the files of a saved corpus, so that CTest checks every input
// that once mattered without libFuzzer. Usage: <target> FILE_OR_DIRECTORY... The files of
// a directory go in name order, so that a target which keeps state between inputs (a
// reference, then its deltas) meets them as a stream.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace {

int replay(const std::filesystem::path& path) {
    std::ifstream file(path, std::ios::binary);
    const std::vector<char> bytes((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
    return 1;
}

}  // namespace

int main(int argc, char** argv) {
    int inputs = 0;
    for (int i = 1; i < argc; ++i) {
        const std::filesystem::path path(argv[i]);
        if (std::filesystem::is_directory(path)) {
            std::vector<std::filesystem::path> files;
            for (const auto& entry : std::filesystem::directory_iterator(path)) files.push_back(entry.path());
            std::sort(files.begin(), files.end());
            for (const auto& file : files) inputs += replay(file);
        } else {
            inputs += replay(path);
        }
    }
    std::printf("replayed %d inputs\n", inputs);
    return 0;
}
