// Reparse points as Windows, WSL and others make them, and a volume that has one of each kind.
#pragma once

#include "support/driver_mount.hpp"
#include "support/little_endian.hpp"

#include <cstdint>
#include <string>
#include <vector>

namespace tavelin::test {

std::string utf16(const std::string& ascii);

// The values of $REPARSE_POINT attributes.
std::string reparseData(uint32_t tag, const std::string& body);
std::string symlinkData(const std::string& target, bool isRelative);
std::string junctionData(const std::string& target); // with the prefix "\\??\" as Windows has it
std::string wslLinkData(const std::string& target);

struct ReparseItem {
    enum class Kind { compressed, refused, link, fifo, socket, charDevice, blockDevice };

    std::string name;
    uint32_t tag;
    Kind kind;
    std::string data;    // of the reparse point; empty where the driver makes it
    std::string content; // what the file must read as; of a link, its target in a mount
};

// One item of each kind; the names say what they are.
const std::vector<ReparseItem>& reparseItems();

// Makes them in a directory of a mount with these options. Each file
// that is refused has a stream "note" with "kept" in it and an unnamed stream of zeros, as Windows
// leaves them.
inline constexpr const char* kReparseItemOptions = "streams_interface=windows,special_files=wsl";
void makeReparseItem(const DriverMount& driver, const std::string& path, const ReparseItem& item);
void makeReparseItems(const DriverMount& driver, const std::string& directory);

} // namespace tavelin::test
