#include "vsb.h"

#include <cerrno>
#include <clocale>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <string>

#include <gtest/gtest.h>

#include "kobtest.h"

using kobtest::runChild;
using kobtest::vasAbort;

namespace {

const char kVsb[] = "lib/libkob/vsb.cpp";

std::string text(vsb *s) {
    return std::string(s->s_buf, s->s_len);
}

TEST(Vsb, NewautoStartsAt2048AndGrowsOnThe2048thByte) {
    vsb *s = vsb_newauto();
    ASSERT_NE(s, nullptr);
    EXPECT_EQ(s->s_size, 2048u);
    EXPECT_EQ(s->s_flags, VSB_AUTOEXTEND | VSB_DYNAMIC | VSB_DYNSTRUCT);
    std::string a(2047, 'a');
    EXPECT_EQ(vsb_bcat(s, a.data(), a.size()), 0);
    EXPECT_EQ(s->s_size, 2048u);
    EXPECT_EQ(vsb_putc(s, 'b'), 0);
    EXPECT_EQ(s->s_size, 4096u);
    EXPECT_EQ(s->s_len, 2048u);
    vsb_delete(s);
}

TEST(Vsb, GrowthDoublesTo1MiBThenSteps128KiB) {
    struct Case {
        int wanted;
        size_t size;
    } cases[] = {{0, 2048},          {2048, 2048},       {2049, 4096},      {1048576, 1048576},
                 {1048577, 1179648}, {1179648, 1179648}, {1179649, 1310720}};
    for (const Case &c : cases) {
        SCOPED_TRACE(c.wanted);
        vsb *s = vsb_new(nullptr, nullptr, c.wanted, VSB_AUTOEXTEND);
        ASSERT_NE(s, nullptr);
        EXPECT_EQ(s->s_size, c.size);
        vsb_delete(s);
    }
}

TEST(Vsb, AppendGrowthFollowsTheSizeRule) {
    vsb *s = vsb_newauto();
    std::string chunk(1048576, 'x');
    ASSERT_EQ(vsb_bcat(s, chunk.data(), chunk.size()), 0);
    // 1 MiB of text needs 1 MiB + 1 bytes: one 128 KiB step past 1 MiB.
    EXPECT_EQ(s->s_size, 1179648u);
    ASSERT_EQ(vsb_bcat(s, chunk.data(), 131072), 0);
    EXPECT_EQ(s->s_size, 1310720u);
    vsb_finish(s);
    EXPECT_EQ(vsb_len(s), 1048576 + 131072);
    vsb_delete(s);
}

TEST(Vsb, PrintfFillingFixedBufferMarksOverflow) {
    char buf[8];
    vsb v;
    vsb *s = vsb_new(&v, buf, sizeof buf, VSB_FIXEDLEN);
    ASSERT_EQ(s, &v);
    EXPECT_EQ(vsb_printf(s, "%s", "abcdefg"), -1);
    EXPECT_EQ(text(s), "abcdefg");
    EXPECT_NE(vsb_overflowed(s), 0);
    vsb_delete(s);
}

TEST(Vsb, BcatFillingFixedBufferSucceeds) {
    char buf[8];
    vsb v;
    vsb *s = vsb_new(&v, buf, sizeof buf, VSB_FIXEDLEN);
    EXPECT_EQ(vsb_bcat(s, "abcdefg", 7), 0);
    EXPECT_EQ(vsb_overflowed(s), 0);
    EXPECT_EQ(vsb_len(s), 7);
    vsb_delete(s);
}

TEST(Vsb, CatOverflowingFixedBufferKeepsWhatFits) {
    char buf[8];
    vsb v;
    vsb *s = vsb_new(&v, buf, sizeof buf, VSB_FIXEDLEN);
    EXPECT_EQ(vsb_cat(s, "0123456789"), -1);
    EXPECT_EQ(vsb_len(s), -1);
    EXPECT_NE(vsb_overflowed(s), 0);
    EXPECT_EQ(vsb_cat(s, "x"), -1); // all further writes fail
    vsb_finish(s);
    EXPECT_EQ(vsb_len(s), 7);
    EXPECT_EQ(vsb_overflowed(s), 0);
    EXPECT_STREQ(vsb_data(s), "0123456");
    vsb_delete(s);
}

TEST(Vsb, PutcOfZeroIsAcceptedAndNotStored) {
    vsb *s = vsb_newauto();
    EXPECT_EQ(vsb_putc(s, 'a'), 0);
    EXPECT_EQ(vsb_putc(s, 0), 0);
    EXPECT_EQ(vsb_len(s), 1);
    // The whole int is tested: 256 is not zero, its low byte is stored.
    EXPECT_EQ(vsb_putc(s, 256 + 'b'), 0);
    vsb_finish(s);
    EXPECT_STREQ(vsb_data(s), "ab");
    vsb_delete(s);
}

TEST(Vsb, DataBeforeFinishAborts) {
    auto r = runChild([] {
        vsb *s = vsb_newauto();
        (void)vsb_data(s);
    });
    EXPECT_TRUE(vasAbort(r, "_vsb_assert_state", kVsb, "(s->s_flags & 0x00020000) == state"));
}

TEST(Vsb, CatAfterFinishAborts) {
    auto r = runChild([] {
        vsb *s = vsb_newauto();
        vsb_finish(s);
        (void)vsb_cat(s, "x");
    });
    EXPECT_TRUE(vasAbort(r, "_vsb_assert_state", kVsb, "(s->s_flags & 0x00020000) == state"));
}

TEST(Vsb, ClearAfterFinishReopens) {
    vsb *s = vsb_newauto();
    vsb_cat(s, "abc");
    vsb_finish(s);
    vsb_clear(s);
    EXPECT_EQ(vsb_done(s), 0);
    EXPECT_EQ(vsb_cat(s, "de"), 0);
    vsb_finish(s);
    EXPECT_STREQ(vsb_data(s), "de");
    vsb_delete(s);
}

TEST(Vsb, NegativeLengthAbortsAtLine163) {
    auto r = runChild([] { (void)vsb_new(nullptr, nullptr, -1, VSB_AUTOEXTEND); });
    EXPECT_TRUE(vasAbort(r, "vsb_new", kVsb, "length >= 0", 163));
    EXPECT_EQ(r.out, "assert fail! vsb_new lib/libkob/vsb.cpp:163 length >= 0 0\n");
}

TEST(Vsb, FlagsAboveUserMaskAbort) {
    auto r = runChild([] { (void)vsb_new(nullptr, nullptr, 0, VSB_DYNAMIC); });
    EXPECT_TRUE(vasAbort(r, "vsb_new", kVsb, "(flags & ~0x0000ffff) == 0"));
}

TEST(Vsb, IntegrityChecksInOrder) {
    auto nul = runChild([] { vsb_clear(nullptr); });
    EXPECT_TRUE(vasAbort(nul, "_vsb_assert_integrity", kVsb, "s != ((void *)0)"));

    auto dead = runChild([] {
        vsb v;
        vsb *s = vsb_new(&v, nullptr, 16, VSB_FIXEDLEN);
        vsb_delete(s); // zero-fills the caller's record
        vsb_clear(s);
    });
    EXPECT_TRUE(vasAbort(dead, "_vsb_assert_integrity", kVsb, "s->s_magic == 0x4a82dd8a"));

    auto nobuf = runChild([] {
        vsb v;
        vsb_new(&v, nullptr, 16, VSB_FIXEDLEN);
        free(v.s_buf);
        v.s_buf = nullptr;
        vsb_clear(&v);
    });
    EXPECT_TRUE(vasAbort(nobuf, "_vsb_assert_integrity", kVsb, "s->s_buf != ((void *)0)"));

    // A fixed buffer of length 0 fails on its first use.
    auto empty = runChild([] {
        vsb *s = vsb_new(nullptr, nullptr, 0, VSB_FIXEDLEN);
        ASSERT_NE(s, nullptr);
        (void)vsb_cat(s, "x");
    });
    EXPECT_TRUE(vasAbort(empty, "_vsb_assert_integrity", kVsb, "s->s_len < s->s_size"));
}

TEST(Vsb, NullFormatAborts) {
    auto r = runChild([] {
        vsb *s = vsb_newauto();
        const char *fmt = nullptr;
        va_list ap{};
        (void)vsb_vprintf(s, fmt, ap);
    });
    EXPECT_TRUE(vasAbort(r, "vsb_vprintf", kVsb, "fmt != ((void *)0)"));
}

TEST(Vsb, SetposChecksAndResult) {
    vsb *s = vsb_newauto();
    vsb_cat(s, "hello");
    EXPECT_EQ(vsb_setpos(s, 6), -1);
    EXPECT_EQ(s->s_len, 5u);
    EXPECT_EQ(vsb_setpos(s, 2), 0);
    vsb_finish(s);
    EXPECT_STREQ(vsb_data(s), "he");
    vsb_delete(s);

    auto neg = runChild([] { vsb_setpos(vsb_newauto(), -1); });
    EXPECT_TRUE(vasAbort(neg, "vsb_setpos", kVsb, "pos >= 0"));
    auto big = runChild([] { vsb_setpos(vsb_newauto(), 2048); });
    EXPECT_TRUE(vasAbort(big, "vsb_setpos", kVsb, "pos < (int)s->s_size"));
}

TEST(Vsb, CopiesClearFirst) {
    vsb *s = vsb_newauto();
    vsb_cat(s, "old");
    EXPECT_EQ(vsb_cpy(s, "new"), 0);
    EXPECT_EQ(text(s), "new");
    EXPECT_EQ(vsb_bcpy(s, "a\0b", 3), 0);
    EXPECT_EQ(text(s), std::string("a\0b", 3));
    vsb_delete(s);
}

TEST(Vsb, TrimDropsTrailingWhiteSpace) {
    vsb *s = vsb_newauto();
    vsb_cat(s, "ab \t\r\n\v\f ");
    EXPECT_EQ(vsb_trim(s), 0);
    EXPECT_EQ(text(s), "ab");
    vsb_clear(s);
    vsb_cat(s, "   ");
    EXPECT_EQ(vsb_trim(s), 0);
    EXPECT_EQ(s->s_len, 0u);
    vsb_delete(s);

    char buf[4];
    vsb v;
    vsb_new(&v, buf, sizeof buf, VSB_FIXEDLEN);
    vsb_cat(&v, "a    ");
    EXPECT_EQ(vsb_trim(&v), -1);
    vsb_delete(&v);
}

TEST(Vsb, CallerStorageIsCopiedOnFirstGrowthAndNeverFreed) {
    char buf[4] = "xyz";
    vsb v;
    vsb *s = vsb_new(&v, buf, sizeof buf, VSB_AUTOEXTEND);
    EXPECT_EQ(s->s_flags & VSB_DYNAMIC, 0);
    vsb_cat(s, "abcdef");
    EXPECT_NE(s->s_buf, buf);
    EXPECT_NE(s->s_flags & VSB_DYNAMIC, 0);
    EXPECT_EQ(s->s_size, 2048u);
    EXPECT_EQ(text(s), "abcdef");
    vsb_delete(s);
    EXPECT_EQ(v.s_magic, 0u); // the record is zero-filled
}

TEST(Vsb, PrintfGrowsAutoBuffer) {
    vsb *s = vsb_newauto();
    std::string big(5000, 'q');
    EXPECT_EQ(vsb_printf(s, "<%s>", big.c_str()), 0);
    EXPECT_EQ(s->s_len, 5002u);
    EXPECT_EQ(s->s_size, 8192u);
    vsb_finish(s);
    EXPECT_EQ(std::string(vsb_data(s)), "<" + big + ">");
    vsb_delete(s);
}

TEST(Vsb, QuotePlainTextUnchanged) {
    vsb *s = vsb_newauto();
    vsb_quote(s, "abc", -1, 0);
    vsb_quote(s, "a\\b", 3, 0); // a backslash alone does not cause quoting
    EXPECT_EQ(text(s), "abca\\b");
    vsb_delete(s);
}

TEST(Vsb, QuoteWithSpaceAddsQuotes) {
    vsb *s = vsb_newauto();
    vsb_quote(s, "a b", -1, 0);
    EXPECT_EQ(text(s), "\"a b\"");
    vsb_delete(s);
}

TEST(Vsb, QuoteEscapes) {
    vsb *s = vsb_newauto();
    vsb_quote(s, "\t\n\r\"\\x\x7f\xff", -1, 0);
    EXPECT_EQ(text(s), "\"\\t\\n\\r\\\"\\\\x\\177\\377\"");
    vsb_delete(s);
}

TEST(Vsb, QuoteOfControlByteAndDigitReadsBackAsNewline) {
    vsb *s = vsb_newauto();
    vsb_quote(s,
              "\x01"
              "2",
              -1, 0);
    EXPECT_EQ(text(s), "\"\\12\"");
    vsb *u = vsb_newauto();
    // The quotes are ordinary bytes to vsb_unquote; unquote the inside.
    EXPECT_EQ(vsb_unquote(u, s->s_buf + 1, static_cast<int>(s->s_len) - 2, 0), nullptr);
    EXPECT_EQ(text(u), "\n");
    vsb_delete(s);
    vsb_delete(u);
}

TEST(Vsb, UnquoteErrors) {
    vsb *s = vsb_newauto();
    EXPECT_STREQ(vsb_unquote(s, "ab\\", -1, 0), "Incomplete '\\'-sequence at end of string");
    EXPECT_EQ(text(s), "ab"); // what came before stays
    vsb_clear(s);
    EXPECT_STREQ(vsb_unquote(s, "\\400", -1, 0), "\\ooo sequence out of range");
    vsb_clear(s);
    // All octal digits are consumed: 1010 octal is 520.
    EXPECT_STREQ(vsb_unquote(s, "\\1010", -1, 0), "\\ooo sequence out of range");
    vsb_delete(s);
}

TEST(Vsb, UnquoteSequences) {
    vsb *s = vsb_newauto();
    EXPECT_EQ(vsb_unquote(s, "\\101x", -1, 0), nullptr);
    EXPECT_EQ(text(s), "Ax");
    vsb_clear(s);
    EXPECT_EQ(vsb_unquote(s, "\\n\\r\\t\\\\\\\"\\q\"", -1, 0), nullptr);
    EXPECT_EQ(text(s), "\n\r\t\\\"q\"");
    vsb_delete(s);
}

// Latin-1 calls 0xe9 a letter, so the platform's isgraph holds for it in
// that locale; the buffer still treats every byte of 0x80 and above as a
// signed char, which no class holds for.
TEST(Vsb, HighBytesAreQuotedAndKeptByTrimInAnyLocale) {
    char dir[] = "/tmp/vsb_locale.XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    std::string cmd = std::string("localedef -i en_US -f ISO-8859-1 ") + dir + "/latin1 2>&1";
    ASSERT_EQ(system(cmd.c_str()), 0) << "the locales package builds the test locale";
    ASSERT_EQ(setenv("LOCPATH", dir, 1), 0);
    ASSERT_NE(setlocale(LC_CTYPE, "latin1"), nullptr);
    ASSERT_NE(isgraph(0xe9), 0); // the locale really classes the byte

    vsb *s = vsb_newauto();
    vsb_quote(s, "\xe9t\xe9", -1, 0);
    std::string quoted = text(s);
    vsb_clear(s);
    vsb_cat(s, "x\xa0\xe9");
    EXPECT_EQ(vsb_trim(s), 0);
    std::string trimmed = text(s);
    vsb_delete(s);

    (void)setlocale(LC_CTYPE, "C");
    (void)unsetenv("LOCPATH");
    (void)system((std::string("rm -rf ") + dir).c_str());
    EXPECT_EQ(quoted, "\"\\351t\\351\"");
    EXPECT_EQ(trimmed, "x\xa0\xe9");
}

// A failing vsnprintf (a wide character the C locale cannot encode) gives
// -1, which is added to the length as it is: from an empty buffer the length
// wraps and the size check fires.
TEST(Vsb, FailingFormatWrapsLengthOfEmptyBufferAndAborts) {
    auto r = runChild([] {
        vsb *s = vsb_newauto();
        const wchar_t wide[] = {0x263a, 0};
        (void)vsb_printf(s, "%ls", wide);
    });
    EXPECT_TRUE(vasAbort(r, "vsb_vprintf", kVsb, "s->s_len < s->s_size"));
}

// The octal digits of an escape are read past len, up to the first byte that
// is not one.
TEST(Vsb, UnquoteReadsOctalDigitsPastLength) {
    vsb *s = vsb_newauto();
    EXPECT_EQ(vsb_unquote(s, "\\101x", 2, 0), nullptr);
    EXPECT_EQ(text(s), "A");
    vsb_clear(s);
    EXPECT_STREQ(vsb_unquote(s, "\\1010", 2, 0), "\\ooo sequence out of range");
    vsb_delete(s);
}

TEST(Vsb, LenOfLiveAndDoneFlags) {
    vsb *s = vsb_newauto();
    vsb_cat(s, "abc");
    EXPECT_EQ(vsb_len(s), 3);
    EXPECT_EQ(vsb_done(s), 0);
    vsb_finish(s);
    EXPECT_EQ(vsb_done(s), VSB_FINISHED);
    vsb_delete(s);
}

} // namespace

extern "C" int kob_c_api_roundtrip(char *out, int outlen);

namespace {

TEST(LibkobFromC, HeadersCompileAndLinkAsC) {
    char buf[32];
    EXPECT_EQ(kob_c_api_roundtrip(buf, sizeof buf), 9);
    EXPECT_STREQ(buf, "from C-42");
}

} // namespace
