#include "hosting/image_resource.hpp"

#include "platform/assert.hpp"
#include "platform/error_numbers.hpp"

#include <algorithm>
#include <cerrno>
#include <span>
#include <vector>

namespace tavelin {

namespace {

constexpr std::uint64_t kBootBytes = 512; ///< of a boot sector, whatever the device's sectors are

void check(int hostError) {
    if (hostError != 0) {
        throw fskit::fs_errorForPOSIXError(fromHost(hostError));
    }
}

std::optional<fskit::Error> errorUnless0(int hostError) {
    return hostError == 0 ? std::nullopt
                          : std::optional(fskit::fs_errorForPOSIXError(fromHost(hostError)));
}

} // namespace

void HostResource::writeGathered(GatheredBytes parts, std::uint64_t offset) {
    std::vector<std::byte> whole;
    whole.reserve(bytesIn(parts));
    for (const auto part : parts) {
        whole.insert(whole.end(), part.begin(), part.end());
    }
    for (std::size_t done = 0; done < whole.size();) {
        const std::size_t count = write(whole.data() + done, offset + done, whole.size() - done);
        check(count == 0 ? EIO : 0);
        done += count;
    }
}

std::optional<fskit::Error> HostResource::discard(std::uint64_t /*offset*/,
                                                  std::uint64_t /*length*/) {
    return fskit::fs_errorForPOSIXError(kENOTSUP);
}

ImageResource::ImageResource(const std::filesystem::path& path) : ImageResource(path, Settings()) {}

ImageResource::ImageResource(const std::filesystem::path& path, const Settings& settings)
    : file_(path, settings.readOnly || settings.bootFromBackup),
      name_(path.filename().string()),
      offset_(std::min(settings.offset, file_.bytes())),
      length_(std::min(settings.length != 0 ? settings.length : file_.bytes(),
                       file_.bytes() - offset_)),
      blockSize_(settings.blockSize != 0 ? settings.blockSize : file_.blockSize()),
      physicalBlockSize_(settings.physicalBlockSize != 0 ? settings.physicalBlockSize
                                                         : file_.physicalBlockSize()),
      bootFromBackup_(settings.bootFromBackup) {}

std::size_t ImageResource::read(std::byte* buffer, std::uint64_t offset, std::size_t length) {
    check(isRevoked() ? ENXIO : 0);
    const std::size_t inside =
        offset < length_ ? std::min<std::uint64_t>(length, length_ - offset) : 0;
    const ImageFile::Transferred done = file_.read(buffer, offset_ + offset, inside);
    check(done.error);
    TAVELIN_ASSERT(done.bytes <= length);
    if (bootFromBackup_ && offset < kBootBytes && length_ >= 2 * kBootBytes) {
        const std::size_t part = std::min<std::size_t>(done.bytes, kBootBytes - offset);
        const std::uint64_t backup = length_ / kBootBytes * kBootBytes - kBootBytes;
        check(file_.read(buffer, offset_ + backup + offset, part).error);
    }
    return done.bytes;
}

std::size_t ImageResource::write(const std::byte* buffer, std::uint64_t offset,
                                 std::size_t length) {
    const std::span<const std::byte> whole(buffer, length);
    writeGathered({&whole, 1}, offset);
    return length;
}

void ImageResource::writeGathered(GatheredBytes parts, std::uint64_t offset) {
    check(isRevoked() ? ENXIO : 0);
    // A device does not grow, and its neighbours in the image are not its own.
    const std::size_t length = bytesIn(parts);
    check(offset > length_ || length > length_ - offset ? ENXIO : 0);
    const ImageFile::Transferred done = file_.write(parts, offset_ + offset);
    check(done.error);
    TAVELIN_ASSERT(done.bytes == length);
}

void ImageResource::metadataRead(std::byte* buffer, std::uint64_t offset, std::size_t length) {
    // Metadata is whole or an error, unlike file data, whose short transfers the caller handles. A
    // transfer of nothing is the end of the device, where going on would never end.
    for (std::size_t done = 0; done < length;) {
        const std::size_t count = read(buffer + done, offset + done, length - done);
        check(count == 0 ? EIO : 0);
        done += count;
    }
}

void ImageResource::delayedMetadataWrite(const std::byte* buffer, std::uint64_t offset,
                                         std::size_t length) {
    for (std::size_t done = 0; done < length;) {
        const std::size_t count = write(buffer + done, offset + done, length - done);
        check(count == 0 ? EIO : 0);
        done += count;
    }
}

void ImageResource::metadataFlush() {
    check(isRevoked() ? ENXIO : file_.flushToMedium());
}

std::optional<fskit::Error> ImageResource::discard(std::uint64_t offset, std::uint64_t length) {
    // The image's other parts are not this device's.
    if (isRevoked() || offset > length_ || length > length_ - offset) {
        return fskit::fs_errorForPOSIXError(kENXIO);
    }
    return errorUnless0(file_.discard(offset_ + offset, length));
}

std::optional<fskit::Error> ImageResource::flushToMedium() {
    return errorUnless0(isRevoked() ? ENXIO : file_.flushToMedium());
}

} // namespace tavelin
