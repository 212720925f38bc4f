// VAV_Parse over random texts under every combination of its flags (the
// first byte), and VAV_BackSlash at every backslash of the text.
//
// A "\x" escape whose scan takes a minus sign yields a value outside a
// byte, which the library ends by assertion on purpose: texts with a sign
// after "\x" (and any blanks) are left out, since that end is the
// contract, not a fault.

#include <cctype>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "vav.h"

namespace {

bool signedHexEscape(const std::string &s) {
    for (size_t i = s.find("\\x"); i != std::string::npos; i = s.find("\\x", i + 1)) {
        size_t j = i + 2;
        while (j < s.size() && isspace(static_cast<unsigned char>(s[j])))
            j++;
        if (j < s.size() && s[j] == '-')
            return true;
    }
    return false;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size == 0)
        return 0;
    int flag = data[0] & (VAV_F_COMMENT | VAV_F_COMMA | VAV_F_RAW);
    std::string text(reinterpret_cast<const char *>(data + 1), size - 1);
    if (signedHexEscape(text))
        return 0;
    const char *s = text.c_str();

    int argc = -1;
    char **argv = VAV_Parse(s, &argc, flag);
    if (argv == nullptr)
        return 0;
    int n = 1;
    while (argv[n] != nullptr)
        n++;
    if (argv[0] == nullptr) {
        if (argc != n)
            abort();
    } else if (strcmp(argv[0], VAV_ERR_BACKSLASH) != 0 && strcmp(argv[0], VAV_ERR_QUOTE) != 0) {
        abort();
    }
    for (int i = 1; i < n; i++)
        if (strlen(argv[i]) > text.size())
            abort();
    VAV_FreeArgv(argv);

    for (const char *p = strchr(s, '\\'); p != nullptr; p = strchr(p + 1, '\\')) {
        char c = 1;
        int used = VAV_BackSlash(p, &c);
        if (used < 0 || used > 4 || (used == 0 && c != 0))
            abort();
    }
    return 0;
}
