#include "lab/structural_check.hpp"

#include "check/check.hpp"
#include "core/file_block_device.hpp"
#include "core/journal/journaled_device.hpp"
#include "lab/disk_device.hpp"

namespace tavelin::test {
namespace {

std::string complaintsOf(std::shared_ptr<BlockDevice> device) {
    JournaledDevice replayed(std::move(device));
    if (const std::int32_t error = replayed.replay(true); error != 0) {
        return "the journal cannot be replayed: error " + std::to_string(error) + "\n";
    }
    return check::complaints(replayed);
}

} // namespace

std::string structuralComplaints(const std::filesystem::path& image) {
    return complaintsOf(std::make_shared<FileBlockDevice>(image.string(), 512, true));
}

std::string structuralComplaints(std::span<const std::byte> image) {
    return complaintsOf(std::make_shared<Disk>(Bytes(image.begin(), image.end())));
}

} // namespace tavelin::test
