#include <gtest/gtest.h>

#include <sys/stat.h>

#include "TestSupport.hpp"
#include "support/PlistCodec.hpp"
#include "support/PropertyList.hpp"

using whittle::PropertyList;
using whittle::Value;
using whittle::test::TempDir;
using whittle::test::writeFile;

namespace {

Value dictionaryWith(const std::string& key, const std::string& text) {
    Value dict = Value::dictionary();
    dict.set(key, Value::string(text));
    return dict;
}

struct Recorder {
    std::vector<std::pair<std::string, std::string>> events;
    PropertyList::Observer observer() {
        return [this](std::string_view key, const Value& value) {
            events.emplace_back(std::string(key), value.description());
        };
    }
    std::vector<std::string> loadedEvents() const {
        std::vector<std::string> seen;
        for (const auto& [key, value] : events) {
            if (key == "loaded") seen.push_back(value);
        }
        return seen;
    }
};

}  // namespace

TEST(PropertyList, LoadTwiceReadsOnceAndNotifiesOnce) {
    TempDir dir;
    writeFile(dir / "a.plist", whittle::xmlPropertyList(dictionaryWith("k", "v1")));
    PropertyList list(dir / "a.plist");
    Recorder recorder;
    list.addObserver(recorder.observer());
    EXPECT_EQ(list.load(), 1);
    writeFile(dir / "a.plist", whittle::xmlPropertyList(dictionaryWith("k", "v2")));
    EXPECT_EQ(list.load(), 1);
    EXPECT_EQ(list.entries().get("k").text(), "v1");
    EXPECT_EQ(recorder.loadedEvents(), std::vector<std::string>{"1"});
}

TEST(PropertyList, EntriesAreInPlaceWhenLoadedIsAnnounced) {
    TempDir dir;
    writeFile(dir / "a.plist", whittle::xmlPropertyList(dictionaryWith("k", "v")));
    PropertyList list(dir / "a.plist");
    std::string seenInObserver;
    list.addObserver([&](std::string_view key, const Value& value) {
        if (key == "loaded" && *value.asBoolean()) seenInObserver = list.entries().get("k").text();
    });
    list.load();
    EXPECT_EQ(seenInObserver, "v");
}

TEST(PropertyList, ForceReloadPicksUpChangesAndNotifiesFalseThenTrue) {
    TempDir dir;
    writeFile(dir / "a.plist", whittle::xmlPropertyList(dictionaryWith("k", "v1")));
    PropertyList list(dir / "a.plist");
    list.load();
    Recorder recorder;
    list.addObserver(recorder.observer());
    writeFile(dir / "a.plist", whittle::binaryPropertyList(dictionaryWith("k", "v2")));
    EXPECT_EQ(list.forceReload(), 1);
    EXPECT_EQ(list.entries().get("k").text(), "v2");
    EXPECT_EQ(recorder.loadedEvents(), (std::vector<std::string>{"0", "1"}));
}

TEST(PropertyList, TopLevelArrayIsReturnedAsItIs) {
    TempDir dir;
    writeFile(dir / "list.plist", whittle::xmlPropertyList(Value::array({Value::string("x")})));
    Value contents = whittle::mutableDictionaryAtPath(dir / "list.plist");
    ASSERT_TRUE(contents.isArray());
    EXPECT_EQ(contents.at(0).text(), "x");
}

TEST(PropertyList, CorruptFileFailsAndKeepsState) {
    TempDir dir;
    writeFile(dir / "bad.plist", "<?xml version=\"1.0\"?><plist><dict><key>a</key>");
    PropertyList list(dir / "bad.plist");
    EXPECT_EQ(list.load(), 0);
    EXPECT_FALSE(list.loaded());
    EXPECT_TRUE(list.entries().isNone());
}

TEST(PropertyList, CorruptFileOnReloadKeepsOldEntries) {
    TempDir dir;
    writeFile(dir / "a.plist", whittle::xmlPropertyList(dictionaryWith("k", "v")));
    PropertyList list(dir / "a.plist");
    ASSERT_EQ(list.load(), 1);
    writeFile(dir / "a.plist", "garbage");
    EXPECT_EQ(list.forceReload(), 0);
    EXPECT_FALSE(list.loaded());
    EXPECT_EQ(list.entries().get("k").text(), "v");
}

TEST(PropertyList, WithoutPathNeverLoads) {
    PropertyList list;
    EXPECT_EQ(list.load(), 0);
    EXPECT_FALSE(list.loaded());
}

TEST(PropertyList, MissingFileAndFolderAndPipeGiveNone) {
    TempDir dir;
    EXPECT_TRUE(whittle::mutableDictionaryAtPath(dir / "missing.plist").isNone());
    EXPECT_TRUE(whittle::mutableDictionaryAtPath(dir.path()).isNone());
    std::string fifo = dir / "pipe.plist";
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    EXPECT_TRUE(whittle::mutableDictionaryAtPath(fifo).isNone());
    EXPECT_EQ(PropertyList::propertyListLoadWithPath(dir / "missing.plist"), nullptr);
}

TEST(PropertyList, EmptyAndTruncatedFilesGiveNone) {
    TempDir dir;
    writeFile(dir / "empty.plist", "");
    EXPECT_TRUE(whittle::mutableDictionaryAtPath(dir / "empty.plist").isNone());
    std::string binary = whittle::binaryPropertyList(dictionaryWith("key", "value"));
    writeFile(dir / "cut.plist", binary.substr(0, binary.size() - 5));
    EXPECT_TRUE(whittle::mutableDictionaryAtPath(dir / "cut.plist").isNone());
}

TEST(PropertyList, UnreadableFileGivesNone) {
    if (geteuid() == 0) GTEST_SKIP() << "root reads files whatever their modes";
    TempDir dir;
    writeFile(dir / "secret.plist", whittle::xmlPropertyList(dictionaryWith("k", "v")));
    chmod((dir / "secret.plist").c_str(), 0);
    EXPECT_TRUE(whittle::mutableDictionaryAtPath(dir / "secret.plist").isNone());
}

TEST(PropertyList, LoadedEntriesAreMutable) {
    TempDir dir;
    writeFile(dir / "a.plist", whittle::xmlPropertyList(dictionaryWith("k", "v")));
    auto list = PropertyList::propertyListLoadWithPath(dir / "a.plist");
    ASSERT_NE(list, nullptr);
    Value entries = list->entries();
    entries.set("added", Value::integer(1));
    EXPECT_EQ(*list->entries().get("added").asInteger(), 1);
}

TEST(PropertyList, RemovedObserverHearsNothing) {
    TempDir dir;
    writeFile(dir / "a.plist", whittle::xmlPropertyList(dictionaryWith("k", "v")));
    PropertyList list(dir / "a.plist");
    Recorder recorder;
    auto token = list.addObserver(recorder.observer());
    list.removeObserver(token);
    list.load();
    EXPECT_TRUE(recorder.events.empty());
}
