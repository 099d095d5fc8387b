#include "hosts/cli/copy/tree_putter.hpp"

#include "hosts/cli/copy/host_directory.hpp"
#include "hosts/cli/copy/host_streams.hpp"
#include "hosts/cli/session.hpp"
#include "hosts/cli/text.hpp"
#include "platform/assert.hpp"
#include "platform/error_numbers.hpp"
#include "platform/utf8.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <fcntl.h>

namespace tavelin::cli {
namespace {

using fskit::FSItemType;

FileDescriptor openSource(const TreePutter::Source& source, int flags) {
    FileDescriptor opened(
        openat(source.directory, source.name.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC | flags));
    if (!opened) {
        throwHostError(source.path);
    }
    return opened;
}

struct ::stat statusOf(int descriptor, const std::string& path) {
    struct ::stat status {};
    if (fstat(descriptor, &status) != 0) {
        throwHostError(path);
    }
    return status;
}

} // namespace

bool TreePutter::put(const Source& source, const ItemRef& volumeDirectory,
                     const std::string& name) {
    throwIfInterrupted();
    try {
        putItem(source, volumeDirectory, name);
        return true;
    } catch (const ItemFailure& failure) {
        run_.problem(failure);
        return false;
    }
}

void TreePutter::putItem(const Source& source, const ItemRef& volumeDirectory,
                         const std::string& name) {
    // NTFS names are UTF-16, and bytes that are not UTF-8 have no form in it.
    if (!isUTF8(name)) {
        throw ItemFailure(escaped(source.path) + ": the name is not UTF-8: rename it first");
    }
    struct ::stat status {};
    if (fstatat(source.directory, source.name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
        throwHostError(source.path);
    }
    if (run_.isImage(status)) {
        throw ItemFailure(escaped(source.path) + ": this is the image itself, it was left out");
    }
    if (S_ISREG(status.st_mode)) {
        putFile(source, volumeDirectory, name);
    } else if (S_ISDIR(status.st_mode)) {
        putDirectory(source, volumeDirectory, name);
    } else if (S_ISLNK(status.st_mode)) {
        putLink(source, status, volumeDirectory, name);
    } else {
        throw ItemFailure(escaped(source.path) + ": devices, pipes and sockets are left out");
    }
}

void TreePutter::putFile(const Source& source, const ItemRef& volumeDirectory,
                         const std::string& name) {
    // The item may have been replaced since its status was read. O_NONBLOCK keeps a pipe in its
    // place from blocking the open, O_NOCTTY a terminal from becoming ours.
    const FileDescriptor file = openSource(source, O_NONBLOCK | O_NOCTTY);
    const struct ::stat status = statusOf(file.get(), source.path);
    constexpr std::uint64_t kStatusUnit = 512; // of st_blocks, by POSIX on Linux and macOS
    const auto size = static_cast<std::uint64_t>(status.st_size);
    const std::uint64_t allocated = static_cast<std::uint64_t>(status.st_blocks) * kStatusUnit;
    refuseTooLarge(std::min(size, allocated), source.path);
    run_.bar.begin(source.path);
    const std::string partial = run_.partialName();
    install(volume_.create(volumeDirectory, partial, FSItemType::file), partial, volumeDirectory,
            name, source.path, [&](const ItemRef& item) {
                if (allocated < size) {
                    writeSparse(file.get(), size, item, source.path);
                } else {
                    writeContents(file.get(), item, source.path);
                }
                putStreams(file.get(), item, source.path);
                setTimes(status, item, source.path);
            });
    ++run_.report.files;
}

void TreePutter::refuseTooLarge(std::uint64_t bytes, const std::string& path) {
    // Small files are not worth the question; the volume refuses those that do not fit.
    if (bytes < kTransferBytes) {
        return;
    }
    const std::uint64_t room = volume_.statistics().freeBytes;
    if (bytes > room) {
        throw ItemFailure(fmt::format("{}: the volume is full: {} are needed, {} are free",
                                      escaped(path), humanSize(bytes), humanSize(room)),
                          path, kENOSPC);
    }
}

void TreePutter::putStream(int descriptor, const ItemRef& volumeDirectory,
                           const std::string& name) {
    const std::string partial = run_.partialName();
    install(volume_.create(volumeDirectory, partial, FSItemType::file), partial, volumeDirectory,
            name, name, [&](const ItemRef& item) { writeContents(descriptor, item, name); });
    ++run_.report.files;
}

void TreePutter::putLink(const Source& source, const struct ::stat& status,
                         const ItemRef& volumeDirectory, const std::string& name) {
    // The link may have been replaced by a longer one since its status was read. 4097 holds every
    // path that Linux allows.
    std::string target(std::max<std::size_t>(static_cast<std::size_t>(status.st_size) + 1, 4097),
                       '\0');
    const ssize_t length =
        readlinkat(source.directory, source.name.c_str(), target.data(), target.size());
    if (length < 0) {
        throwHostError(source.path);
    }
    target.resize(static_cast<std::size_t>(length));
    const std::string partial = run_.partialName();
    install(volume_.createSymbolicLink(volumeDirectory, partial, target), partial, volumeDirectory,
            name, source.path, [&](const ItemRef& item) { setTimes(status, item, source.path); });
    ++run_.report.links;
}

void TreePutter::putDirectory(const Source& source, const ItemRef& volumeDirectory,
                              const std::string& name) {
    const FileDescriptor directory = openSource(source, O_DIRECTORY);
    const ItemRef target = targetDirectory(volumeDirectory, name, source.path);
    ++run_.report.directories;
    // Times come last: every entry that is made changes the directory's.
    putEntries(directory, source, target);
    putStreams(directory.get(), target, source.path);
    setTimes(statusOf(directory.get(), source.path), target, source.path);
}

void TreePutter::putContents(const Source& source, const ItemRef& volumeDirectory) {
    try {
        const FileDescriptor directory = openSource(source, O_DIRECTORY);
        putEntries(directory, source, volumeDirectory);
    } catch (const ItemFailure& failure) {
        run_.problem(failure);
    }
}

void TreePutter::putEntries(const FileDescriptor& directory, const Source& source,
                            const ItemRef& volumeDirectory) {
    if (depth_ >= kTreeDepthMax) {
        throw ItemFailure(escaped(source.path) + ": too many directories inside each other");
    }
    // put() catches ItemFailure, so the depth is restored unless the whole run ends.
    ++depth_;
    for (const std::string& entry : namesIn(directory.get(), source.path)) {
        put({directory.get(), entry, joined(source.path, entry)}, volumeDirectory, entry);
    }
    --depth_;
    TAVELIN_ASSERT(depth_ >= 0);
}

ItemRef TreePutter::targetDirectory(const ItemRef& volumeDirectory, const std::string& name,
                                    const std::string& path) {
    auto there = volume_.lookup(volumeDirectory, name);
    if (there) {
        if (there->attributes.type() != FSItemType::directory) {
            throw ItemFailure(escaped(path) +
                              ": something else than a directory has its name on the volume");
        }
        refuseOwn(there->attributes, path);
        return std::move(there->item);
    }
    if (numberOf(there.error()) != kENOENT) {
        throwVolumeError(path, there.error());
    }
    return ofItem(volume_.create(volumeDirectory, name, FSItemType::directory), path).item;
}

std::size_t TreePutter::fillBuffer(int descriptor, std::size_t wanted, const std::string& path) {
    TAVELIN_ASSERT(wanted > 0 && wanted <= buffer_.size());
    std::size_t filled = 0;
    while (filled < wanted) {
        const ssize_t count = read(descriptor, buffer_.data() + filled, wanted - filled);
        if (count < 0 && errno == EINTR) {
            throwIfInterrupted();
            continue;
        }
        if (count < 0) {
            throwHostError(path);
        }
        if (count == 0) {
            break;
        }
        filled += static_cast<std::size_t>(count);
    }
    return filled;
}

void TreePutter::writeContents(int descriptor, const ItemRef& file, const std::string& path,
                               std::uint64_t offset, std::uint64_t length) {
    const std::uint64_t end = length == kToTheEnd ? length : offset + length;
    while (offset < end) {
        throwIfInterrupted();
        // A pipe delivers less than asked. The buffer is filled first, so that the volume gets few
        // large writes.
        const std::size_t wanted = std::min<std::uint64_t>(buffer_.size(), end - offset);
        const std::size_t filled = fillBuffer(descriptor, wanted, path);
        for (std::size_t done = 0; done < filled;) {
            const std::size_t written =
                ofItem(volume_.write(file, offset,
                                     VolumeClient::Bytes(buffer_).subspan(done, filled - done)),
                       path);
            if (written == 0) {
                throw ItemFailure(escaped(path) + ": the volume takes no more of it");
            }
            done += written;
            offset += written;
        }
        run_.report.bytes += filled;
        run_.bar.advance(filled);
        // Only the end of the input leaves the buffer partly empty.
        if (filled < wanted) {
            return;
        }
    }
}

void TreePutter::writeSparse(int descriptor, std::uint64_t size, const ItemRef& file,
                             const std::string& path) {
    // Growing a file makes a hole. Only what is written into it takes clusters.
    fskit::FSItemSetAttributesRequest changes;
    changes.setSize(size);
    ofItem(volume_.setAttributes(file, changes), path);
    for (off_t at = 0; at < static_cast<off_t>(size);) {
        const off_t data = lseek(descriptor, at, SEEK_DATA);
        if (data < 0 && errno == ENXIO) { // nothing but a hole up to the end
            run_.report.bytes += size - static_cast<std::uint64_t>(at);
            return;
        }
        const off_t hole = data < 0 ? data : lseek(descriptor, data, SEEK_HOLE);
        if (hole < 0 || lseek(descriptor, data, SEEK_SET) < 0) {
            throwHostError(path);
        }
        const auto skipped = static_cast<std::uint64_t>(data - at);
        run_.report.bytes += skipped;
        run_.bar.advance(skipped);
        writeContents(descriptor, file, path, static_cast<std::uint64_t>(data),
                      static_cast<std::uint64_t>(hole - data));
        // A hole begins behind the data that was found, so the loop moves on.
        TAVELIN_ASSERT(data >= at && hole > data);
        at = hole;
    }
}

void TreePutter::putAsStream(const std::string& source, const ItemRef& item,
                             const std::string& stream) {
    FileDescriptor opened;
    if (source != "-") {
        opened = openSource({AT_FDCWD, source, source}, O_NONBLOCK | O_NOCTTY);
    }
    const int descriptor = opened ? opened.get() : STDIN_FILENO;
    std::vector<std::byte> bytes;
    for (;;) {
        const std::size_t filled = fillBuffer(descriptor, buffer_.size(), source);
        bytes.insert(bytes.end(), buffer_.begin(),
                     buffer_.begin() + static_cast<std::ptrdiff_t>(filled));
        if (bytes.size() > kStreamBytesMax) {
            throw ItemFailure(escaped(source) +
                                  ": more than a stream takes: " + humanSize(kStreamBytesMax),
                              source, kEFBIG);
        }
        if (filled < buffer_.size()) {
            break;
        }
    }
    ofItem(volume_.setXattr(item, stream, bytes), stream);
    ++run_.report.streams;
}

void TreePutter::putStreams(int descriptor, const ItemRef& item, const std::string& path) {
    if (!run_.settings.streams) {
        return;
    }
    for (const HostStream& stream : readHostStreams(descriptor, path)) {
        const auto bytes = std::as_bytes(std::span(stream.value));
        const auto set = volume_.setXattr(item, stream.name, bytes);
        if (set) {
            ++run_.report.streams;
            continue;
        }
        try {
            throwVolumeError(fmt::format("{} (stream {})", path, stream.name), set.error());
        } catch (const ItemFailure& failure) { // the file itself is still worth having
            run_.problem(failure);
        }
    }
}

void TreePutter::setTimes(const struct ::stat& status, const ItemRef& item,
                          const std::string& path) {
    fskit::FSItemSetAttributesRequest changes;
    changes.setAccessTime(status.st_atim);
    changes.setModifyTime(status.st_mtim);
    made_.insert(ofItem(volume_.setAttributes(item, changes), path).fileID());
}

void TreePutter::install(Outcome<Found> made, const std::string& partial,
                         const ItemRef& volumeDirectory, const std::string& name,
                         const std::string& path, const Fill& fill) {
    const ItemRef item = ofItem(std::move(made), path).item;
    try {
        fill(item);
        giveName(item, partial, volumeDirectory, name, path);
    } catch (...) {
        takeAway(item, partial, volumeDirectory);
        throw;
    }
}

void TreePutter::giveName(const ItemRef& item, const std::string& partial,
                          const ItemRef& volumeDirectory, const std::string& name,
                          const std::string& path) {
    // A signal to the whole pipeline also ends the writer of a pipe. The end of the input then does
    // not mean that the file is complete.
    throwIfInterrupted();
    auto there = volume_.lookup(volumeDirectory, name);
    ItemRef over;
    if (there) {
        if (there->attributes.type() == FSItemType::directory) {
            throw ItemFailure(escaped(path) + ": a directory has its name on the volume");
        }
        refuseOwn(there->attributes, path);
        over = std::move(there->item);
    } else if (numberOf(there.error()) != kENOENT) {
        throwVolumeError(path, there.error());
    }
    const bool renamed = lastComponent(path) != name;
    ofItem(volume_.rename(item, volumeDirectory, partial, volumeDirectory, name, over),
           renamed ? path + " as \"" + name + "\"" : path);
}

void TreePutter::takeAway(const ItemRef& item, const std::string& partial,
                          const ItemRef& volumeDirectory) {
    if (const auto removed = volume_.remove(item, volumeDirectory, partial); !removed) {
        run_.problem(Failure("a half-written file could not be removed again: " +
                             explain(partial, removed.error())));
    }
}

void TreePutter::refuseOwn(const fskit::FSItemAttributes& there, const std::string& path) const {
    if (made_.contains(there.fileID())) {
        throw ItemFailure(escaped(path) + ": left out, as what was copied before it has the same "
                                          "name on the volume, perhaps in another case");
    }
}

} // namespace tavelin::cli
