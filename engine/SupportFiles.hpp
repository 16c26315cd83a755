// The support material at a bundle's root that both engines keep or leave out by
// option and by name: the Debug and BundleImages folders, the images behind the
// home-diagnostics and SDK links, the factory disk image, the firmware archives and the
// restore tools image.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "support/Value.hpp"

namespace whittle {

// ---- folders and linked images kept on request ----

// A root folder kept with its direct entries when its option is set (no option: never
// kept). The messages take the number of paths kept or left out.
struct OptionalFolder {
    const char* option;
    const char* folder;
    const char* foundMessage;
    const char* scrubMessage;
};
inline constexpr OptionalFolder kDebugFolder{"keepDebug", "Debug", "+++ Debug folder found %d items.",
                                             "--- Debug folder scrub %d items."};
inline constexpr OptionalFolder kBundleImagesFolder{"keepBundleImages", "BundleImages", "+++ BundleImages found %d items.",
                                                    "--- BundleImages scrub %d items."};

// An image kept together with the root link that names it when its option is set. The
// found message is given the link's target, which it may name.
struct OptionalLinkedImage {
    const char* option;
    const char* link;
    const char* foundMessage;
    const char* scrubMessage;
};
inline constexpr OptionalLinkedImage kHomeDiagnosticsImage{"keepHomeDiagnostics", "HomeDiagnostic.dmg",
                                                           "+++ HomeDiagnostics found.", "--- HomeDiagnostics scrub."};
inline constexpr OptionalLinkedImage kSDKImage{"keepSDK", "HandsetSDKInternalNonUI.dmg", "+++ NonUI SDK found \"%@\".",
                                               "--- NonUI SDK scrub."};

// ---- the factory disk image: kept only together with its signature ----

inline constexpr const char* kFactoryDiskImage = "FactoryDiskImage.dmg";
inline constexpr const char* kFactoryDiskImageSignature = "FactoryDiskImage.dmg.signature";

// ---- firmware archives ----

inline constexpr const char* kFirmwareArchives = "Mediadesk FWPKs";

// True for an entry of the firmware archives folder that is an archive: not the folder
// itself, and a name ending in "FWPK" in any case.
bool isFirmwareArchive(std::string_view entry);

// True when a request for the product wants the archive: its name carries the product,
// or an operating system ("FullInternal", "VendorInternal", "LiteInternal") whose
// personalization variant (the same name + "OS") is among the requested ones (an
// array or a set of names). Names are compared without regard to case.
bool wantsFirmwareArchive(std::string_view archive, std::string_view product, const Value& personalizations);

// ---- the restore tools image ----

inline constexpr const char* kRestoreTools = "RestoreTools.dmg";

// The target of the link at a bundle-relative path; none when the path is no link.
using LinkReader = std::function<std::optional<std::string>(const std::string&)>;

// The root names that may be disk images: ending in ".dmg" in any case, and not
// beginning with "._".
std::vector<std::string> rootDiskImages(const std::vector<std::string>& rootNames);

// The images less every one that is a link and every one such a link points at, all
// judged on the list as given; the order stays.
std::vector<std::string> unlinkedImages(const std::vector<std::string>& images, const LinkReader& linkTarget);

// What the unlinked root images say about the restore tools image when no link names
// it: nothing to do when the one image left is "RestoreTools.dmg" itself; a single other
// image is taken for it (and linked under its name); otherwise every image left is kept.
struct RestoreToolsGuess {
    enum class Outcome { AlreadyInPlace, SingleImage, Undecided };
    Outcome outcome = Outcome::AlreadyInPlace;
    std::vector<std::string> keptImages;  // empty when already in place
    std::string warning;                  // "" when already in place
};
RestoreToolsGuess guessRestoreTools(const std::vector<std::string>& unlinked);

}  // namespace whittle
