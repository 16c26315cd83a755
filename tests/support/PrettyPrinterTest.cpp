#include <gtest/gtest.h>

#include <cstdio>

#include "TestSupport.hpp"
#include "support/PrettyPrinter.hpp"

using whittle::prettyPrintToString;
using whittle::Value;

TEST(PrettyPrinter, TopLevelStringIsItsOwnLine) {
    EXPECT_EQ(prettyPrintToString(Value::string("s"), "\t"), "s\n");
}

TEST(PrettyPrinter, EmptyArrayUnderKeyPrintsOnlyTheKeyLine) {
    Value dict = Value::dictionary();
    dict.set("k", Value::array());
    EXPECT_EQ(prettyPrintToString(dict, "\t"), "k:\n");
}

TEST(PrettyPrinter, DictionaryWithNumberArrayAndData) {
    Value dict = Value::dictionary();
    dict.set("a", Value::integer(1));
    dict.set("b", Value::array({Value::string("x"), Value::string("y")}));
    dict.set("c", Value::data(std::string("\x01\xff", 2)));
    EXPECT_EQ(prettyPrintToString(dict, "\t"), "a: 1\nb:\n\t0: x\n\t1: y\nc: 0x01FF\n");
}

TEST(PrettyPrinter, ArrayIndicesRestartOnEveryLevel) {
    Value array = Value::array({Value::string("p"), Value::array({Value::string("q"), Value::string("r")}),
                                Value::string("s")});
    EXPECT_EQ(prettyPrintToString(array, "  "), "0: p\n1:\n  0: q\n  1: r\n2: s\n");
}

TEST(PrettyPrinter, EmptyDataIsZeroX) {
    EXPECT_EQ(whittle::describeForPrettyPrint(Value::data("")).value(), "0x");
    EXPECT_EQ(prettyPrintToString(Value::data(""), "\t"), "0x\n");
}

TEST(PrettyPrinter, NoneAtTheTopPrintsNull) {
    EXPECT_EQ(prettyPrintToString(Value(), "\t"), "(null)\n");
}

TEST(PrettyPrinter, StreamAndStringSinksReceiveTheSameText) {
    Value dict = Value::dictionary();
    dict.set("key", Value::array({Value::integer(7)}));
    whittle::test::TempDir dir;
    std::string path = dir / "dump.txt";
    FILE* stream = std::fopen(path.c_str(), "w");
    ASSERT_NE(stream, nullptr);
    whittle::prettyPrint(dict, stream, "\t");
    whittle::prettyPrint(dict, stream);
    std::fclose(stream);
    std::string expected = prettyPrintToString(dict, "\t");
    EXPECT_EQ(whittle::test::readFile(path), expected + expected);
}
