#include "support/reparse_items.hpp"

#include "compression/oracle.hpp"

#include <random>
#include <sys/sysmacros.h>

namespace tavelin::test {

namespace fs = std::filesystem;

std::string utf16(const std::string& ascii) {
    std::string text;
    for (const char c : ascii) {
        text += {c, '\0'};
    }
    return text;
}

std::string reparseData(uint32_t tag, const std::string& body) {
    return littleEndian(tag, 4) + littleEndian(body.size(), 2) + littleEndian(0, 2) + body;
}

std::string symlinkData(const std::string& target, bool isRelative) {
    const std::string name = utf16(target);
    return reparseData(0xA000000C, littleEndian(0, 2) + littleEndian(name.size(), 2) +
                                       littleEndian(name.size(), 2) + littleEndian(name.size(), 2) +
                                       littleEndian(isRelative ? 1 : 0, 4) + name + name);
}

std::string junctionData(const std::string& target) {
    const std::string print = utf16(target);
    const std::string name = utf16("\\??\\" + target);
    return reparseData(0xA0000003, littleEndian(0, 2) + littleEndian(name.size(), 2) +
                                       littleEndian(name.size() + 2, 2) +
                                       littleEndian(print.size(), 2) + name + std::string(2, '\0') +
                                       print + std::string(2, '\0'));
}

std::string wslLinkData(const std::string& target) {
    return reparseData(0xA000001D, littleEndian(2, 4) + target);
}

namespace {

using Kind = ReparseItem::Kind;
using compression::Format;

constexpr uint32_t kWof = 0x80000017;

std::string wofData(uint32_t provider, uint32_t algorithm) {
    return reparseData(kWof, littleEndian(1, 4) + littleEndian(provider, 4) + littleEndian(1, 4) +
                                 littleEndian(algorithm, 4));
}

// Half words, half noise: some chunks shrink and some do not.
std::string halfCompressible(std::size_t size, unsigned seed) {
    std::mt19937 random(seed);
    std::string text;
    while (text.size() < size) {
        const bool isNoise = text.size() / 20'000 % 2 == 1;
        text += isNoise ? std::string(1, static_cast<char>(random()))
                        : "the record " + std::to_string(random() % 100) + " of the volume, ";
    }
    text.resize(size);
    return text;
}

ReparseItem compressed(const std::string& name, Format format, std::size_t size) {
    const auto number = static_cast<uint32_t>(format);
    return {name, kWof, Kind::compressed, wofData(2, number), halfCompressible(size, number)};
}

ReparseItem refused(const std::string& name, uint32_t tag, const std::string& body = "anything") {
    // The identifier that a tag of another vendor is followed by is not counted.
    constexpr uint32_t kMicrosoft = 0x80000000;
    std::string data = reparseData(tag, body);
    if ((tag & kMicrosoft) == 0) {
        data.replace(4, 2, littleEndian(body.size() - 16, 2));
    }
    return {name, tag, Kind::refused, data, {}};
}

void makeSpecial(const DriverMount& driver, const std::string& path, Kind kind) {
    const mode_t type = kind == Kind::fifo         ? S_IFIFO
                        : kind == Kind::socket     ? S_IFSOCK
                        : kind == Kind::charDevice ? S_IFCHR
                                                   : S_IFBLK;
    driver.makeSpecial(path, type, makedev(5, 300));
}

void makeFile(const DriverMount& driver, const std::string& path, const ReparseItem& item) {
    driver.make(path);
    switch (item.kind) {
    case Kind::compressed: {
        const Bytes content(item.content.begin(), item.content.end());
        const auto format = static_cast<Format>(item.data[20]);
        const Bytes stream = compressedStream(format, content);
        driver.make(path + ":WofCompressedData", std::string(stream.begin(), stream.end()));
        fs::resize_file(driver.path(path), item.content.size());
        break;
    }
    case Kind::refused:
        driver.make(path + ":note", "kept");
        fs::resize_file(driver.path(path), 70'000);
        break;
    default:
        break;
    }
}

} // namespace

const std::vector<ReparseItem>& reparseItems() {
    static const std::vector<ReparseItem> items{
        compressed("xpress4k", Format::xpress4K, 150'000),
        compressed("xpress8k", Format::xpress8K, 8192 * 12),
        compressed("xpress16k", Format::xpress16K, 100'001),
        compressed("lzx", Format::lzx32K, 300'000),
        {"image file", kWof, Kind::refused, wofData(1, 0), {}},
        {"unknown compression", kWof, Kind::refused, wofData(2, 7), {}},
        refused("deduplicated", 0x80000013),
        refused("cloud", 0x9000601A),
        refused("cloud of old", 0x9000001A),
        refused("onedrive", 0x80000021),
        refused("application", 0x8000001B),
        refused("storage", 0xC0000004),
        refused("projected", 0x9000001C),
        refused("foreign", 0x00000042,
                "sixteen bytes id"
                "of some vendor"),
        {"symlink", 0xA000000C, Kind::link, symlinkData("..\\real\\file", true), "../real/file"},
        {"junction", 0xA0000003, Kind::link, junctionData("C:\\real"), "../real"},
        {"wsl link", 0xA000001D, Kind::link, wslLinkData("/mnt/c/real"), "/mnt/c/real"},
        {"socket", 0x80000023, Kind::socket, {}, {}},
        {"fifo", 0x80000024, Kind::fifo, {}, {}},
        {"character device", 0x80000025, Kind::charDevice, {}, {}},
        {"block device", 0x80000026, Kind::blockDevice, {}, {}},
    };
    return items;
}

void makeReparseItem(const DriverMount& driver, const std::string& path, const ReparseItem& item) {
    if (item.data.empty()) {
        makeSpecial(driver, path, item.kind);
        return;
    }
    if (item.tag == 0xA0000003) {
        fs::create_directory(driver.path(path));
    } else {
        makeFile(driver, path, item);
    }
    driver.set(path, "system.ntfs_reparse_data", item.data);
}

void makeReparseItems(const DriverMount& driver, const std::string& directory) {
    fs::create_directories(driver.path(directory));
    for (const ReparseItem& item : reparseItems()) {
        makeReparseItem(driver, directory + "/" + item.name, item);
    }
}

} // namespace tavelin::test
