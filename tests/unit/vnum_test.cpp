#include "vnum.h"

#include <cstdint>
#include <string>

#include <gtest/gtest.h>

namespace {

constexpr uint64_t kSentinel = 0x5a5a5a5a5a5a5a5aULL;

struct Outcome {
    const char *error;
    uint64_t value;
};

Outcome toBytes(const char *text, uint64_t rel = 0) {
    uint64_t v = kSentinel;
    const char *e = NUM_toBytes(text, &v, rel);
    return {e, v};
}

void expectValue(const char *text, uint64_t want, uint64_t rel = 0) {
    SCOPED_TRACE(testing::Message() << "[" << (text ? text : "(null)") << "] rel " << rel);
    Outcome o = toBytes(text, rel);
    EXPECT_EQ(o.error, nullptr) << o.error;
    EXPECT_EQ(o.value, want);
}

void expectError(const char *text, const char *error, uint64_t rel = 0) {
    SCOPED_TRACE(testing::Message() << "[" << (text ? text : "(null)") << "] rel " << rel);
    Outcome o = toBytes(text, rel);
    ASSERT_NE(o.error, nullptr);
    EXPECT_STREQ(o.error, error);
    EXPECT_EQ(o.value, kSentinel) << "the result must stay untouched";
}

TEST(Num, KibibyteSpellings) {
    for (const char *t : {"1k", "1K", "1kb", "1 KB", "1KB", "1kB", "1Kb", "1 k"})
        expectValue(t, 1024);
    expectValue("1.5m", 1572864);
}

TEST(Num, EveryUnitLetterInBothCasesWithAndWithoutB) {
    const char letters[] = "kmgtpe";
    for (int i = 0; i < 6; i++) {
        uint64_t unit = uint64_t{1} << (10 * (i + 1));
        for (char letter : {letters[i], static_cast<char>(letters[i] - 'a' + 'A')}) {
            for (const char *b : {"", "b", "B"}) {
                for (const char *blank : {"", " "}) {
                    std::string text = std::string("3") + blank + letter + b;
                    expectValue(text.c_str(), 3 * unit);
                }
            }
        }
    }
}

TEST(Num, PlainNumbersAndTheByteSuffix) {
    expectValue("512", 512);
    expectValue("512b", 512);
    expectValue("512B", 512);
    expectValue("512 b", 512);
    expectValue("0", 0);
    expectValue(" 7", 7);
    expectValue("0x10", 16);
    expectValue("18446744073709549568", 18446744073709549568ULL);
}

TEST(Num, BadSuffixes) {
    for (const char *t : {"512x", "512 ", "512  k", "1kbb", "1bk", "1k ", "1 %", "1kk", "1.5.5"})
        expectError(t, "Invalid suffix");
}

TEST(Num, Percentages) {
    expectValue("50%", 500, 1000);
    expectValue("12.5%", 125, 1000);
    expectValue("150%", 1500, 1000);
    expectValue("33%", 33, 101); // 33.33, truncated
    expectError("50%", "Absolute number required", 0);
    expectError("50%b", "Invalid suffix", 1000);
    expectError("50%%", "Invalid suffix", 1000);
    expectError("50 %", "Invalid suffix", 1000);
}

TEST(Num, MissingAndInvalidNumbers) {
    expectError(nullptr, "Missing number");
    expectError("", "Missing number");
    expectError("k", "Invalid number");
    expectError("abc", "Invalid number");
    expectError(" ", "Invalid number");
    expectError("%", "Invalid number");
}

TEST(Num, ErrorTextsAreTheLibraryConstants) {
    EXPECT_STREQ(toBytes("").error, NUM_ERR_MISSING);
    EXPECT_STREQ(toBytes("x").error, NUM_ERR_INVALID);
    EXPECT_STREQ(toBytes("1%").error, NUM_ERR_ABSOLUTE);
    EXPECT_STREQ(toBytes("1q").error, NUM_ERR_SUFFIX);
}

TEST(Num, LetterEWithoutDigitsIsTheUnit) {
    expectValue("1e", uint64_t{1} << 60);
    expectValue("1eb", uint64_t{1} << 60);
    expectValue("1 E", uint64_t{1} << 60);
    expectValue("1e3", 1000);
    expectValue("1e3k", 1024000);
    expectValue("2E1", 20);
}

TEST(Num, TruncatesInsteadOfRounding) {
    expectValue("0.9", 0);
    expectValue("1.999", 1);
    expectValue("0.5k", 512);
    expectValue("0.0001k", 0);
}

TEST(Num, LargeValuesGoThroughTheUnsignedRange) {
    expectValue("8e", uint64_t{1} << 63);
    expectValue("15.5e", 17870283321406128128ULL);
    expectValue("16e", UINT64_MAX);
    expectValue("1e300", UINT64_MAX);
    expectValue("inf", UINT64_MAX);
    expectValue("infk", UINT64_MAX);
}

TEST(Num, NegativeNumbersWrap) {
    expectValue("-1", UINT64_MAX);
    expectValue("-1k", UINT64_MAX - 1023);
    expectValue("-0.5", 0);
    expectValue("-1.5", UINT64_MAX);
    expectValue("-8e", uint64_t{1} << 63);
    expectValue("-1e300", uint64_t{1} << 63);
    expectValue("-inf", uint64_t{1} << 63);
    expectValue("-50%", UINT64_MAX - 499, 1000);
}

TEST(Num, NotANumberGivesZero) {
    expectValue("nan", 0);
    expectValue("NaN", 0);
}

} // namespace
