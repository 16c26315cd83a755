// The disk image tool's property-list output.
#include <gtest/gtest.h>

#include "support/PlistCodec.hpp"
#include "tools/DiskImage.hpp"

using namespace whittle;

namespace {

std::string entities(std::initializer_list<std::pair<const char*, const char*>> mounted) {
    Value list = Value::array();
    for (const auto& [mountPoint, device] : mounted) {
        Value entity = Value::dictionary();
        entity.set("content-hint", Value::string("Apple_HFS"));
        if (mountPoint) entity.set("mount-point", Value::string(mountPoint));
        entity.set("dev-entry", Value::string(device));
        list.append(entity);
    }
    Value root = Value::dictionary();
    root.set("system-entities", list);
    return xmlPropertyList(root);
}

}  // namespace

TEST(SplitPropertyLists, TwoListsInOrder) {
    std::string error;
    Value lists = splitPropertyLists(entities({{"/V/a", "/dev/a"}}) + entities({{"/V/b", "/dev/b"}}), false, error);
    EXPECT_EQ(error, "");
    ASSERT_EQ(lists.count(), 2u);
    EXPECT_EQ(lists.at(1).get("system-entities").at(0).get("mount-point").text(), "/V/b");
}

TEST(SplitPropertyLists, NoticeBeforeTheListIsIgnored) {
    std::string error = "untouched";
    Value lists = splitPropertyLists("checksumming... ok\n" + entities({{"/V/a", "/dev/a"}}) + "trailing words\n", false, error);
    EXPECT_EQ(error, "untouched");
    EXPECT_EQ(lists.count(), 1u);
}

TEST(SplitPropertyLists, NoListAtAll) {
    std::string error;
    EXPECT_EQ(splitPropertyLists("attach failed", false, error).count(), 0u);
    EXPECT_EQ(error, "cannot find leading <?xml .");
}

TEST(SplitPropertyLists, NoTrailingEnd) {
    std::string error;
    EXPECT_EQ(splitPropertyLists("<?xml version=\"1.0\"?><plist><dict>", false, error).count(), 0u);
    EXPECT_EQ(error, "cannot find trailing <?plist>.");
}

TEST(SplitPropertyLists, TruncatedSecondListKeepsTheFirst) {
    std::string error;
    std::string second = entities({{"/V/b", "/dev/b"}});
    Value lists = splitPropertyLists(entities({{"/V/a", "/dev/a"}}) + second.substr(0, second.size() / 2), false, error);
    EXPECT_EQ(lists.count(), 1u);
    EXPECT_EQ(error, "cannot find trailing <?plist>.");
}

TEST(SplitPropertyLists, InterleavedLists) {
    std::string error;
    EXPECT_EQ(splitPropertyLists("</plist> <?xml version=\"1.0\"?>", false, error).count(), 0u);
    EXPECT_EQ(error, "interleaved plists detected.");
}

TEST(SplitPropertyLists, UnparsableListReportsAnError) {
    std::string error;
    Value lists = splitPropertyLists(entities({{"/V/a", "/dev/a"}}) + "<?xml version=\"1.0\"?><plist><dict><key>x</plist>",
                                     false, error);
    EXPECT_EQ(lists.count(), 1u);
    EXPECT_FALSE(error.empty());
}

TEST(FindMountPoint, LastListWithAMountedEntityWins) {
    std::string error;
    Value lists = splitPropertyLists(entities({{nullptr, "/dev/disk4"}, {"/V/first", "/dev/disk4s1"}, {"/V/second", "/dev/disk4s2"}}) +
                                         entities({{nullptr, "/dev/disk5"}}) + entities({{"/V/last", "/dev/disk6s1"}}),
                                     false, error);
    auto volume = findMountPoint(lists);
    ASSERT_TRUE(volume.has_value());
    EXPECT_EQ(volume->mountPoint, "/V/last");
    EXPECT_EQ(volume->deviceEntry, "/dev/disk6s1");
}

TEST(FindMountPoint, NoMountedEntity) {
    std::string error;
    EXPECT_FALSE(findMountPoint(splitPropertyLists(entities({{nullptr, "/dev/disk4"}}), false, error)).has_value());
}
