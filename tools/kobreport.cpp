// kobreport: triage of one kobdiag report file for support staff.

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

#include "kobtriage.h"

namespace {

int usage() {
    std::fprintf(stderr, "usage: kobreport [--json] FILE\n");
    return 1;
}

} // namespace

int main(int argc, char *argv[]) {
    bool json = false;
    const char *path = nullptr;
    for (int i = 1; i < argc; i++) {
        if (std::strcmp(argv[i], "--json") == 0 && !json)
            json = true;
        else if ((argv[i][0] == '-' && argv[i][1] != '\0') || path)
            return usage(); // an unknown option, or a second file
        else
            path = argv[i];
    }
    if (!path)
        return usage();

    std::FILE *fp = std::fopen(path, "rb");
    if (!fp) {
        std::fprintf(stderr, "kobreport: %s: %s\n", path, std::strerror(errno));
        return 1;
    }
    std::string text;
    char buf[65536];
    size_t n;
    while ((n = std::fread(buf, 1, sizeof buf, fp)) > 0)
        text.append(buf, n);
    bool failed = std::ferror(fp) != 0;
    int readErr = errno;
    std::fclose(fp);
    if (failed) {
        std::fprintf(stderr, "kobreport: %s: %s\n", path, std::strerror(readErr));
        return 1;
    }

    auto report = kobtriage::parse(text);
    if (json) {
        std::printf("%s\n", kobtriage::toJson(report).c_str());
        return 0;
    }
    std::printf("%s", kobtriage::verdictTable(report).c_str());
    return 0;
}
