// Gives files, and all files of folders, to a fuzzer's entry, one after the other: the main() of
// the fuzzers in a build without libFuzzer.

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace {

std::vector<std::filesystem::path> inputs(const char* path)
{
    std::vector<std::filesystem::path> files;
    if (!std::filesystem::is_directory(path)) {
        return {path};
    }
    for (const auto& entry : std::filesystem::directory_iterator(path)) {
        files.push_back(entry.path());
    }
    std::sort(files.begin(), files.end());
    return files;
}

void replay(const std::filesystem::path& file)
{
    std::ifstream stream(file, std::ios::binary);
    if (!stream) {
        throw std::filesystem::filesystem_error("cannot read", file, std::error_code());
    }
    // A copy of exactly this size, so that a sanitizer sees what reads beyond its end.
    const std::vector<std::uint8_t> bytes{std::istreambuf_iterator<char>(stream),
                                          std::istreambuf_iterator<char>()};
    LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
}

}  // namespace

int main(int argc, char** argv)
try {
    std::size_t count = 0;
    for (int i = 1; i < argc; ++i) {
        for (const std::filesystem::path& file : inputs(argv[i])) {
            std::fprintf(stderr, "%s\n", file.c_str());
            replay(file);
            ++count;
        }
    }
    std::fprintf(stderr, "%zu inputs\n", count);
    return count > 0 ? 0 : 1;
} catch (const std::exception& error) {
    std::fprintf(stderr, "%s\n", error.what());
    return 1;
}
