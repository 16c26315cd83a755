// Writes the seed inputs of the fuzz corpora, made by the project's own writers and
// taken from its example bundle, so that every seed's origin is this project.
// Usage: fuzz_seed_maker PROJECT_SOURCE_DIR CORPUS_DIR
#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>

#include "platform/bom/BomWriter.hpp"
#include "platform/diskimage/BlockTables.hpp"
#include "platform/diskimage/Bytes.hpp"
#include "platform/diskimage/DiskImageFormat.hpp"
#include "platform/diskimage/EncryptedContainer.hpp"
#include "platform/diskimage/Udif.hpp"
#include "support/FileSystem.hpp"
#include "support/PlistCodec.hpp"

namespace fs = std::filesystem;
namespace dmg = whittle::diskimage;
using whittle::Value;

namespace {

fs::path corpus;
fs::path source;

void seed(const std::string& harness, const std::string& name, const std::string& bytes) {
    fs::create_directories(corpus / harness);
    std::ofstream out(corpus / harness / name, std::ios::binary);
    out << bytes;
    if (!out) throw std::runtime_error("cannot write seed " + name);
}

std::string exampleFile(const std::string& relative) {
    auto bytes = whittle::readWholeFile((source / "examples/RestoreBundle" / relative).string());
    if (!bytes) throw std::runtime_error("missing example file " + relative);
    return *bytes;
}

Value sampleTree() {
    Value dict = Value::dictionary();
    dict.set("Name", Value::string("x10"));
    dict.set("Count", Value::integer(-5));
    dict.set("Ratio", Value::real(7.25));
    dict.set("Flag", Value::boolean(true));
    dict.set("Bytes", Value::data(std::string("\x00\x01\xfe", 3)));
    dict.set("When", Value::date(whittle::Date{86400}));
    dict.set("Caf\xC3\xA9", Value::string("\xE2\x82\xAC"));
    Value shared = Value::string("shared");
    dict.set("List", Value::array({shared, shared, Value::array({Value::dictionary()}), shared}));
    return dict;
}

void plistSeeds() {
    Value tree = sampleTree();
    seed("plist", "sample.xml", whittle::xmlPropertyList(tree));
    seed("plist", "sample.bplist", whittle::binaryPropertyList(tree));
    for (const char* name : {"Restore/Restore.plist", "Restore/Firmware/device_map.plist"}) {
        Value example = whittle::parsePropertyList(exampleFile(name));
        std::string base = fs::path(name).stem().string();
        seed("plist", base + ".xml", whittle::xmlPropertyList(example));
        seed("plist", base + ".bplist", whittle::binaryPropertyList(example));
    }
}

void firmwareMapSeeds() {
    seed("firmware_maps", "device_map.txt", std::string(1, '\0') + exampleFile("Restore/Firmware/device_map.txt"));
    seed("firmware_maps", "target_map.txt", std::string(1, '\1') + exampleFile("Restore/Firmware/target_map.txt"));
    seed("firmware_maps", "device_map.plist", std::string(1, '\2') + exampleFile("Restore/Firmware/device_map.plist"));
    seed("firmware_maps", "platform_keys.plist",
         std::string(1, '\3') + exampleFile("Restore/Firmware/platform_keys.plist"));
    std::string binaryKeys = whittle::binaryPropertyList(
        whittle::parsePropertyList(exampleFile("Restore/Firmware/platform_keys.plist")));
    seed("firmware_maps", "platform_keys.bplist", std::string(1, '\3') + binaryKeys);
}

void bomSeeds() {
    seed("bom", "root-only.bom", whittle::bom::writeSimpleBom(whittle::bom::entriesFromFileList(".\n")));
    seed("bom", "tree.bom",
         whittle::bom::writeSimpleBom(whittle::bom::entriesFromFileList(
             ".\n./Restore\n./Restore/BuildManifest.plist\n./Restore/Firmware\n./Restore/Firmware/dfu\n"
             "./Restore/Firmware/dfu/iBSS.x10.RELEASE.dfu\n./Restore.plist\n")));
}

// Sectors that mix data and runs of zeros, so that tables hold raw and zero chunks.
std::string sampleSectors() {
    std::string sectors(40 * 512, '\0');
    for (std::size_t i = 0; i < 512 * 3; ++i) sectors[i] = static_cast<char>(i * 7);
    for (std::size_t i = 20 * 512; i < 21 * 512; ++i) sectors[i] = 'x';
    return sectors;
}

void diskImageSeeds() {
    std::string sectors = sampleSectors();
    dmg::BlockTableBuilder tables;
    tables.beginEntry("Protective Master Boot Record", "MBR");
    tables.addSectors(sectors.substr(0, 512), 0);
    tables.beginEntry("disk image", "Apple_HFS");
    tables.addSectors(sectors.substr(512), 512);
    tables.endEntry();
    seed("chunk_table", "raw-and-zero.mish", dmg::serializeChunkTable(tables.entries()[1].table));
    seed("chunk_table", "one-sector.mish", dmg::serializeChunkTable(tables.entries()[0].table));
    seed("udif", "raw.dmg", sectors + dmg::imageTail(tables.entries(), sectors.size(), 1));


    int fd = ::memfd_create("container", 0);
    {
        dmg::EncryptingSink sink(fd, "seed.dmg", "secret", {1000, 512});
        sink.write(sectors.substr(0, 4096));
        sink.finish();
    }
    std::string container(static_cast<std::size_t>(::lseek(fd, 0, SEEK_END)), '\0');
    if (::pread(fd, container.data(), container.size(), 0) != static_cast<ssize_t>(container.size()))
        throw std::runtime_error("cannot read the container back");
    ::close(fd);
    // The container with its data moved up to just after the password record.
    namespace enc = dmg::format::encrypted;
    std::uint64_t dataOffset = dmg::readBig64(container, enc::kOffsetDataOffset);
    std::string compact = container.substr(0, 0x400) + container.substr(dataOffset);
    dmg::writeBigEndian(compact, enc::kOffsetDataOffset, 0x400, 8);
    seed("encrypted_header", "secret-1000-compact.dmg", compact);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) {
        std::fprintf(stderr, "usage: fuzz_seed_maker PROJECT_SOURCE_DIR CORPUS_DIR\n");
        return 2;
    }
    source = argv[1];
    corpus = argv[2];
    try {
        plistSeeds();
        firmwareMapSeeds();
        bomSeeds();
        diskImageSeeds();
    } catch (const std::exception& error) {
        std::fprintf(stderr, "fuzz_seed_maker: %s\n", error.what());
        return 1;
    }
    return 0;
}
