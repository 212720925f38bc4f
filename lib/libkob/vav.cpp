// Argument vectors from command-like text, and backslash escapes.

#include "vav.h"

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "vas.h"

namespace {

constexpr int kInitialRoom = 16;

char errBackslash[] = VAV_ERR_BACKSLASH;
char errQuote[] = VAV_ERR_QUOTE;

bool isSpace(char c) {
    return isspace(static_cast<unsigned char>(c)) != 0;
}

// Step n characters on, but never over the terminator: a one-digit \x at the
// very end of the text claims one character more than the text has left.
const char *advance(const char *s, int n) {
    for (; n > 0 && *s != '\0'; n--)
        s++;
    return s;
}

} // namespace

extern "C" {

int VAV_BackSlash(const char *s, char *res) {
    VAS_ASSERT(*s == '\\');
    int r = 0;
    unsigned char c = 0;
    switch (s[1]) {
    case '"':
        c = '"';
        r = 2;
        break;
    case '\\':
        c = '\\';
        r = 2;
        break;
    case 'n':
        c = '\n';
        r = 2;
        break;
    case 'r':
        c = '\r';
        r = 2;
        break;
    case 't':
        c = '\t';
        r = 2;
        break;
    case '0':
    case '1':
    case '2':
    case '3':
    case '4':
    case '5':
    case '6':
    case '7':
        // Up to three octal digits; the byte keeps the low eight bits.
        for (r = 1; r < 4 && s[r] >= '0' && s[r] <= '7'; r++)
            c = static_cast<unsigned char>(c * 8 + (s[r] - '0'));
        break;
    case 'x': {
        // The scan reads at most two characters after any white space.  It
        // gets just those, so that it does not measure the rest of the text
        // first, which made a parse quadratic in its length.
        char window[5] = {'x'};
        int n = 1;
        const char *q = s + 2;
        if (isSpace(*q)) {
            window[n++] = ' ';
            while (isSpace(*q))
                q++;
        }
        for (int k = 0; k < 2 && q[k] != '\0'; k++)
            window[n++] = q[k];
        window[n] = '\0';
        unsigned u;
        // The scan's own rules (blanks, sign, "0x") decide what an escape is.
        if (sscanf(window, "x%02x", &u) == 1) { // NOLINT(cert-err34-c)
            // The scan also takes a sign, which is how a value escapes a byte.
            VAS_ASSERT(!(u & ~0xff));
            c = static_cast<unsigned char>(u);
            r = 4;
        }
        break;
    }
    default:
        break;
    }
    if (res != nullptr)
        *res = static_cast<char>(c);
    return r;
}

char *VAV_BackSlashDecode(const char *s, const char *e) {
    if (e == nullptr)
        e = strchr(s, '\0');
    VAS_CHECK(e != nullptr, "e != NULL");
    auto p = static_cast<char *>(calloc(static_cast<size_t>(e - s) + 1, 1));
    if (p == nullptr)
        return nullptr;
    char *r = p;
    for (const char *q = s; q < e;) {
        if (*q != '\\') {
            *r++ = *q++;
            continue;
        }
        int i = VAV_BackSlash(q, r);
        if (i == 0)
            break; // no progress is possible past an invalid escape
        r++;
        q = advance(q, i);
    }
    *r = '\0';
    return p;
}

char **VAV_Parse(const char *s, int *argc, int flag) {
    VAS_CHECK(s != nullptr, "s != NULL");
    int room = kInitialRoom;
    auto argv = static_cast<char **>(calloc(static_cast<size_t>(room), sizeof(char *)));
    if (argv == nullptr)
        return nullptr;
    int nargv = 1;
    const bool raw = (flag & VAV_F_RAW) != 0;
    while (*s != '\0') {
        if (isSpace(*s)) {
            s++;
            continue;
        }
        if ((flag & VAV_F_COMMENT) && *s == '#')
            break;
        const bool quoted = *s == '"' && !raw;
        if (quoted)
            s++;
        const char *p = s;
        for (;;) {
            if (*s == '\\' && !raw) {
                int i = VAV_BackSlash(s, nullptr);
                if (i == 0) {
                    argv[0] = errBackslash;
                    return argv;
                }
                // Skipped whole, so an escaped quote does not end the argument.
                s = advance(s, i);
                continue;
            }
            if (quoted) {
                if (*s == '"')
                    break;
                if (*s == '\0') {
                    argv[0] = errQuote;
                    return argv;
                }
            } else if (*s == '\0' || isSpace(*s) || ((flag & VAV_F_COMMA) && *s == ',')) {
                break;
            }
            s++;
        }
        if (nargv + 1 >= room) {
            room *= 2;
            argv = static_cast<char **>(realloc(argv, static_cast<size_t>(room) * sizeof(char *)));
            VAS_CHECK(argv != nullptr, "argv != NULL");
            // A syntax error returns the vector as it stands: keep it terminated.
            memset(argv + room / 2, 0, static_cast<size_t>(room / 2) * sizeof(char *));
        }
        if (raw) {
            size_t len = static_cast<size_t>(s - p);
            argv[nargv] = static_cast<char *>(malloc(len + 1));
            VAS_CHECK(argv[nargv] != nullptr, "argv[nargv] != NULL");
            memcpy(argv[nargv], p, len);
            argv[nargv][len] = '\0';
        } else {
            argv[nargv] = VAV_BackSlashDecode(p, s);
        }
        nargv++;
        if (*s != '\0')
            s++;
    }
    argv[nargv] = nullptr;
    if (argc != nullptr)
        *argc = nargv;
    return argv;
}

void VAV_FreeArgv(char **argv) {
    for (int i = 1; argv[i] != nullptr; i++)
        free(argv[i]);
    free(argv);
}

} // extern "C"
