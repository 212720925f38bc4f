// How much of a long text a page shows: a budget in bytes of page, counted
// after escaping, filled with whole lines where it can be.

#include "html.h"

#include <gtest/gtest.h>
#include <string>

using kobreportd::html::escape;
using kobreportd::html::headWithin;
using kobreportd::html::tailWithin;

TEST(Excerpt, WholeLinesFromTheStartAndFromTheEnd) {
    std::string text = "one\ntwo\nthree\nfour\n";
    EXPECT_EQ(headWithin(text, 100), text);
    EXPECT_EQ(headWithin(text, 8), "one\ntwo\n");
    EXPECT_EQ(headWithin(text, 13), "one\ntwo\n");
    EXPECT_EQ(tailWithin(text, 11), "three\nfour\n");
    EXPECT_EQ(tailWithin(text, 10), "four\n");
    EXPECT_EQ(tailWithin("no line feed at the end\nlast", 4), "last");
    EXPECT_EQ(headWithin("", 10), "");
    EXPECT_EQ(tailWithin("", 10), "");
}

TEST(Excerpt, TheBudgetIsCountedAfterEscaping) {
    // Four bytes of text, sixteen of page.
    std::string text = "<<<<\n>>>>\n";
    EXPECT_EQ(escape("<<<<\n").size(), 17u);
    EXPECT_EQ(headWithin(text, 17), "<<<<\n");
    EXPECT_EQ(tailWithin(text, 17), ">>>>\n");
    EXPECT_EQ(headWithin(text, 16), "<<<<");
}

TEST(Excerpt, OneLongLineIsCutAtACharactersEdge) {
    std::string line = "ab\xc3\xa9"
                       "cdefgh"; // e-acute is two bytes
    // Whole, it makes 10 bytes of page.
    EXPECT_EQ(headWithin(line, 10), line);
    // Cut inside, a byte counts for the most it could become: three for
    // one of a multi-byte character, which is never split.
    EXPECT_EQ(headWithin(line, 4), "ab");
    EXPECT_EQ(headWithin(line, 9), "ab\xc3\xa9"
                                   "c");
    EXPECT_EQ(tailWithin(line, 9), "cdefgh");
    EXPECT_EQ(tailWithin(line, 10), line);
    // Whatever the text, the page it makes stays within the budget.
    std::string wild(100000, '"');
    EXPECT_LE(escape(headWithin(wild, 65536)).size(), 65536u);
    EXPECT_LE(escape(tailWithin(wild, 65536)).size(), 65536u);
}
