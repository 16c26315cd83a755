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

namespace {

void appendBigEndian(std::string& out, std::uint64_t value, int size) {
    for (int shift = (size - 1) * 8; shift >= 0; shift -= 8) out += static_cast<char>((value >> shift) & 0xFF);
}

// A binary property list whose objects are one-element arrays, each holding the
// next; the chain ends in a true, or with loopBack the last refers to the first.
std::string chainedBinaryPlist(std::uint64_t count, bool loopBack) {
    std::string out = "bplist00";
    std::vector<std::uint64_t> offsets;
    for (std::uint64_t i = 0; i < count; ++i) {
        offsets.push_back(out.size());
        if (i + 1 == count && !loopBack) {
            out += '\x09';
        } else {
            out += '\xA1';
            appendBigEndian(out, (i + 1) % count, 4);
        }
    }
    std::uint64_t table = out.size();
    for (auto offset : offsets) appendBigEndian(out, offset, 4);
    out += std::string(6, '\0');
    out += '\x04';
    out += '\x04';
    appendBigEndian(out, count, 8);
    appendBigEndian(out, 0, 8);
    appendBigEndian(out, table, 8);
    return out;
}

}  // namespace

TEST(PlistCodec, DeeplyNestedBinaryIsRefusedWithoutCrashing) {
    EXPECT_TRUE(whittle::parsePropertyList(chainedBinaryPlist(200000, false)).isNone());
}

TEST(PlistCodec, CyclicBinaryIsRefused) {
    EXPECT_TRUE(whittle::parsePropertyList(chainedBinaryPlist(3, true)).isNone());
}

TEST(PlistCodec, ShallowBinaryChainIsAccepted) {
    Value parsed = whittle::parsePropertyList(chainedBinaryPlist(4, false));
    ASSERT_TRUE(parsed.isArray());
    EXPECT_TRUE(parsed.at(0).at(0).at(0).is(Value::Kind::Boolean));
}

TEST(PlistCodec, RandomDamageNeverCrashes) {
    Value tree = sampleTree();
    for (int i = 0; i < 30; ++i) tree.set("key" + std::to_string(i), Value::stringArray({"a", "b", std::to_string(i)}));
    const std::string encodings[] = {whittle::xmlPropertyList(tree), whittle::binaryPropertyList(tree)};
    std::uint32_t seed = 12345;
    auto next = [&seed] { return seed = seed * 1664525u + 1013904223u; };
    for (int round = 0; round < 4000; ++round) {
        std::string damaged = encodings[round % 2];
        for (int hits = 1 + next() % 6; hits > 0; --hits) damaged[next() % damaged.size()] = static_cast<char>(next() >> 24);
        if (next() % 3 == 0) damaged.resize(next() % damaged.size());
        Value parsed = whittle::parsePropertyList(damaged);
        if (!parsed.isNone()) (void)parsed.description();
    }
    SUCCEED();
}
