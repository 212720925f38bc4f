// kobdiag's option scanner over random argument vectors.  The input is the
// words of the vector separated by zero bytes; its first byte picks the
// option string and whether diagnostics are printed.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "kobdiag_getopt.h"

namespace {

// kobdiag's own string, then the forms the scanner treats specially: a
// leading ':' (missing arguments reported as ':'), '-' as an option letter,
// and ':' itself among the letters.
const char *const optstrings[] = {"m:ou:", ":m:ou:", "m:ou:-", "-:a:", "a:b", ""};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size == 0)
        return 0;
    const char *optstring = optstrings[data[0] % std::size(optstrings)];
    kobdiag::opterr = (data[0] & 0x80) != 0;

    // Every word is its own allocation, so reading past one is caught.
    std::vector<std::string> words{"kobdiag"};
    std::string cur;
    for (size_t i = 1; i < size; i++) {
        if (data[i] == 0) {
            words.push_back(cur);
            cur.clear();
        } else {
            cur += static_cast<char>(data[i]);
        }
    }
    words.push_back(cur);
    std::vector<char *> argv;
    for (const auto &w : words)
        argv.push_back(strdup(w.c_str()));
    argv.push_back(nullptr);
    int argc = static_cast<int>(words.size());

    kobdiag::optind = 1;
    kobdiag::optreset = 1;
    // Each call consumes at least one letter or ends the scan, so the total
    // of the vector's letters bounds the calls.
    size_t calls = 0;
    const size_t limit = size + 2;
    int ch;
    while ((ch = kobdiag::getopt(argc, argv.data(), optstring)) != -1) {
        if (kobdiag::optind > argc || ++calls > limit)
            abort();
        if (ch != '?' && ch != ':') {
            const char *letter = strchr(optstring, ch);
            if (letter == nullptr || ch == ':')
                abort();
            if (letter[1] == ':' && kobdiag::optarg == nullptr)
                abort();
        }
    }
    if (kobdiag::optind > argc)
        abort();

    for (char *a : argv)
        free(a);
    return 0;
}
