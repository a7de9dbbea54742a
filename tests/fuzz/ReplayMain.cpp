// Runs a fuzz target once on every file of the folders given: its corpus as a normal test.

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace {

std::vector<std::uint8_t> contents(const std::filesystem::path& path) {
    std::ifstream file(path, std::ios::binary);
    file.exceptions(std::ios::badbit | std::ios::failbit);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

// The number of files run. Each is named before its run, so that a crash tells its input.
int replay(const std::filesystem::path& folder) {
    int count = 0;
    for (const auto& entry : std::filesystem::directory_iterator(folder)) {
        if (!entry.is_regular_file()) {
            continue;
        }
        std::fprintf(stderr, "%s\n", entry.path().c_str());
        const std::vector<std::uint8_t> input = contents(entry.path());
        LLVMFuzzerTestOneInput(input.data(), input.size());
        ++count;
    }
    return count;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        std::fprintf(stderr, "usage: %s CORPUS-FOLDER...\n", argv[0]);
        return 2;
    }
    for (int index = 1; index < argc; ++index) {
        if (replay(argv[index]) == 0) {
            std::fprintf(stderr, "%s: the corpus is empty\n", argv[index]);
            return 1;
        }
    }
    return 0;
}
