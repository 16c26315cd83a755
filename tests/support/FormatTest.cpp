#include <gtest/gtest.h>

#include "support/Format.hpp"

using whittle::format;
using whittle::Value;

TEST(Format, ObjectPlaceholderUsesDescription) {
    EXPECT_EQ(format("+++ found %@.", Value::string("x10")), "+++ found x10.");
    EXPECT_EQ(format("%@", Value::integer(12)), "12");
    EXPECT_EQ(format("%@", std::string("text")), "text");
    EXPECT_EQ(format("[%@]", Value::array({Value::string("a")})), "[(\n    a\n)]");
}

TEST(Format, CStringsAndWidths) {
    EXPECT_EQ(format("\"%s\"", "a b"), "\"a b\"");
    EXPECT_EQ(format("%2d/%2d", 3, 12), " 3/12");
    EXPECT_EQ(format("%-4s|", "ab"), "ab  |");
    EXPECT_EQ(format("%05d", 42), "00042");
    EXPECT_EQ(format("%ld %lu %zu", 1L, 2UL, std::size_t{3}), "1 2 3");
}

TEST(Format, FloatsAndPercent) {
    EXPECT_EQ(format("Version %f", 7.4), "Version 7.400000");
    EXPECT_EQ(format("%.2f%%", 99.5), "99.50%");
    EXPECT_EQ(format("100%%"), "100%");
}

TEST(Format, MissingArgumentsDoNotCrash) {
    EXPECT_EQ(format("%s and %d"), "(null) and 0");
    EXPECT_EQ(format("%@"), "(null)");
}

TEST(Format, ArgumentsOfAnotherKindAreConverted) {
    EXPECT_EQ(format("%d", Value::integer(5)), "5");
    EXPECT_EQ(format("%s", 17), "17");
    EXPECT_EQ(format("%d", true), "1");
}

TEST(Format, LongArgumentsAreNotTruncated) {
    std::string longText(100000, 'x');
    EXPECT_EQ(format("<%s>", longText).size(), longText.size() + 2);
}

TEST(Format, TrailingPercentIsDropped) {
    EXPECT_EQ(format("abc%"), "abc");
}
