// The support material at a bundle's root: firmware archives and the restore tools image.
#include <gtest/gtest.h>

#include <map>

#include "engine/SupportFiles.hpp"

using namespace whittle;

TEST(SupportFiles, FirmwareArchivesEndInFWPKAndAreNotTheFolder) {
    EXPECT_TRUE(isFirmwareArchive("Mediadesk FWPKs/x10.fwpk"));
    EXPECT_TRUE(isFirmwareArchive("Mediadesk FWPKs/x10.FWPK"));
    EXPECT_FALSE(isFirmwareArchive("Mediadesk FWPKs/x10.fwpk.txt"));
    EXPECT_FALSE(isFirmwareArchive(kFirmwareArchives));
}

TEST(SupportFiles, ArchiveWantedForItsProductOrARequestedOperatingSystem) {
    Value none = Value::array();
    EXPECT_TRUE(wantsFirmwareArchive("Mediadesk FWPKs/X10-base.fwpk", "x10", none));
    EXPECT_FALSE(wantsFirmwareArchive("Mediadesk FWPKs/x20-base.fwpk", "x10", none));
    Value fullInternal = Value::stringArray({"FullInternalOS"});
    EXPECT_TRUE(wantsFirmwareArchive("Mediadesk FWPKs/fullinternal.fwpk", "x10", fullInternal));
    EXPECT_FALSE(wantsFirmwareArchive("Mediadesk FWPKs/VendorInternal.fwpk", "x10", fullInternal));
    Value vendorSet = Value::setOf({Value::string("VendorInternalOS")});
    EXPECT_TRUE(wantsFirmwareArchive("Mediadesk FWPKs/VendorInternal.fwpk", "x10", vendorSet));
    // The personalization variant must match exactly.
    EXPECT_FALSE(wantsFirmwareArchive("Mediadesk FWPKs/LiteInternal.fwpk", "x10", Value::stringArray({"liteinternalos"})));
}

TEST(SupportFiles, RootDiskImagesAreDmgNamesWithoutResourceForks) {
    EXPECT_EQ(rootDiskImages({"a.dmg", "B.DMG", "._a.dmg", "Restore", "c.dmg.signature", "d.dmg"}),
              (std::vector<std::string>{"a.dmg", "B.DMG", "d.dmg"}));
}

TEST(SupportFiles, LinksAndTheirTargetsDropOutJudgedOnTheWholeList) {
    std::map<std::string, std::string> links{{"RestoreTools.dmg", "tools-1.dmg"}, {"Home.dmg", "elsewhere.dmg"}};
    LinkReader reader = [&links](const std::string& name) -> std::optional<std::string> {
        auto found = links.find(name);
        if (found == links.end()) return std::nullopt;
        return found->second;
    };
    EXPECT_EQ(unlinkedImages({"a.dmg", "tools-1.dmg", "RestoreTools.dmg", "Home.dmg", "b.dmg"}, reader),
              (std::vector<std::string>{"a.dmg", "b.dmg"}));
}

TEST(SupportFiles, OneImageLeftThatIsTheToolsImageNeedsNothing) {
    RestoreToolsGuess guess = guessRestoreTools({kRestoreTools});
    EXPECT_EQ(guess.outcome, RestoreToolsGuess::Outcome::AlreadyInPlace);
    EXPECT_TRUE(guess.keptImages.empty());
    EXPECT_EQ(guess.warning, "");
}

TEST(SupportFiles, ASingleOtherImageIsTakenForTheToolsImage) {
    RestoreToolsGuess guess = guessRestoreTools({"tools-9.dmg"});
    EXPECT_EQ(guess.outcome, RestoreToolsGuess::Outcome::SingleImage);
    EXPECT_EQ(guess.keptImages, (std::vector<std::string>{"tools-9.dmg"}));
    EXPECT_EQ(guess.warning, "!!! WARNING: assuming single disk image \"tools-9.dmg\" at root is the RestoreTools disk image.");
}

TEST(SupportFiles, NoneOrSeveralImagesAreAllKept) {
    RestoreToolsGuess several = guessRestoreTools({"a.dmg", "b.dmg"});
    EXPECT_EQ(several.outcome, RestoreToolsGuess::Outcome::Undecided);
    EXPECT_EQ(several.keptImages, (std::vector<std::string>{"a.dmg", "b.dmg"}));
    EXPECT_EQ(several.warning,
              "!!! WARNING: unable to identify the RestoreTools disk image as there are 2 disk images left in bundle root - "
              "including them all - a.dmg, b.dmg.");
    RestoreToolsGuess none = guessRestoreTools({});
    EXPECT_EQ(none.outcome, RestoreToolsGuess::Outcome::Undecided);
    EXPECT_TRUE(none.keptImages.empty());
    EXPECT_NE(none.warning.find("there are 0 disk images"), std::string::npos);
}
