#include <gtest/gtest.h>

#include "support/Value.hpp"

using whittle::Date;
using whittle::Value;
using whittle::ValueArray;

TEST(Value, DefaultIsNone) {
    Value none;
    EXPECT_TRUE(none.isNone());
    EXPECT_FALSE(none);
    EXPECT_EQ(none.get("x").isNone(), true);
    EXPECT_EQ(none.count(), 0u);
    EXPECT_EQ(none.text(), "");
}

TEST(Value, KindOfNoneIsNone) {
    Value none;
    EXPECT_EQ(none.kind(), Value::Kind::None);
    EXPECT_FALSE(none.is(Value::Kind::String));
    EXPECT_STREQ(kindName(none), "none");
    EXPECT_EQ(Value::string("x").kind(), Value::Kind::String);
}

TEST(Value, SetOfMakesASetAndSetWritesAnEntry) {
    Value set = Value::setOf({Value::string("a"), Value::string("a")});
    EXPECT_TRUE(set.isSet());
    EXPECT_EQ(set.count(), 1u);
    Value dictionary = Value::dictionary();
    dictionary.set("key", Value::integer(1));
    EXPECT_EQ(dictionary.get("key").numberValue(), 1.0);
}

TEST(Value, ScalarsReportTheirKind) {
    EXPECT_TRUE(Value::string("a").isString());
    EXPECT_TRUE(Value::integer(3).is(Value::Kind::Integer));
    EXPECT_TRUE(Value::real(1.5).is(Value::Kind::Real));
    EXPECT_TRUE(Value::boolean(true).is(Value::Kind::Boolean));
    EXPECT_TRUE(Value::date(Date{0}).is(Value::Kind::Date));
    EXPECT_TRUE(Value::data("\x01").isData());
    EXPECT_EQ(Value::string("a").asInteger(), nullptr);
}

TEST(Value, CopiesShareContainers) {
    Value dict = Value::dictionary();
    Value alias = dict;
    alias.set("k", Value::string("v"));
    EXPECT_EQ(dict.get("k").text(), "v");
    EXPECT_TRUE(dict.sameObject(alias));
}

TEST(Value, StringsCanBeExtendedInPlace) {
    Value text = Value::string("a");
    Value alias = text;
    *alias.asMutableString() += "b";
    EXPECT_EQ(text.text(), "ab");
}

TEST(Value, DeepCopyIsIndependent) {
    Value inner = Value::array({Value::string("x")});
    Value dict = Value::dictionary();
    dict.set("list", inner);
    Value copy = dict.deepCopy();
    inner.append(Value::string("y"));
    EXPECT_EQ(copy.get("list").count(), 1u);
    EXPECT_TRUE(dict.get("list").equals(inner));
    EXPECT_FALSE(copy.equals(dict));
}

TEST(Value, DeepEquality) {
    EXPECT_TRUE(Value::string("a").equals(Value::string("a")));
    EXPECT_FALSE(Value::string("a").equals(Value::string("A")));
    EXPECT_TRUE(Value::integer(2).equals(Value::real(2.0)));
    EXPECT_FALSE(Value::integer(1).equals(Value::integer(2)));
    EXPECT_TRUE(Value::data(std::string("\0\1", 2)).equals(Value::data(std::string("\0\1", 2))));
    EXPECT_FALSE(Value::data("a").equals(Value::string("a")));
    EXPECT_TRUE(Value::date(Date{5}).equals(Value::date(Date{5})));
    Value a = Value::array({Value::integer(1), Value::string("b")});
    Value b = Value::array({Value::integer(1), Value::string("b")});
    Value c = Value::array({Value::string("b"), Value::integer(1)});
    EXPECT_TRUE(a.equals(b));
    EXPECT_FALSE(a.equals(c));
    Value d1 = Value::dictionary();
    d1.set("x", a);
    Value d2 = Value::dictionary();
    d2.set("x", b);
    EXPECT_TRUE(d1.equals(d2));
    d2.set("y", Value::boolean(false));
    EXPECT_FALSE(d1.equals(d2));
    EXPECT_TRUE(Value().equals(Value()));
    EXPECT_FALSE(Value().equals(Value::string("")));
}

TEST(Value, SetsKeepDistinctMembersInInsertionOrder) {
    Value set = Value::setOf({Value::string("b"), Value::string("a"), Value::string("b")});
    ASSERT_EQ(set.count(), 2u);
    EXPECT_EQ((*set.asSetMembers())[0].text(), "b");
    EXPECT_TRUE(set.setContains(Value::string("a")));
    set.addToSet(Value::string("a"));
    EXPECT_EQ(set.count(), 2u);
    EXPECT_TRUE(set.equals(Value::setOf({Value::string("a"), Value::string("b")})));
}

TEST(Value, ArrayAccessOutOfRangeIsNone) {
    Value array = Value::array({Value::integer(1)});
    EXPECT_TRUE(array.at(1).isNone());
    EXPECT_EQ(*array.at(0).asInteger(), 1);
}

TEST(Value, DescriptionOfScalars) {
    EXPECT_EQ(Value::string("plain text").description(), "plain text");
    EXPECT_EQ(Value::integer(-42).description(), "-42");
    EXPECT_EQ(Value::real(7.4).description(), "7.4");
    EXPECT_EQ(Value::real(2).description(), "2");
    EXPECT_EQ(Value::boolean(true).description(), "1");
    EXPECT_EQ(Value::date(Date{0}).description(), "2001-01-01 00:00:00 +0000");
    EXPECT_EQ(Value::data(std::string("\x01\xff\x00\x10\x20", 5)).description(), "<01ff0010 20>");
    EXPECT_EQ(Value().description(), "(null)");
}

TEST(Value, DescriptionOfArrayIsOldStyleText) {
    Value array = Value::array({Value::string("a"), Value::string("b c"), Value::integer(3)});
    EXPECT_EQ(array.description(), "(\n    a,\n    \"b c\",\n    3\n)");
    EXPECT_EQ(Value::array().description(), "(\n)");
}

TEST(Value, DescriptionOfDictionaryIsOldStyleText) {
    Value dict = Value::dictionary();
    dict.set("b", Value::array({Value::string("x")}));
    dict.set("a", Value::string("Handset1,1"));
    EXPECT_EQ(dict.description(), "{\n    a = \"Handset1,1\";\n    b =     (\n        x\n    );\n}");
}

TEST(Value, StringArrayHelper) {
    Value array = Value::stringArray({"p", "q"});
    ASSERT_EQ(array.count(), 2u);
    EXPECT_EQ(array.at(1).text(), "q");
}

TEST(Value, KindNames) {
    EXPECT_STREQ(whittle::kindName(Value::dictionary()), "dictionary");
    EXPECT_STREQ(whittle::kindName(Value::integer(1)), "integer");
    EXPECT_STREQ(whittle::kindName(Value()), "none");
}

// ---- sets and their membership index ----

TEST(ValueSet, ManyMembersKeepInsertionOrderAndStayDistinct) {
    Value set = Value::setOf();
    for (int round = 0; round < 2; ++round) {
        for (int i = 0; i < 20000; ++i) set.addToSet(Value::string("line " + std::to_string(i)));
    }
    ASSERT_EQ(set.count(), 20000u);
    for (int i = 0; i < 20000; i += 997) EXPECT_EQ(set.elements()[i].text(), "line " + std::to_string(i));
    EXPECT_TRUE(set.setContains(Value::string("line 19999")));
    EXPECT_FALSE(set.setContains(Value::string("line 20000")));
}

TEST(ValueSet, MembershipFollowsDeepEquality) {
    Value set = Value::setOf({Value::integer(1), Value::string("a"), Value::real(-0.0),
                            Value::array({Value::string("x"), Value::integer(2)})});
    EXPECT_TRUE(set.setContains(Value::real(1.0)));
    EXPECT_TRUE(set.setContains(Value::boolean(true)));
    EXPECT_TRUE(set.setContains(Value::integer(0)));
    EXPECT_TRUE(set.setContains(Value::array({Value::string("x"), Value::real(2.0)})));
    EXPECT_FALSE(set.setContains(Value::array({Value::integer(2), Value::string("x")})));
    EXPECT_FALSE(set.setContains(Value::data("a")));
    EXPECT_FALSE(set.setContains(Value::integer(3)));
    set.addToSet(Value::real(1.0));
    set.addToSet(Value::array({Value::string("x"), Value::integer(2)}));
    EXPECT_EQ(set.count(), 4u);
    Value big = Value::integer(std::int64_t{1} << 62);
    set.addToSet(big);
    set.addToSet(Value::integer((std::int64_t{1} << 62) + 1));  // equal as doubles, not as integers
    EXPECT_EQ(set.count(), 6u);
}

TEST(ValueSet, ContainerMembersChangedElsewhereAreFoundByTheirContent) {
    Value list = Value::array({Value::string("a")});
    Value set = Value::setOf({list});
    list.append(Value::string("b"));
    EXPECT_TRUE(set.setContains(Value::array({Value::string("a"), Value::string("b")})));
    EXPECT_FALSE(set.setContains(Value::array({Value::string("a")})));
}

TEST(ValueSet, CopiesShareTheSetAndDeepCopiesAreIndependent) {
    Value set = Value::setOf({Value::string("a"), Value::dictionary()});
    Value alias = set;
    alias.addToSet(Value::string("b"));
    EXPECT_TRUE(set.setContains(Value::string("b")));

    Value copy = set.deepCopy();
    copy.addToSet(Value::string("c"));
    EXPECT_TRUE(copy.setContains(Value::string("a")));
    EXPECT_TRUE(copy.setContains(Value::string("b")));
    EXPECT_TRUE(copy.setContains(Value::dictionary()));
    EXPECT_TRUE(copy.setContains(Value::string("c")));
    EXPECT_FALSE(set.setContains(Value::string("c")));
    copy.addToSet(Value::string("a"));
    EXPECT_EQ(copy.count(), 4u);
    EXPECT_EQ(copy.elements()[3].text(), "c");
}

TEST(ValueSet, SetsAreEqualWhateverTheirOrder) {
    Value one = Value::setOf({Value::string("a"), Value::integer(1), Value::string("b")});
    Value two = Value::setOf({Value::string("b"), Value::real(1.0), Value::string("a")});
    EXPECT_TRUE(one.equals(two));
    two.addToSet(Value::string("c"));
    EXPECT_FALSE(one.equals(two));
}

TEST(ValueSet, EqualValuesHashAlike) {
    const std::pair<Value, Value> equalPairs[] = {
        {Value::integer(7), Value::real(7.0)},
        {Value::boolean(false), Value::real(-0.0)},
        {Value::string("x"), Value::string("x")},
        {Value::data("\x01"), Value::data("\x01")},
        {Value::date(whittle::Date{5}), Value::date(whittle::Date{5})},
        {Value::array({Value::integer(1)}), Value::array({Value::real(1)})},
        {Value::setOf({Value::string("a"), Value::string("b")}), Value::setOf({Value::string("b"), Value::string("a")})},
    };
    for (const auto& [a, b] : equalPairs) {
        ASSERT_TRUE(a.equals(b)) << a.description();
        EXPECT_EQ(a.contentHash(), b.contentHash()) << a.description();
    }
}
