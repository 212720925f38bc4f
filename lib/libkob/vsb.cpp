// Growable byte-string buffer.

#include "vsb.h"

#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "vas.h"

namespace {

constexpr int kMinExtendSize = 2048;
constexpr int kMaxExtendSize = 0x100000; // doubling stops here
constexpr int kMaxExtendIncr = 0x20000;  // ... and growth goes on in these steps

constexpr char kNullText[] = "s != ((void *)0)";

bool has(const vsb *s, int flag) {
    return (s->s_flags & flag) != 0;
}
bool canExtend(const vsb *s) {
    return has(s, VSB_AUTOEXTEND);
}
bool hasRoom(const vsb *s) {
    return s->s_len < s->s_size - 1;
}

// A byte is classed as a signed char would be: 0x80 and above are neither
// white space nor graphic, in any locale.  Only the bytes below reach
// <cctype>, for which a negative argument would be undefined.
bool isSpaceByte(char c) {
    auto u = static_cast<unsigned char>(c);
    return u < 0x80 && isspace(u) != 0;
}
bool isGraphByte(char c) {
    auto u = static_cast<unsigned char>(c);
    return u < 0x80 && isgraph(u) != 0;
}

// Sizes run 2048, 4096, ... 1 MiB, then grow by 128 KiB steps.  The result
// must fit a signed 32-bit size, which is what vsb_len can report; a larger
// wish yields -1.
long long extendSize(long long wanted) {
    long long size = kMinExtendSize;
    while (size < wanted && size < kMaxExtendSize)
        size *= 2;
    if (size < wanted)
        size += (wanted - size + kMaxExtendIncr - 1) / kMaxExtendIncr * kMaxExtendIncr;
    return size > INT_MAX ? -1 : size;
}

int extend(vsb *s, long long addlen) {
    if (!canExtend(s))
        return -1;
    long long size = extendSize(static_cast<long long>(s->s_size) + addlen);
    if (size <= static_cast<long long>(s->s_size))
        return -1;
    char *buf;
    if (has(s, VSB_DYNAMIC)) {
        // Our own storage may be moved in place: for large blocks the
        // allocator remaps pages instead of copying every byte again, which
        // keeps appends linear overall despite the fixed 128 KiB steps.
        buf = static_cast<char *>(realloc(s->s_buf, static_cast<size_t>(size)));
        if (buf == nullptr)
            return -1;
    } else {
        // Caller storage is never freed or resized; take a copy from now on.
        buf = static_cast<char *>(malloc(static_cast<size_t>(size)));
        if (buf == nullptr)
            return -1;
        memcpy(buf, s->s_buf, s->s_size);
        s->s_flags |= VSB_DYNAMIC;
    }
    s->s_buf = buf;
    s->s_size = static_cast<size_t>(size);
    return 0;
}

} // namespace

extern "C" {

static void _vsb_assert_integrity(const char *fun, const vsb *s) {
    (void)fun;
    VAS_CHECK(s != nullptr, kNullText);
    VAS_CHECK(s->s_magic == VSB_MAGIC, "s->s_magic == 0x4a82dd8a");
    VAS_CHECK(s->s_buf != nullptr, "s->s_buf != ((void *)0)");
    VAS_CHECK(s->s_len < s->s_size, "s->s_len < s->s_size");
}

static void _vsb_assert_state(const char *fun, const vsb *s, int state) {
    (void)fun;
    VAS_CHECK((s->s_flags & VSB_FINISHED) == state, "(s->s_flags & 0x00020000) == state");
}

static void assertOpen(const char *fun, const vsb *s) {
    _vsb_assert_integrity(fun, s);
    _vsb_assert_state(fun, s, 0);
}

vsb *vsb_new(vsb *s, char *buf, int length, int flags) {
    VAS_CHECK_LINE(length >= 0, "length >= 0", 163);
    VAS_CHECK((flags & ~VSB_USRFLAGMSK) == 0, "(flags & ~0x0000ffff) == 0");
    flags &= VSB_USRFLAGMSK;
    if (s == nullptr) {
        s = static_cast<vsb *>(malloc(sizeof *s));
        if (s == nullptr)
            return nullptr;
        flags |= VSB_DYNSTRUCT;
    }
    memset(s, 0, sizeof *s);
    s->s_flags = flags;
    s->s_magic = VSB_MAGIC;
    s->s_size = static_cast<size_t>(length);
    if (buf != nullptr) {
        s->s_buf = buf;
        return s;
    }
    if (canExtend(s)) {
        long long size = extendSize(length);
        if (size < 0)
            size = length; // beyond the growth range: take what was asked
        s->s_size = static_cast<size_t>(size);
    }
    s->s_buf = static_cast<char *>(malloc(s->s_size));
    if (s->s_buf == nullptr) {
        if (has(s, VSB_DYNSTRUCT))
            free(s);
        return nullptr;
    }
    s->s_flags |= VSB_DYNAMIC;
    return s;
}

void vsb_clear(vsb *s) {
    _vsb_assert_integrity(__func__, s);
    s->s_flags &= ~(VSB_FINISHED | VSB_OVERFLOWED);
    s->s_len = 0;
}

int vsb_setpos(vsb *s, int pos) {
    assertOpen(__func__, s);
    VAS_ASSERT(pos >= 0);
    VAS_CHECK(pos < static_cast<int>(s->s_size), "pos < (int)s->s_size");
    if (pos > static_cast<int>(s->s_len))
        return -1;
    s->s_len = static_cast<size_t>(pos);
    return 0;
}

int vsb_bcat(vsb *s, const void *buf, size_t len) {
    assertOpen(__func__, s);
    if (has(s, VSB_OVERFLOWED))
        return -1;
    const char *p = static_cast<const char *>(buf);
    while (len > 0) {
        if (!hasRoom(s) && extend(s, static_cast<long long>(len)) < 0)
            break;
        size_t n = s->s_size - 1 - s->s_len;
        if (n > len)
            n = len;
        memcpy(s->s_buf + s->s_len, p, n);
        s->s_len += n;
        p += n;
        len -= n;
    }
    if (len > 0) {
        s->s_flags |= VSB_OVERFLOWED;
        return -1;
    }
    return 0;
}

int vsb_bcpy(vsb *s, const void *buf, size_t len) {
    assertOpen(__func__, s);
    vsb_clear(s);
    return vsb_bcat(s, buf, len);
}

int vsb_cat(vsb *s, const char *str) {
    assertOpen(__func__, s);
    if (has(s, VSB_OVERFLOWED))
        return -1;
    return vsb_bcat(s, str, strlen(str));
}

int vsb_cpy(vsb *s, const char *str) {
    assertOpen(__func__, s);
    vsb_clear(s);
    return vsb_cat(s, str);
}

int vsb_vprintf(vsb *s, const char *fmt, va_list ap) {
    assertOpen(__func__, s);
    VAS_CHECK(fmt != nullptr, "fmt != ((void *)0)");
    if (has(s, VSB_OVERFLOWED))
        return -1;
    int len;
    int room;
    for (;;) {
        va_list ap_copy;
        va_copy(ap_copy, ap);
        len = vsnprintf(s->s_buf + s->s_len, s->s_size - s->s_len, fmt, ap_copy);
        va_end(ap_copy);
        room = static_cast<int>(s->s_size - s->s_len - 1);
        if (len <= room)
            break;
        if (extend(s, static_cast<long long>(len) - room) != 0)
            break;
    }
    // A negative result of vsnprintf is added as it is.
    s->s_len += static_cast<size_t>(static_cast<long long>(len < room ? len : room));
    if (!hasRoom(s) && !canExtend(s))
        s->s_flags |= VSB_OVERFLOWED;
    VAS_CHECK(s->s_len < s->s_size, "s->s_len < s->s_size");
    return has(s, VSB_OVERFLOWED) ? -1 : 0;
}

int vsb_printf(vsb *s, const char *fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    int r = vsb_vprintf(s, fmt, ap);
    va_end(ap);
    return r;
}

int vsb_putc(vsb *s, int c) {
    assertOpen(__func__, s);
    if (has(s, VSB_OVERFLOWED))
        return -1;
    if (!hasRoom(s) && extend(s, 1) < 0) {
        s->s_flags |= VSB_OVERFLOWED;
        return -1;
    }
    if (c != 0)
        s->s_buf[s->s_len++] = static_cast<char>(c);
    return 0;
}

int vsb_trim(vsb *s) {
    assertOpen(__func__, s);
    if (has(s, VSB_OVERFLOWED))
        return -1;
    while (s->s_len > 0 && isSpaceByte(s->s_buf[s->s_len - 1]))
        --s->s_len;
    return 0;
}

int vsb_overflowed(const vsb *s) {
    return s->s_flags & VSB_OVERFLOWED;
}

void vsb_finish(vsb *s) {
    assertOpen(__func__, s);
    s->s_buf[s->s_len] = '\0';
    s->s_flags &= ~VSB_OVERFLOWED;
    s->s_flags |= VSB_FINISHED;
}

char *vsb_data(const vsb *s) {
    _vsb_assert_integrity(__func__, s);
    _vsb_assert_state(__func__, s, VSB_FINISHED);
    return s->s_buf;
}

int vsb_len(const vsb *s) {
    _vsb_assert_integrity(__func__, s);
    if (has(s, VSB_OVERFLOWED))
        return -1;
    return static_cast<int>(s->s_len);
}

int vsb_done(const vsb *s) {
    return s->s_flags & VSB_FINISHED;
}

void vsb_delete(vsb *s) {
    _vsb_assert_integrity(__func__, s);
    if (has(s, VSB_DYNAMIC))
        free(s->s_buf);
    bool dynstruct = has(s, VSB_DYNSTRUCT);
    memset(s, 0, sizeof *s);
    if (dynstruct)
        free(s);
}

void vsb_quote(vsb *s, const char *p, int len, int how) {
    (void)how;
    if (len == -1)
        len = static_cast<int>(strlen(p));
    bool quote = false;
    for (int i = 0; i < len; i++) {
        if (!isGraphByte(p[i]) || p[i] == '"') {
            quote = true;
            break;
        }
    }
    if (!quote) {
        (void)vsb_bcat(s, p, static_cast<size_t>(len));
        return;
    }
    (void)vsb_putc(s, '"');
    for (int i = 0; i < len; i++) {
        signed char c = static_cast<signed char>(p[i]);
        switch (c) {
        case '\t':
            (void)vsb_cat(s, "\\t");
            break;
        case '\n':
            (void)vsb_cat(s, "\\n");
            break;
        case '\r':
            (void)vsb_cat(s, "\\r");
            break;
        case ' ':
            (void)vsb_putc(s, ' ');
            break;
        case '"':
        case '\\':
            (void)vsb_putc(s, '\\');
            (void)vsb_putc(s, c);
            break;
        default:
            if (isGraphByte(p[i]))
                (void)vsb_putc(s, c);
            else
                (void)vsb_printf(s, "\\%o", static_cast<unsigned char>(c));
            break;
        }
    }
    (void)vsb_putc(s, '"');
}

const char *vsb_unquote(vsb *s, const char *p, int len, int how) {
    (void)how;
    if (len == -1)
        len = static_cast<int>(strlen(p));
    const char *end = p + len;
    for (; p < end; p++) {
        if (*p != '\\') {
            (void)vsb_bcat(s, p, 1);
            continue;
        }
        if (++p >= end)
            return "Incomplete '\\'-sequence at end of string";
        switch (*p) {
        case '0':
        case '1':
        case '2':
        case '3':
        case '4':
        case '5':
        case '6':
        case '7': {
            // All following octal digits count, not just three.
            char *q;
            errno = 0;
            unsigned long u = strtoul(p, &q, 8);
            if (errno != 0 || u > 255)
                return "\\ooo sequence out of range";
            char c = static_cast<char>(u);
            (void)vsb_bcat(s, &c, 1);
            p = q - 1;
            break;
        }
        case 'n':
            (void)vsb_putc(s, '\n');
            break;
        case 'r':
            (void)vsb_putc(s, '\r');
            break;
        case 't':
            (void)vsb_putc(s, '\t');
            break;
        default:
            (void)vsb_bcat(s, p, 1);
            break;
        }
    }
    return nullptr;
}

} // extern "C"
