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
    Value set = Value::setOf({Value::string("a"), Value::string("b")});
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

// ---- lists made to harm the reader ----

namespace {

// A binary property list of the given objects (each its encoded bytes, references
// two bytes wide), the first one on top.
std::string binaryPlistOf(const std::vector<std::string>& objects) {
    std::string out = "bplist00";
    std::vector<std::uint64_t> offsets;
    for (const auto& object : objects) {
        offsets.push_back(out.size());
        out += object;
    }
    std::uint64_t table = out.size();
    for (auto offset : offsets) appendBigEndian(out, offset, 4);
    out += std::string(6, '\0');
    out += '\x04';
    out += '\x02';
    appendBigEndian(out, objects.size(), 8);
    appendBigEndian(out, 0, 8);
    appendBigEndian(out, table, 8);
    return out;
}

std::string reference(std::uint64_t index) {
    std::string out;
    appendBigEndian(out, index, 2);
    return out;
}

std::string oneEntryDictionary() { return std::string("\xD1") + reference(1) + reference(2); }
std::string utf16String(const std::u16string& text) {
    std::string out(1, static_cast<char>(0x60 | text.size()));
    for (char16_t unit : text) appendBigEndian(out, unit, 2);
    return out;
}
std::string asciiString(const std::string& text) { return static_cast<char>(0x50 | text.size()) + text; }
const std::string kTrue = "\x09";

std::string xmlList(const std::string& body) {
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">" + body + "</plist>\n";
}

std::string repeated(const std::string& text, int times) {
    std::string out;
    for (int i = 0; i < times; ++i) out += text;
    return out;
}

}  // namespace

TEST(PlistCodec, BinaryKeyHoldingUtf16NulIsRefused) {
    std::string list = binaryPlistOf({oneEntryDictionary(), utf16String(std::u16string(u"a\0b", 3)), kTrue});
    EXPECT_TRUE(whittle::parsePropertyList(list).isNone());
}

TEST(PlistCodec, BinaryKeyHoldingAsciiNulIsRefused) {
    std::string list = binaryPlistOf({oneEntryDictionary(), asciiString(std::string("a\0b", 3)), kTrue});
    EXPECT_TRUE(whittle::parsePropertyList(list).isNone());
}

TEST(PlistCodec, BinaryUtf16KeysAreRead) {
    Value parsed = whittle::parsePropertyList(binaryPlistOf({oneEntryDictionary(), utf16String(u"caf\u00e9"), kTrue}));
    ASSERT_TRUE(parsed.isDictionary());
    EXPECT_TRUE(parsed.get("caf\xC3\xA9").is(Value::Kind::Boolean));
}

TEST(PlistCodec, BinaryKeyThatIsNoStringIsRefused) {
    EXPECT_TRUE(whittle::parsePropertyList(binaryPlistOf({oneEntryDictionary(), kTrue, kTrue})).isNone());
}

TEST(PlistCodec, BinaryStringValueHoldingNulIsKept) {
    std::string array = std::string("\xA1") + reference(1);
    Value parsed = whittle::parsePropertyList(binaryPlistOf({array, utf16String(std::u16string(u"a\0b", 3))}));
    ASSERT_TRUE(parsed.isArray());
    EXPECT_EQ(parsed.at(0).text(), std::string_view("a\0b", 3));
}

TEST(PlistCodec, XmlHoldingNulIsRefused) {
    std::string key = xmlList("<dict><key>a" + std::string(1, '\0') + "b</key><true/></dict>");
    EXPECT_TRUE(whittle::parsePropertyList(key).isNone());
    std::string text = xmlList("<array><string>a" + std::string(1, '\0') + "b</string></array>");
    EXPECT_TRUE(whittle::parsePropertyList(text).isNone());
}

TEST(PlistCodec, XmlNestingIsCountedWhateverTheSpelling) {
    const std::pair<std::string, std::string> spellings[] = {
        {"<array >", "</array>"},
        {"<array\n>", "</array >"},
        {"<array id=\"x>y\">", "</array>"},
        {"<dict ><key>k</key>", "</dict>"},
        {"<array><!-- </array> -->", "</array>"},
        {"<array><![CDATA[", ""},
    };
    for (const auto& [open, close] : spellings) {
        std::string deep = xmlList(repeated(open, 200000) + repeated(close, 200000));
        EXPECT_TRUE(whittle::parsePropertyList(deep).isNone()) << open;
    }
}

TEST(PlistCodec, XmlNestingAtTheLimitIsAcceptedAndOneMoreRefused) {
    int limit = whittle::kMaximumPlistNesting;
    std::string atLimit = xmlList(repeated("<array >", limit) + "<true/>" + repeated("</array>", limit));
    Value parsed = whittle::parsePropertyList(atLimit);
    ASSERT_TRUE(parsed.isArray());
    std::string beyond = xmlList(repeated("<array >", limit + 1) + repeated("</array>", limit + 1));
    EXPECT_TRUE(whittle::parsePropertyList(beyond).isNone());
    std::string emptyInnermost = xmlList(repeated("<array>", limit) + "<array/>" + repeated("</array>", limit));
    EXPECT_TRUE(whittle::parsePropertyList(emptyInnermost).isNone());
}

TEST(PlistCodec, XmlTagsInsideCommentsCdataAndDoctypeAreNotNesting) {
    std::string opens = repeated("<array>", 2000);
    std::string list = "<?xml version=\"1.0\"?>\n<!DOCTYPE plist [ <!-- " + opens + " --> ]>\n<plist version=\"1.0\">"
                       "<!-- " + opens + " --><array><string><![CDATA[" + opens + "]]></string>" +
                       repeated("<array/>", 2000) + "</array></plist>";
    Value parsed = whittle::parsePropertyList(list);
    ASSERT_TRUE(parsed.isArray());
    EXPECT_EQ(parsed.count(), 2001u);
    EXPECT_EQ(parsed.at(0).text(), opens);
}

TEST(PlistCodec, XmlClosingTagsInsideCommentsDoNotHideNesting) {
    std::string body = repeated("<array><!-- </array></array> -->", 600) + repeated("</array>", 600);
    EXPECT_TRUE(whittle::parsePropertyList(xmlList(body)).isNone());
}

TEST(PlistCodec, BinaryNestingAtTheLimitIsAcceptedAndOneMoreRefused) {
    int limit = whittle::kMaximumPlistNesting;
    auto nestedArrays = [](int levels) {
        std::vector<std::string> objects;
        for (int i = 0; i < levels; ++i) objects.push_back(std::string("\xA1") + reference(i + 1));
        objects.push_back(kTrue);
        return binaryPlistOf(objects);
    };
    EXPECT_TRUE(whittle::parsePropertyList(nestedArrays(limit)).isArray());
    EXPECT_TRUE(whittle::parsePropertyList(nestedArrays(limit + 1)).isNone());
}

TEST(PlistCodec, BinarySharedReferencesThatExpandHugelyAreRefused) {
    // Each array holds the next one twice: 2^60 paths to the innermost.
    std::vector<std::string> objects;
    for (int i = 0; i < 60; ++i) objects.push_back(std::string("\xA2") + reference(i + 1) + reference(i + 1));
    objects.push_back(kTrue);
    EXPECT_TRUE(whittle::parsePropertyList(binaryPlistOf(objects)).isNone());
}

TEST(PlistCodec, BinaryLongStringSharedManyTimesIsRefused) {
    // One 64 KiB string, referenced 4096 times: 256 MiB once read.
    std::string array = "\xAF\x11\x10\x00";
    for (int i = 0; i < 4096; ++i) array += reference(1);
    std::string text = "\x5F\x12" + std::string("\x00\x01\x00\x00", 4) + std::string(65536, 'x');
    EXPECT_TRUE(whittle::parsePropertyList(binaryPlistOf({array, text})).isNone());
}

TEST(PlistCodec, BinaryModestSharingIsAccepted) {
    std::string array = "\xAF\x11\x03\xE8";  // 1000 elements
    for (int i = 0; i < 1000; ++i) array += reference(1);
    Value parsed = whittle::parsePropertyList(binaryPlistOf({array, asciiString("shared")}));
    ASSERT_TRUE(parsed.isArray());
    EXPECT_EQ(parsed.count(), 1000u);
    EXPECT_EQ(parsed.at(999).text(), "shared");
}

TEST(PlistCodec, BinaryHeadersClaimingTooMuchAreRefused) {
    std::string good = binaryPlistOf({std::string("\xA1") + reference(1), kTrue});
    ASSERT_TRUE(whittle::parsePropertyList(good).isArray());
    std::size_t trailer = good.size() - 32;
    auto withTrailerField = [&](std::size_t at, std::uint64_t value) {
        std::string damaged = good;
        std::string field;
        appendBigEndian(field, value, 8);
        damaged.replace(trailer + at, 8, field);
        return damaged;
    };
    EXPECT_TRUE(whittle::parsePropertyList(withTrailerField(8, std::uint64_t{1} << 60)).isNone());  // objects
    EXPECT_TRUE(whittle::parsePropertyList(withTrailerField(16, 7)).isNone());                      // top object
    EXPECT_TRUE(whittle::parsePropertyList(withTrailerField(24, ~std::uint64_t{0})).isNone());     // offset table
    EXPECT_TRUE(whittle::parsePropertyList(withTrailerField(24, 2)).isNone());
    // An array claiming 2^40 entries, a string claiming more bytes than there are.
    std::string hugeArray = std::string("\xAF\x13") + std::string("\x00\x00\x01\x00\x00\x00\x00\x00", 8) + reference(1);
    EXPECT_TRUE(whittle::parsePropertyList(binaryPlistOf({hugeArray, kTrue})).isNone());
    std::string longString = std::string("\xA1") + reference(1);
    EXPECT_TRUE(whittle::parsePropertyList(binaryPlistOf({longString, "\x6F\x12\x7F\xFF\xFF\xFF" "ab"})).isNone());
}

TEST(PlistCodec, LargeBinaryArrayIsReadCompletely) {
    Value big = Value::array();
    for (int i = 0; i < 100000; ++i) big.append(Value::integer(i));
    Value parsed = whittle::parsePropertyList(whittle::binaryPropertyList(big));
    ASSERT_TRUE(parsed.isArray());
    ASSERT_EQ(parsed.count(), 100000u);
    EXPECT_EQ(*parsed.at(99999).asInteger(), 99999);
}

TEST(PlistCodec, TrailingContentAfterTheListIsIgnoredAsBefore) {
    std::string list = xmlList("<array><true/></array>") + repeated("<array>", 1000);
    EXPECT_TRUE(whittle::parsePropertyList(list).isArray());
}

namespace {

// The hash the property-list library files dictionary keys by.
std::uint32_t libraryKeyHash(const std::string& key) {
    std::uint32_t hash = 5381;
    for (char c : key) hash = hash * 33 + static_cast<std::uint32_t>(static_cast<signed char>(c));
    return hash;
}

// An XML dictionary of that many keys, all of the same length and a common prefix;
// colliding: every key falls in the same chain of the library's hash table.
// spelling goes in front of every key, and reads as decoded.
std::string dictionaryOfKeys(int count, bool colliding, std::size_t prefixLength, const std::string& spelling = "",
                             const std::string& decoded = "") {
    std::string body = "<dict>";
    std::string prefix(prefixLength, 'K');
    for (int i = 0; i < count; ++i) {
        std::string key = prefix + std::to_string(1000000 + i);
        std::string suffix = "abc";
        std::uint32_t base = libraryKeyHash(decoded + key);
        const std::string letters = "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";
        for (char a : colliding ? letters : std::string()) {
            for (char b : letters) {
                for (char c : letters) {
                    if (colliding && (((base * 33 + a) * 33 + b) * 33 + static_cast<std::uint32_t>(c)) % 4096 == 77) {
                        suffix = {a, b, c};
                        goto found;
                    }
                }
            }
        }
    found:
        body += "<key>" + spelling + key + suffix + "</key><true/>";
    }
    return xmlList(body + "</dict>");
}

}  // namespace

TEST(PlistCodec, XmlKeysMadeToCollideInTheLibraryAreRefused) {
    ASSERT_TRUE(whittle::parsePropertyList(dictionaryOfKeys(2000, false, 200)).isDictionary());
    EXPECT_TRUE(whittle::parsePropertyList(dictionaryOfKeys(4000, true, 200)).isNone());
    // CDATA and entities are decoded as the library does before it takes the hash:
    // "KKK" spelled so collides just the same.
    EXPECT_TRUE(whittle::parsePropertyList(dictionaryOfKeys(4000, true, 197, "<![CDATA[K]]>&#x4B;&#75;", "KKK")).isNone());
}

TEST(PlistCodec, LargeXmlDictionariesOfOrdinaryKeysAreRead) {
    Value parsed = whittle::parsePropertyList(dictionaryOfKeys(40000, false, 20));
    ASSERT_TRUE(parsed.isDictionary());
    EXPECT_EQ(parsed.count(), 40000u);
    Value fewColliding = whittle::parsePropertyList(dictionaryOfKeys(500, true, 200));
    ASSERT_TRUE(fewColliding.isDictionary());
    EXPECT_EQ(fewColliding.count(), 500u);
}
