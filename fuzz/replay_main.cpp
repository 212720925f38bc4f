// Replays a fuzz target's corpus without libFuzzer: every file named, or
// every file in a directory named, goes once through the target, in name
// order.  Built into the ordinary test trees, so an input that once crashed
// a target fails every test run from then on.  Paths are made absolute
// first, since the segment targets change their directory.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

int main(int argc, char **argv) {
    namespace fs = std::filesystem;
    std::vector<fs::path> inputs;
    for (int i = 1; i < argc; i++) {
        fs::path p = fs::absolute(argv[i]);
        if (fs::is_directory(p)) {
            std::vector<fs::path> files;
            for (const auto &e : fs::directory_iterator(p))
                if (e.is_regular_file())
                    files.push_back(e.path());
            std::sort(files.begin(), files.end());
            inputs.insert(inputs.end(), files.begin(), files.end());
        } else {
            inputs.push_back(p);
        }
    }
    if (inputs.empty()) {
        fprintf(stderr, "replay: no inputs\n");
        return 2;
    }
    for (const fs::path &p : inputs) {
        std::ifstream in(p, std::ios::binary);
        if (!in) {
            fprintf(stderr, "replay: cannot read %s\n", p.c_str());
            return 2;
        }
        std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        // A copy of exactly the input's size, so that a read past its end is
        // one past an allocation, as under libFuzzer.
        std::vector<uint8_t> data(bytes.begin(), bytes.end());
        fprintf(stderr, "replay: %s\n", p.c_str());
        (void)LLVMFuzzerTestOneInput(data.data(), data.size());
    }
    printf("replayed %zu inputs\n", inputs.size());
    return 0;
}
