// Replays fuzz inputs without libFuzzer: runs LLVMFuzzerTestOneInput once
// over every file named on the command line and every file of every
// directory named there (not recursively, in name order). A crash or a
// sanitizer report ends the process; a missing or empty corpus directory is
// an error, so that a misnamed corpus does not pass silently.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <system_error>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);
extern "C" __attribute__((weak)) int LLVMFuzzerInitialize(int* argc, char*** argv);

namespace {

bool RunFile(const std::filesystem::path& path)
{
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        fprintf(stderr, "replay: cannot read %s\n", path.c_str());
        return false;
    }
    std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    // A copy of exactly the input's size, so that reads past its end are
    // caught by AddressSanitizer as they are under libFuzzer.
    std::vector<uint8_t> exact(bytes);
    LLVMFuzzerTestOneInput(exact.empty() ? nullptr : exact.data(), exact.size());
    return true;
}

}  // namespace

int main(int argc, char** argv)
{
    if (LLVMFuzzerInitialize != nullptr) {
        LLVMFuzzerInitialize(&argc, &argv);
    }
    if (argc < 2) {
        fprintf(stderr, "usage: %s <corpus directory or file>...\n", argv[0]);
        return 2;
    }
    size_t total = 0;
    for (int i = 1; i < argc; i++) {
        std::filesystem::path path(argv[i]);
        std::error_code error;
        if (std::filesystem::is_directory(path, error)) {
            std::vector<std::filesystem::path> files;
            for (const auto& entry : std::filesystem::directory_iterator(path, error)) {
                if (entry.is_regular_file(error)) {
                    files.push_back(entry.path());
                }
            }
            if (error || files.empty()) {
                fprintf(stderr, "replay: no inputs in %s\n", path.c_str());
                return 1;
            }
            std::sort(files.begin(), files.end());
            for (const auto& file : files) {
                if (!RunFile(file)) {
                    return 1;
                }
                total++;
            }
        } else if (std::filesystem::is_regular_file(path, error)) {
            if (!RunFile(path)) {
                return 1;
            }
            total++;
        } else {
            fprintf(stderr, "replay: %s not found\n", path.c_str());
            return 1;
        }
    }
    printf("replay: %zu inputs executed\n", total);
    return 0;
}
