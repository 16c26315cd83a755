// Every constant of the on-disk formats that whittle-diskimage reads and writes: the
// universal disk image container (trailer, chunk tables, resource list), the encrypted
// container around it, the partition maps involved, and the names that appear in images
// and in the attach output. Nothing else in the tool spells out a magic number or a name.
//
// All integers of the container formats are big-endian; those of the GUID partition
// table are little-endian.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

namespace whittle::diskimage::format {

inline constexpr std::uint64_t kSectorSize = 512;

// ---- Trailer ("koly"), the last 512 bytes of an image ----
namespace trailer {
inline constexpr std::string_view kSignature = "koly";
inline constexpr std::uint32_t kVersion = 4;
inline constexpr std::uint32_t kSize = 512;
inline constexpr std::uint32_t kFlagFlattened = 1;     // data fork and resource list in one file
inline constexpr std::uint32_t kVariantDevice = 1;     // a partitioned disk
inline constexpr std::uint32_t kVariantPartition = 2;  // a single unpartitioned file system

inline constexpr std::size_t kOffsetSignature = 0x000;
inline constexpr std::size_t kOffsetVersion = 0x004;
inline constexpr std::size_t kOffsetHeaderSize = 0x008;
inline constexpr std::size_t kOffsetFlags = 0x00C;
inline constexpr std::size_t kOffsetRunningDataForkOffset = 0x010;
inline constexpr std::size_t kOffsetDataForkOffset = 0x018;
inline constexpr std::size_t kOffsetDataForkLength = 0x020;
inline constexpr std::size_t kOffsetResourceForkOffset = 0x028;
inline constexpr std::size_t kOffsetResourceForkLength = 0x030;
inline constexpr std::size_t kOffsetSegmentNumber = 0x038;
inline constexpr std::size_t kOffsetSegmentCount = 0x03C;
inline constexpr std::size_t kOffsetSegmentId = 0x040;
inline constexpr std::size_t kOffsetDataForkChecksum = 0x050;
inline constexpr std::size_t kOffsetXmlOffset = 0x0D8;
inline constexpr std::size_t kOffsetXmlLength = 0x0E0;
inline constexpr std::size_t kOffsetMasterChecksum = 0x160;
inline constexpr std::size_t kOffsetImageVariant = 0x1E8;
inline constexpr std::size_t kOffsetSectorCount = 0x1EC;
}  // namespace trailer

// ---- Checksum records (trailer and chunk tables): type, size in bits, 128 value bytes ----
namespace checksum {
// CRC-32 of the zlib kind: polynomial x^32 + x^26 + ... + 1, bit n holding x^n, and
// the same bit-reflected as the table-driven computation uses it.
inline constexpr std::uint64_t kCrc32Polynomial = 0x104C11DB7ull;
inline constexpr std::uint32_t kCrc32ReflectedPolynomial = 0xEDB88320u;
inline constexpr std::uint32_t kTypeNone = 0;
inline constexpr std::uint32_t kTypeCrc32 = 2;
inline constexpr std::uint32_t kBitsCrc32 = 32;
inline constexpr std::size_t kRecordSize = 136;
inline constexpr std::size_t kValueOffset = 8;
}  // namespace checksum

// ---- Chunk table ("mish"), the Data of every blkx resource ----
namespace chunks {
inline constexpr std::string_view kSignature = "mish";
inline constexpr std::uint32_t kVersion = 1;
inline constexpr std::size_t kHeaderSize = 204;
inline constexpr std::size_t kEntrySize = 40;

inline constexpr std::size_t kOffsetSignature = 0;
inline constexpr std::size_t kOffsetVersion = 4;
inline constexpr std::size_t kOffsetFirstSector = 8;
inline constexpr std::size_t kOffsetSectorCount = 16;
inline constexpr std::size_t kOffsetDataOffset = 24;
inline constexpr std::size_t kOffsetBuffersNeeded = 32;
inline constexpr std::size_t kOffsetBlockDescriptor = 36;
inline constexpr std::size_t kOffsetChecksum = 64;
inline constexpr std::size_t kOffsetEntryCount = 200;

// Within one 40-byte entry.
inline constexpr std::size_t kEntryOffsetType = 0;
inline constexpr std::size_t kEntryOffsetComment = 4;
inline constexpr std::size_t kEntryOffsetFirstSector = 8;
inline constexpr std::size_t kEntryOffsetSectorCount = 16;
inline constexpr std::size_t kEntryOffsetStoredOffset = 24;
inline constexpr std::size_t kEntryOffsetStoredLength = 32;

inline constexpr std::uint32_t kTypeZeroFill = 0x00000000;  // reads as zeros, counted in the checksum
inline constexpr std::uint32_t kTypeRaw = 0x00000001;
inline constexpr std::uint32_t kTypeIgnore = 0x00000002;  // reads as zeros, left out of the checksum
inline constexpr std::uint32_t kTypeAdc = 0x80000004;
inline constexpr std::uint32_t kTypeZlib = 0x80000005;
inline constexpr std::uint32_t kTypeBzip2 = 0x80000006;
inline constexpr std::uint32_t kTypeLzfse = 0x80000007;
inline constexpr std::uint32_t kTypeLzma = 0x80000008;
inline constexpr std::uint32_t kTypeComment = 0x7FFFFFFE;
inline constexpr std::uint32_t kTypeTerminator = 0xFFFFFFFF;

// Stored chunks are written at most this long; every reader handles chunks of this size.
inline constexpr std::uint64_t kLargestWrittenChunkSectors = 2048;
// A run of zero sectors shorter than this stays inside a stored chunk: a separate
// table entry would cost more than it saves.
inline constexpr std::uint64_t kShortestZeroRunSectors = 8;
}  // namespace chunks

// ---- The XML resource list between the data fork and the trailer ----
namespace resources {
inline constexpr std::string_view kResourceFork = "resource-fork";
inline constexpr std::string_view kBlockTables = "blkx";
inline constexpr std::string_view kPlstResource = "plst";
inline constexpr std::string_view kAttributes = "Attributes";
inline constexpr std::string_view kAttributesValue = "0x0050";
inline constexpr std::string_view kCFName = "CFName";
inline constexpr std::string_view kData = "Data";
inline constexpr std::string_view kId = "ID";
inline constexpr std::string_view kName = "Name";

// The plst resource: 1032 bytes, all zero but two. Readers ignore it; images carry it.
inline constexpr std::size_t kPlstSize = 1032;
inline constexpr std::array<std::size_t, 2> kPlstOneBytes = {517, 519};
inline constexpr std::string_view kPlstId = "0";

// Readers refuse resource lists larger than this rather than allocate without bound.
inline constexpr std::uint64_t kLargestResourceList = 64ull << 20;
// Block descriptors of the two special entries.
inline constexpr std::uint32_t kDescriptorDriverMap = 0xFFFFFFFF;
inline constexpr std::uint32_t kDescriptorWholeDisk = 0xFFFFFFFE;
}  // namespace resources

// ---- Names of the blkx entries that whittle-diskimage writes ----
// Pattern "<partition name> (<partition type> : <index>)". The type of the volume's
// entry is a neutral name: readers pick the volume because every other entry carries
// a name they know to hold no file system ("MBR", " GPT ").
namespace layout {
inline constexpr std::string_view kProtectiveMbrName = "Protective Master Boot Record";
inline constexpr std::string_view kProtectiveMbrType = "MBR";
inline constexpr std::string_view kGptHeaderName = "GPT Header";
inline constexpr std::string_view kPrimaryGptHeaderType = "Primary GPT Header";
inline constexpr std::string_view kBackupGptHeaderType = "Backup GPT Header";
inline constexpr std::string_view kGptTableName = "GPT Partition Data";
inline constexpr std::string_view kPrimaryGptTableType = "Primary GPT Table";
inline constexpr std::string_view kBackupGptTableType = "Backup GPT Table";
inline constexpr std::string_view kVolumePartitionName = "disk image";
inline constexpr std::string_view kVolumePartitionType = "HFS+";
}  // namespace layout

// ---- The image formats and ciphers that create writes ----
namespace create {
inline constexpr std::string_view kReadOnlyFormat = "UDRO";
inline constexpr std::string_view kCipher = "AES-128";
inline constexpr std::string_view kImageExtension = ".dmg";
// Volume names are cut to this many bytes.
inline constexpr std::size_t kLongestVolumeName = 32;
}  // namespace create

// ---- GUID partition table ----
namespace gpt {
inline constexpr std::string_view kSignature = "EFI PART";
inline constexpr std::uint32_t kRevision = 0x00010000;
inline constexpr std::uint32_t kHeaderSize = 92;
inline constexpr std::uint32_t kEntryCount = 128;
inline constexpr std::uint32_t kEntrySize = 128;
inline constexpr std::uint64_t kTableSectors = kEntryCount * kEntrySize / kSectorSize;  // 32
inline constexpr std::uint64_t kPrimaryHeaderSector = 1;
inline constexpr std::uint64_t kPrimaryTableSector = 2;
inline constexpr std::uint64_t kFirstUsableSector = kPrimaryTableSector + kTableSectors;  // 34
inline constexpr std::size_t kEntryNameCharacters = 36;

// Header field offsets.
inline constexpr std::size_t kOffsetSignature = 0;
inline constexpr std::size_t kOffsetRevision = 8;
inline constexpr std::size_t kOffsetHeaderSize = 12;
inline constexpr std::size_t kOffsetHeaderCrc = 16;
inline constexpr std::size_t kOffsetCurrentLba = 24;
inline constexpr std::size_t kOffsetBackupLba = 32;
inline constexpr std::size_t kOffsetFirstUsableLba = 40;
inline constexpr std::size_t kOffsetLastUsableLba = 48;
inline constexpr std::size_t kOffsetDiskGuid = 56;
inline constexpr std::size_t kOffsetEntriesLba = 72;
inline constexpr std::size_t kOffsetEntryCount = 80;
inline constexpr std::size_t kOffsetEntrySize = 84;
inline constexpr std::size_t kOffsetEntriesCrc = 88;

// Entry field offsets.
inline constexpr std::size_t kEntryOffsetType = 0;
inline constexpr std::size_t kEntryOffsetUnique = 16;
inline constexpr std::size_t kEntryOffsetFirstLba = 32;
inline constexpr std::size_t kEntryOffsetLastLba = 40;
inline constexpr std::size_t kEntryOffsetName = 56;

// The HFS+ partition type, in the mixed-endian byte order of the table, and as text.
inline constexpr std::array<unsigned char, 16> kHfsPlusTypeBytes = {0x00, 0x53, 0x46, 0x48, 0x00, 0x00, 0xAA, 0x11,
                                                                    0xAA, 0x11, 0x00, 0x30, 0x65, 0x43, 0xEC, 0xAC};
inline constexpr std::string_view kHfsPlusTypeText = "48465300-0000-11AA-AA11-00306543ECAC";

// Protective master boot record: one entry of type 0xEE from sector 1 over the disk,
// from CHS 0/0/2 to the largest CHS address.
inline constexpr std::size_t kMbrFirstEntryOffset = 446;
inline constexpr std::size_t kMbrEntryOffsetStartChs = 1;
inline constexpr std::size_t kMbrEntryOffsetType = 4;
inline constexpr std::size_t kMbrEntryOffsetEndChs = 5;
inline constexpr std::size_t kMbrEntryOffsetFirstLba = 8;
inline constexpr std::size_t kMbrEntryOffsetSectorCount = 12;
inline constexpr std::array<unsigned char, 3> kMbrStartChs = {0x00, 0x02, 0x00};
inline constexpr std::array<unsigned char, 3> kMbrEndChs = {0xFF, 0xFF, 0xFF};
inline constexpr unsigned char kMbrProtectiveType = 0xEE;
inline constexpr std::size_t kMbrSignatureOffset = 510;
inline constexpr std::array<unsigned char, 2> kMbrSignature = {0x55, 0xAA};
}  // namespace gpt

// ---- HFS+ volumes (all integers big-endian) ----
namespace hfs {
inline constexpr std::uint64_t kVolumeHeaderOffset = 1024;
inline constexpr std::uint64_t kVolumeHeaderSize = 512;
// The alternate volume header lies this far before the end of the volume.
inline constexpr std::uint64_t kAlternateHeaderFromEnd = 1024;
inline constexpr std::string_view kPlusSignature = "H+";
inline constexpr std::string_view kExtendedSignature = "HX";
inline constexpr std::uint16_t kPlusVersion = 4;
inline constexpr std::uint32_t kBlockSize = 4096;
inline constexpr std::uint32_t kNodeSize = 4096;  // of every B-tree written
inline constexpr std::uint32_t kAttributeUnmounted = 1u << 8;  // cleanly unmounted
// "10.0": the version of the implementation that last mounted the volume.
inline constexpr std::uint32_t kLastMountedVersion = 0x31302E30;
inline constexpr std::uint32_t kClumpSize = 65536;
inline constexpr std::uint64_t kRomanEncodingBit = 1;  // text encoding 0, of every name written
// Seconds from 1904-01-01 (HFS+ dates) to 1970-01-01 (POSIX times), both UTC.
inline constexpr std::int64_t kDateOffset = 2082844800;

// Volume header field offsets.
inline constexpr std::size_t kHeaderSignature = 0;
inline constexpr std::size_t kHeaderVersion = 2;
inline constexpr std::size_t kHeaderAttributes = 4;
inline constexpr std::size_t kHeaderLastMountedVersion = 8;
inline constexpr std::size_t kHeaderCreateDate = 16;
inline constexpr std::size_t kHeaderModifyDate = 20;
inline constexpr std::size_t kHeaderCheckedDate = 28;
inline constexpr std::size_t kHeaderFileCount = 32;
inline constexpr std::size_t kHeaderFolderCount = 36;
inline constexpr std::size_t kHeaderBlockSize = 40;
inline constexpr std::size_t kHeaderTotalBlocks = 44;
inline constexpr std::size_t kHeaderFreeBlocks = 48;
inline constexpr std::size_t kHeaderNextAllocation = 52;
inline constexpr std::size_t kHeaderResourceClumpSize = 56;
inline constexpr std::size_t kHeaderDataClumpSize = 60;
inline constexpr std::size_t kHeaderNextCatalogId = 64;
inline constexpr std::size_t kHeaderWriteCount = 68;
inline constexpr std::size_t kHeaderEncodingsBitmap = 72;
inline constexpr std::size_t kHeaderVolumeIdentifier = 104;  // the last 8 bytes of the Finder information
inline constexpr std::size_t kHeaderAllocationFile = 112;
inline constexpr std::size_t kHeaderExtentsFile = 192;
inline constexpr std::size_t kHeaderCatalogFile = 272;
inline constexpr std::size_t kHeaderAttributesFile = 352;

// Fork data (80 bytes): logical size, clump size, total blocks, eight extents.
inline constexpr std::size_t kForkSize = 80;
inline constexpr std::size_t kForkClumpSize = 8;
inline constexpr std::size_t kForkTotalBlocks = 12;
inline constexpr std::size_t kForkExtents = 16;

// Catalog node IDs.
inline constexpr std::uint32_t kRootParentId = 1;
inline constexpr std::uint32_t kRootFolderId = 2;
inline constexpr std::uint32_t kFirstUserId = 16;

// Catalog records.
inline constexpr std::uint16_t kFolderRecord = 1;
inline constexpr std::uint16_t kFileRecord = 2;
inline constexpr std::uint16_t kFolderThreadRecord = 3;
inline constexpr std::uint16_t kFileThreadRecord = 4;
inline constexpr std::size_t kFolderRecordSize = 88;
inline constexpr std::size_t kFileRecordSize = 248;
inline constexpr std::uint16_t kFileThreadExists = 0x0002;
// Offsets shared by folder and file records.
inline constexpr std::size_t kRecordFlags = 2;
inline constexpr std::size_t kRecordValence = 4;  // folders only
inline constexpr std::size_t kRecordId = 8;
inline constexpr std::size_t kRecordDates = 12;  // create, content, attribute, access, backup
inline constexpr std::size_t kRecordOwner = 32;
inline constexpr std::size_t kRecordGroup = 36;
inline constexpr std::size_t kRecordMode = 42;
inline constexpr std::size_t kRecordSpecial = 44;
inline constexpr std::size_t kRecordFinderInfo = 48;
inline constexpr std::size_t kFileRecordDataFork = 88;
// Owner and group of every item: "unknown", so that the image does not depend on who
// made the folder.
inline constexpr std::uint32_t kUnknownOwner = 99;
// A symbolic link is a file of this type and creator whose data is its target.
inline constexpr std::string_view kSymlinkType = "slnk";
inline constexpr std::string_view kSymlinkCreator = "rhap";

// B-trees.
inline constexpr std::size_t kNodeDescriptorSize = 14;
inline constexpr std::size_t kHeaderRecordSize = 106;
inline constexpr std::size_t kUserDataRecordSize = 128;
inline constexpr std::int8_t kLeafNode = -1;
inline constexpr std::int8_t kIndexNode = 0;
inline constexpr std::int8_t kHeaderNode = 1;
inline constexpr std::uint32_t kBigKeys = 0x2;
inline constexpr std::uint32_t kVariableIndexKeys = 0x4;
inline constexpr std::uint16_t kCatalogLongestKey = 516;
inline constexpr std::uint16_t kExtentsLongestKey = 10;
inline constexpr std::uint16_t kAttributesLongestKey = 266;
// Items the file system keeps at the root of a volume and hides on a mounted one;
// the extractor writes them as ordinary entries, so attach removes them.
inline constexpr std::array<std::string_view, 4> kHiddenRootItems = {
    ".HFS+ Private Directory Data\r", "[HFS+ Private Data]", ".journal", ".journal_info_block"};
}  // namespace hfs

// ---- What partition types mean to attach ----
namespace partitions {
// Substrings of blkx names that the extractor treats as holding no file system; any
// other entry is a volume candidate. Vendor-prefixed types are matched by their ending.
inline constexpr std::array<std::string_view, 7> kNonFileSystemMarkers = {"_Free", "DDM",    "_partition_map", " GPT ",
                                                                          "MBR",   "Driver", "Patches"};
inline constexpr std::string_view kEfiSystemTypeText = "C12A7328-F81F-11D2-BA4B-00A0C93EC93B";
// Markers of the two partition schemes.
inline constexpr std::array<std::string_view, 2> kGptMarkers = {"MBR", "GPT"};
inline constexpr std::string_view kDriverMapType = "DDM";
inline constexpr std::string_view kFreeSuffix = "_Free";
inline constexpr std::string_view kMapSuffix = "_partition_map";
inline constexpr std::string_view kSchemeSuffix = "_partition_scheme";
// HFS family types, by ending, for the volume kind.
inline constexpr std::array<std::string_view, 2> kHfsTypeSuffixes = {"_HFS", "_HFSX"};
}  // namespace partitions

// ---- The attach output ----
namespace attach {
inline constexpr std::string_view kSystemEntities = "system-entities";
inline constexpr std::string_view kContentHint = "content-hint";
inline constexpr std::string_view kUnmappedContentHint = "unmapped-content-hint";
inline constexpr std::string_view kDevEntry = "dev-entry";
inline constexpr std::string_view kMountPoint = "mount-point";
inline constexpr std::string_view kPotentiallyMountable = "potentially-mountable";
inline constexpr std::string_view kVolumeKind = "volume-kind";
inline constexpr std::string_view kVolumeKindHfs = "hfs";
inline constexpr std::string_view kGuidScheme = "GUID_partition_scheme";
inline constexpr std::string_view kDevicePrefix = "/dev/disk";
inline constexpr std::string_view kSliceSeparator = "s";
}  // namespace attach

// ---- What imageinfo -checksum and eject print ----
namespace report {
inline constexpr std::string_view kChecksumTypeLine = "Checksum Type: ";
inline constexpr std::string_view kChecksumValueLine = "Checksum Value: $";
inline constexpr std::string_view kCrc32Name = "CRC32";
inline constexpr std::string_view kNoChecksumName = "none";
inline constexpr std::string_view kEjectedSuffix = "\" ejected.";
}  // namespace report

// ---- Encrypted container ("encrcdsa", version 2) ----
namespace encrypted {
inline constexpr std::string_view kSignature = "encrcdsa";
inline constexpr std::uint32_t kVersion = 2;
// The obsolete first version keeps its signature in the last bytes of the file.
inline constexpr std::string_view kOldSignature = "cdsaencr";

inline constexpr std::size_t kOffsetVersion = 8;
inline constexpr std::size_t kOffsetIvSize = 12;
inline constexpr std::size_t kOffsetCipherMode = 16;
inline constexpr std::size_t kOffsetCipherAlgorithm = 20;
inline constexpr std::size_t kOffsetKeyBits = 24;
inline constexpr std::size_t kOffsetPrngAlgorithm = 28;
inline constexpr std::size_t kOffsetHmacKeyBits = 32;
inline constexpr std::size_t kOffsetUuid = 36;
inline constexpr std::size_t kOffsetBlockSize = 52;
inline constexpr std::size_t kOffsetDataSize = 56;
inline constexpr std::size_t kOffsetDataOffset = 64;
inline constexpr std::size_t kOffsetKeyCount = 72;
inline constexpr std::size_t kFixedHeaderSize = 76;
inline constexpr std::size_t kKeyPointerSize = 20;  // u32 type, u64 offset, u64 size

inline constexpr std::uint32_t kIvSize = 16;
inline constexpr std::uint32_t kCipherMode = 5;
inline constexpr std::uint32_t kCipherAes = 0x80000001;
inline constexpr std::uint32_t kPrngAlgorithm = 0x5B;
inline constexpr std::uint32_t kHmacKeyBits = 160;
inline constexpr std::uint32_t kKeyTypePassword = 1;

// Password key record.
inline constexpr std::size_t kRecordOffsetKdf = 0;
inline constexpr std::size_t kRecordOffsetPrf = 4;
inline constexpr std::size_t kRecordOffsetIterations = 8;
inline constexpr std::size_t kRecordOffsetSaltLength = 12;
inline constexpr std::size_t kRecordOffsetSalt = 16;
inline constexpr std::size_t kRecordOffsetWrapIvLength = 48;
inline constexpr std::size_t kRecordOffsetWrapIv = 52;
inline constexpr std::size_t kRecordOffsetWrapKeyBits = 84;
inline constexpr std::size_t kRecordOffsetWrapAlgorithm = 88;
inline constexpr std::size_t kRecordOffsetWrapPadding = 92;
inline constexpr std::size_t kRecordOffsetWrapMode = 96;
inline constexpr std::size_t kRecordOffsetBlobLength = 100;
inline constexpr std::size_t kRecordOffsetBlob = 104;
inline constexpr std::size_t kRecordSize = 616;
inline constexpr std::size_t kRecordFieldCapacity = 32;  // salt and wrap IV fields
inline constexpr std::size_t kBlobCapacity = 512;

inline constexpr std::uint32_t kKdfPbkdf2 = 103;
inline constexpr std::uint32_t kPrfHmacSha1 = 0;
inline constexpr std::uint32_t kWrapTripleDes = 17;
inline constexpr std::uint32_t kWrapPaddingPkcs7 = 7;
inline constexpr std::uint32_t kWrapModeCbc = 6;
inline constexpr std::uint32_t kWrapKeyBits = 192;
inline constexpr std::size_t kWrapIvLength = 8;
inline constexpr std::size_t kSaltLength = 20;
inline constexpr std::size_t kHmacKeyLength = 20;
inline constexpr std::string_view kKeyBlobMarker = "CKIE";  // followed by one zero byte

// What whittle-diskimage writes.
inline constexpr std::uint32_t kWrittenKeyBits = 128;
inline constexpr std::uint32_t kWrittenBlockSize = 512;
inline constexpr std::uint64_t kWrittenDataOffset = 0x1DE00;
inline constexpr std::uint64_t kWrittenRecordOffset = 0x60;
inline constexpr std::uint32_t kWrittenIterations = 160000;
// The master checksum of the inner image, readable without the key, in the header
// area that is otherwise zeros: a marker, then a checksum record.
inline constexpr std::size_t kClearChecksumOffset = 0x400;
inline constexpr std::string_view kClearChecksumMarker = "CHECKSUM";
inline constexpr std::size_t kClearChecksumEnd = kClearChecksumOffset + 8 + checksum::kRecordSize;

// Readers refuse values outside these bounds as damaged or hostile (a key derivation
// of the largest count takes a few seconds; only the first few password records are
// tried).
inline constexpr std::uint32_t kLargestIterationCount = 4'000'000;
inline constexpr std::size_t kMostPasswordRecordsTried = 4;
inline constexpr std::uint32_t kSmallestBlockSize = 512;
inline constexpr std::uint32_t kLargestBlockSize = 1u << 20;
inline constexpr std::uint32_t kLargestKeyCount = 16;
}  // namespace encrypted

}  // namespace whittle::diskimage::format
