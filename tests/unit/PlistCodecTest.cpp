#include <gtest/gtest.h>

#include "support/PlistCodec.hpp"

using whittle::Value;

namespace {

Value sampleTree() {
    Value dict = Value::dictionary();
    dict.set("zeta", Value::string("last"));
    dict.set("alpha", Value::integer(-5));
    dict.set("real", Value::real(7.4));
    dict.set("flag", Value::boolean(true));
    dict.set("bytes", Value::data(std::string("\x00\x01\xfe", 3)));
    dict.set("when", Value::date(whittle::Date{86400}));
    dict.set("list", Value::array({Value::string("a"), Value::dictionary()}));
    return dict;
}

}  // namespace

TEST(PlistCodec, XmlRoundTrip) {
    Value tree = sampleTree();
    std::string xml = whittle::xmlPropertyList(tree);
    EXPECT_NE(xml.find("<?xml"), std::string::npos);
    EXPECT_NE(xml.find("<plist version=\"1.0\">"), std::string::npos);
    Value back = whittle::parsePropertyList(xml);
    EXPECT_TRUE(back.equals(tree)) << xml;
}

TEST(PlistCodec, BinaryRoundTrip) {
    Value tree = sampleTree();
    std::string binary = whittle::binaryPropertyList(tree);
    EXPECT_EQ(binary.substr(0, 6), "bplist");
    EXPECT_TRUE(whittle::parsePropertyList(binary).equals(tree));
}

TEST(PlistCodec, XmlKeysAreInAscendingOrder) {
    std::string xml = whittle::xmlPropertyList(sampleTree());
    auto alpha = xml.find("<key>alpha</key>");
    auto bytes = xml.find("<key>bytes</key>");
    auto zeta = xml.find("<key>zeta</key>");
    ASSERT_NE(alpha, std::string::npos);
    EXPECT_LT(alpha, bytes);
    EXPECT_LT(bytes, zeta);
}

TEST(PlistCodec, SetsAreWrittenAsArrays) {
    Value set = Value::set({Value::string("a"), Value::string("b")});
    Value back = whittle::parsePropertyList(whittle::xmlPropertyList(set));
    EXPECT_TRUE(back.equals(Value::array({Value::string("a"), Value::string("b")})));
}

TEST(PlistCodec, GarbageIsNone) {
    EXPECT_TRUE(whittle::parsePropertyList("").isNone());
    EXPECT_TRUE(whittle::parsePropertyList("this is not a property list").isNone());
    EXPECT_TRUE(whittle::parsePropertyList("bplist00\xff\xff\xff").isNone());
}

TEST(PlistCodec, TruncatedInputIsNone) {
    std::string xml = whittle::xmlPropertyList(sampleTree());
    for (std::size_t cut : {xml.size() / 4, xml.size() / 2, xml.size() - 12}) {
        EXPECT_TRUE(whittle::parsePropertyList(xml.substr(0, cut)).isNone()) << cut;
    }
    std::string binary = whittle::binaryPropertyList(sampleTree());
    for (std::size_t cut = 8; cut < binary.size(); cut += 7) {
        EXPECT_TRUE(whittle::parsePropertyList(binary.substr(0, cut)).isNone()) << cut;
    }
}

TEST(PlistCodec, HostileNestingIsRefusedWithoutCrashing) {
    std::string deep = "<?xml version=\"1.0\"?><plist version=\"1.0\">";
    for (int i = 0; i < 100000; ++i) deep += "<array>";
    for (int i = 0; i < 100000; ++i) deep += "</array>";
    deep += "</plist>";
    EXPECT_TRUE(whittle::parsePropertyList(deep).isNone());
}

TEST(PlistCodec, ModerateNestingIsAccepted) {
    Value tree = Value::string("leaf");
    for (int i = 0; i < 100; ++i) tree = Value::array({tree});
    EXPECT_TRUE(whittle::parsePropertyList(whittle::xmlPropertyList(tree)).equals(tree));
}
