/// Gives a fuzz harness each file of the folders named, one after the other: what a fuzzer does
/// with its corpus, in a build without one. A harness aborts when it finds something.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace {

/// Returns false where there is no file, as then nothing has been tried.
bool ReplayFolder(const char* folder) {
    std::vector<std::filesystem::path> files(std::filesystem::directory_iterator(folder), {});
    std::sort(files.begin(), files.end());
    for (const std::filesystem::path& file : files) {
        std::printf("%s\n", file.c_str());
        std::fflush(stdout); // it is the last line when the harness aborts
        std::ifstream in;
        in.exceptions(std::ios::failbit | std::ios::badbit);
        in.open(file, std::ios::binary);
        const std::string text(std::istreambuf_iterator<char>(in), {});
        LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(text.data()), text.size());
    }
    return !files.empty();
}

} // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        std::fprintf(stderr, "usage: %s FOLDER...\n", argv[0]);
        return 2;
    }
    for (int i = 1; i < argc; ++i) {
        if (!ReplayFolder(argv[i])) {
            std::fprintf(stderr, "no file in %s\n", argv[i]);
            return 1;
        }
    }
    return 0;
}
