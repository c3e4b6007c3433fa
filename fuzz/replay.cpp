/// Runs one fuzz target over files without a fuzzer: replay_TARGET FILE-OR-FOLDER... Links with any
/// compiler, so that the corpus and past findings are tests of every build.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace {

namespace fs = std::filesystem;

int replayed = 0;

void replay(const fs::path& file) {
    std::ifstream stream(file, std::ios::binary);
    const std::vector<char> bytes{std::istreambuf_iterator<char>(stream), {}};
    // Named first: a crash leaves its input as the last line.
    std::printf("%s\n", file.c_str());
    std::fflush(stdout);
    LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
    ++replayed;
}

} // namespace

int main(int count, char** arguments) {
    for (int i = 1; i < count; ++i) {
        if (fs::is_directory(arguments[i])) {
            for (const auto& entry : fs::directory_iterator(arguments[i])) {
                replay(entry.path());
            }
        } else {
            replay(arguments[i]);
        }
    }
    std::printf("%d inputs replayed\n", replayed);
    return replayed > 0 ? 0 : 1;
}
