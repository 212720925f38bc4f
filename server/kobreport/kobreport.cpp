// kobreport: triage of one kobdiag report file for support staff.

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

#include <sys/stat.h>

#include "kobrules.h"
#include "kobtriage.h"
#include "odr.h"
#include "vsb.h"

namespace {

int usage() {
    std::fprintf(stderr, "usage: kobreport [--json] [--evidence] FILE\n"
                         "       kobreport --rules\n");
    return 1;
}

} // namespace

// The rule table, for a support engineer who asks what a verdict means and
// what to tell the user.
int printRules() {
    std::printf("rules version %d\n", kobtriage::rulesVersion());
    for (const auto &r : kobtriage::rules())
        std::printf("\n%.*s (version %d, %s, %.*s)\n  reads %.*s\n  %.*s\n  tell the user: %.*s\n",
                    static_cast<int>(r.id.size()), r.id.data(), r.version,
                    kobtriage::levelName(r.level), static_cast<int>(r.area.size()), r.area.data(),
                    static_cast<int>(r.reads.size()), r.reads.data(),
                    static_cast<int>(r.meaning.size()), r.meaning.data(),
                    static_cast<int>(r.advice.size()), r.advice.data());
    return 0;
}

int main(int argc, char *argv[]) {
    if (argc == 2 && std::strcmp(argv[1], "--rules") == 0)
        return printRules();
    bool json = false, evidence = false;
    const char *path = nullptr;
    for (int i = 1; i < argc; i++) {
        if (std::strcmp(argv[i], "--json") == 0 && !json)
            json = true;
        else if (std::strcmp(argv[i], "--evidence") == 0 && !evidence)
            evidence = true;
        else if ((argv[i][0] == '-' && argv[i][1] != '\0') || path)
            return usage(); // an unknown option, or a second file
        else
            path = argv[i];
    }
    if (!path)
        return usage();

    // The library's reader ends quietly at a read error; the one a user
    // meets, a directory given by mistake, is caught first.
    struct stat st;
    if (stat(path, &st) == 0 && S_ISDIR(st.st_mode)) {
        std::fprintf(stderr, "kobreport: %s: %s\n", path, std::strerror(EISDIR));
        return 1;
    }
    struct vsb *file = ODR_readFile(path, -1);
    if (file == nullptr) {
        std::fprintf(stderr, "kobreport: %s: %s\n", path, std::strerror(errno));
        return 1;
    }
    // The triage reads the file's buffer where it lies: a report of
    // hundreds of megabytes is held once.
    auto report =
        kobtriage::parse(std::string_view(vsb_data(file), static_cast<size_t>(vsb_len(file))));
    vsb_delete(file);
    if (json) {
        std::printf("%s\n", kobtriage::toJson(report).c_str());
        return 0;
    }
    // The JSON carries the evidence always; the table on request.
    std::printf("%s", kobtriage::verdictTable(report, evidence).c_str());
    return 0;
}
