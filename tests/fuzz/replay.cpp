/*
 * Gives every file of the kept corpus to a fuzz target, in the order of their names: what a fuzzer once found is tried
 * by every run of the tests, with any compiler. Usage: <program> DIRECTORY. An empty directory is a failure.
 */
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

int main(int argc, char **argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s DIRECTORY\n", argv[0]);
        return 2;
    }
    std::error_code error;
    std::vector<std::filesystem::path> files;
    for (const auto &entry : std::filesystem::directory_iterator(argv[1], error))
        if (entry.is_regular_file())
            files.push_back(entry.path());
    std::sort(files.begin(), files.end());
    for (const auto &file : files) {
        std::ifstream in(file, std::ios::binary);
        const std::vector<char> content{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
        if (!in.is_open() || in.bad()) {
            std::fprintf(stderr, "%s: could not be read\n", file.c_str());
            return 1;
        }
        std::printf("%s\n", file.filename().c_str());
        std::fflush(stdout); // the last line names the file that crashed
        const std::vector<uint8_t> input(content.begin(), content.end());
        LLVMFuzzerTestOneInput(input.data(), input.size());
    }
    std::printf("%zu files\n", files.size());
    return files.empty() ? 1 : 0;
}
