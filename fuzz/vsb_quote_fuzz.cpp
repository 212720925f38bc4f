// vsb_quote followed by vsb_unquote.  Unquoting gives back the quoted
// bytes, inside their double quotes, except where a byte written as an
// unpadded octal escape is followed by an octal digit: that pair reads back
// as one number, by design.  A text that needed no quoting comes back as it
// is when it holds no backslash.

#include <cctype>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "vsb.h"

namespace {

// The buffer's rule: bytes of 0x80 and above are never graphic.
bool graphic(char ch) {
    auto u = static_cast<unsigned char>(ch);
    return u < 0x80 && isgraph(u) != 0;
}

bool needsQuoting(const std::string &s) {
    for (char ch : s) {
        if (!graphic(ch) || ch == '"')
            return true;
    }
    return false;
}

bool octalAfterEscape(const std::string &s) {
    for (size_t i = 0; i + 1 < s.size(); i++) {
        char c = s[i];
        bool escaped = !graphic(c) && c != ' ' && c != '\t' && c != '\n' && c != '\r';
        if (escaped && s[i + 1] >= '0' && s[i + 1] <= '7')
            return true;
    }
    return false;
}

std::string unquote(const char *p, int len, const char **err) {
    struct vsb *u = vsb_newauto();
    if (u == nullptr)
        abort();
    *err = vsb_unquote(u, p, len, 0);
    vsb_finish(u);
    std::string out(vsb_data(u), static_cast<size_t>(vsb_len(u)));
    vsb_delete(u);
    return out;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size > 1 << 16)
        return 0;
    std::string in(reinterpret_cast<const char *>(data), size);

    struct vsb *q = vsb_newauto();
    if (q == nullptr)
        abort();
    vsb_quote(q, in.data(), static_cast<int>(in.size()), 0);
    vsb_finish(q);
    std::string quoted(vsb_data(q), static_cast<size_t>(vsb_len(q)));
    vsb_delete(q);

    const char *err = nullptr;
    std::string back = unquote(quoted.c_str(), static_cast<int>(quoted.size()), &err);
    if (needsQuoting(in)) {
        if (!octalAfterEscape(in) && (err != nullptr || back != "\"" + in + "\""))
            abort();
    } else if (quoted != in || (in.find('\\') == std::string::npos && back != in)) {
        abort();
    }

    // Unquoting any text, by its length and up to its zero byte: the octal
    // digits may run past the length, so the text always ends in a zero byte.
    (void)unquote(in.c_str(), static_cast<int>(in.size()), &err);
    (void)unquote(in.c_str(), -1, &err);

    // By its length alone, from storage that ends one byte after it: that
    // byte stops the octal digits and is not a zero byte, so any other read
    // past the length runs off the allocation.
    std::unique_ptr<char[]> bounded(new char[size + 1]);
    if (size > 0)
        memcpy(bounded.get(), data, size);
    bounded[size] = 'x';
    (void)unquote(bounded.get(), static_cast<int>(size), &err);
    return 0;
}
