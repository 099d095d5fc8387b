// Changes the structures of a volume in memory, for tests that damage it one structure at a time.
#pragma once

#include "NTFSBridge/ondisk/boot_sector.hpp"
#include "NTFSBridge/ondisk/file_record.hpp"
#include "NTFSBridge/ondisk/mapping_pairs.hpp"

#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace tavelin::test {

// Throws std::runtime_error for what is not there. $MFT has to be in one piece, as on small
// volumes; files are found by their names in the file records.
class ImageEditor {
  public:
    using Bytes = std::span<uint8_t>;
    using Edit = std::function<void(Bytes)>;

    explicit ImageEditor(std::vector<uint8_t>& image);

    const ntb::boot_sector& boot() const { return boot_; }
    std::vector<uint8_t>& image() { return image_; }
    uint64_t recordCount() const { return recordCount_; }
    // The number of a file's record by its path, "/a/b".
    uint64_t record(const std::string& path) const;

    // The bytes of a record as they are on the device, and their place there.
    Bytes rawRecord(uint64_t number);
    uint64_t offsetOfRecord(uint64_t number) const;
    // Edits a record between taking its fixups off and putting them on again.
    void editRecord(uint64_t number, const Edit& edit);
    // The same of one attribute; `nth` of those with the type and name. Looks into the extension
    // records, too, which it finds by their base.
    void editAttribute(uint64_t number, uint32_t type, std::string_view name, const Edit& edit,
                       unsigned nth = 0);
    // The same of an attribute's value, which is in the record or in clusters of one run.
    void editValue(uint64_t number, uint32_t type, std::string_view name, const Edit& edit);
    // An index block of $I30, between taking its fixups off and putting them on again.
    void editIndexBlock(uint64_t directory, uint64_t block, const Edit& edit);
    uint64_t offsetOfIndexBlock(uint64_t directory, uint64_t block);
    // The entry of a name in a directory's index, wherever in the tree it is.
    void editEntry(uint64_t directory, std::string_view name, const Edit& edit);

    // An entry before all others in the root of an index.
    void addRootEntry(uint64_t number, std::string_view name, Bytes entry);
    // A record that was in use.
    uint64_t freeRecord();

    // The runs of an attribute, and new ones in their place, which must fit.
    std::vector<ntb::run> runs(uint64_t number, uint32_t type, std::string_view name = {});
    void setRuns(uint64_t number, uint32_t type, std::string_view name,
                 const std::vector<ntb::run>& runs);
    // A bit of a bitmap in an attribute.
    void setBit(uint64_t number, uint32_t type, std::string_view name, uint64_t bit, bool value);

  private:
    void mapPaths();
    bool editEntryIn(Bytes block, size_t header, std::string_view name, const Edit& edit);
    void withAttribute(uint64_t number, uint32_t type, std::string_view name, unsigned nth,
                       const std::function<void(ntb::attribute_view, Bytes record)>& work);

    std::vector<uint8_t>& image_;
    ntb::boot_sector boot_;
    uint64_t recordCount_ = 0;
    std::map<std::string, uint64_t> records_;
};

// Edits an image in a file.
void editImage(const std::filesystem::path& file, const std::function<void(ImageEditor&)>& edit);

// Makes a plain file with its data in clusters look as Windows leaves an encrypted one (EFS), which
// no driver here can make: the flags of the file and of its unnamed data.
void markEncrypted(ImageEditor& editor, const std::string& path);

} // namespace tavelin::test
