// Runs a fuzz target once over every file of the directories (or files) named: what a fuzzer once
// found stays found, in builds that have no fuzzer.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

namespace fs = std::filesystem;

// Sorted, so that a failure shows after the same inputs on every machine.
std::vector<fs::path> InputsBelow(const fs::path& root) {
    std::vector<fs::path> inputs;
    if (fs::is_regular_file(root))
        inputs.push_back(root);
    if (fs::is_directory(root)) {
        for (const auto& entry : fs::recursive_directory_iterator(root)) {
            if (entry.is_regular_file())
                inputs.push_back(entry.path());
        }
    }
    std::sort(inputs.begin(), inputs.end());
    return inputs;
}

// Each input is announced before it runs: after a crash the last line names the culprit.
bool Replay(const fs::path& input) {
    std::printf("%s\n", input.string().c_str());
    std::fflush(stdout);
    std::ifstream file(input, std::ios::binary);
    const std::string bytes((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    if (file.bad() || !file.is_open())
        return false;
    // An exact copy on the heap: a read behind its end is one that the sanitizer sees.
    const std::vector<uint8_t> data(bytes.begin(), bytes.end());
    LLVMFuzzerTestOneInput(data.data(), data.size());
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    size_t replayed = 0;
    size_t unreadable = 0;
    for (int i = 1; i < argc; ++i) {
        for (const fs::path& input : InputsBelow(argv[i]))
            Replay(input) ? ++replayed : ++unreadable;
    }
    std::printf("%zu inputs replayed, %zu unreadable\n", replayed, unreadable);
    // A corpus that has gone missing is a failure, not a quick success.
    return replayed > 0 && unreadable == 0 ? 0 : 1;
}
