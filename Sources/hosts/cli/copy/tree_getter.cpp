#include "hosts/cli/copy/tree_getter.hpp"

#include "hosts/cli/copy/host_directory.hpp"
#include "hosts/cli/copy/host_streams.hpp"
#include "hosts/cli/session.hpp"
#include "hosts/cli/text.hpp"
#include "hosts/cli/tree_visit.hpp"
#include "platform/assert.hpp"
#include "platform/error_numbers.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <span>
#include <utility>

namespace tavelin::cli {
namespace {

using fskit::FSItemType;

/// Bytes of zeros that are worth a hole: the largest cluster that is common.
constexpr std::size_t kHoleBytes = 64 << 10;
static_assert(kTransferBytes % kHoleBytes == 0, "holes lie at multiples of their size");

bool isZero(std::span<const std::byte> bytes) {
    TAVELIN_ASSERT(!bytes.empty());
    // A run of zeros equals itself moved by one byte.
    return bytes.front() == std::byte{0} &&
           std::memcmp(bytes.data(), bytes.data() + 1, bytes.size() - 1) == 0;
}

/// Sees to it that the content is on the medium before a file of the same name is given up for it.
/// A new file waits for the sync at the end of the run. False with errno set when it fails.
bool isSafeToName(int directory, const std::string& name, const FileDescriptor& file) {
#ifdef __linux__
    struct ::stat there {};
    if (fstatat(directory, name.c_str(), &there, AT_SYMLINK_NOFOLLOW) != 0) {
        return true;
    }
#else
    static_cast<void>(directory); // no call synchronises a whole file system later
    static_cast<void>(name);
#endif
    return fsync(file.get()) == 0;
}

std::array<std::timespec, 2> times(const fskit::FSItemAttributes& attributes) {
    return {attributes.accessTime(), attributes.modifyTime()};
}

} // namespace

bool TreeGetter::get(const Found& found, const std::string& path, int directory,
                     const std::string& name) {
    throwIfInterrupted();
    beginAt(directory);
    try {
        getItem(found, path, directory, name);
        return true;
    } catch (const ItemFailure& failure) {
        run_.problem(failure);
        return false;
    }
}

void TreeGetter::beginAt(int directory) {
    if (depth_ == 0) {
        if (std::exchange(top_, directory) != directory) {
            copied_.clear();
        }
        below_.clear();
    }
}

void TreeGetter::getContents(const ItemRef& volumeDirectory, const std::string& path,
                             int directory) {
    beginAt(directory);
    try {
        getEntries(volumeDirectory, path, directory);
    } catch (const ItemFailure& failure) {
        run_.problem(failure);
    }
}

void TreeGetter::getItem(const Found& found, const std::string& path, int directory,
                         const std::string& name) {
    if (!staysInside(name)) {
        throw ItemFailure(escaped(path) + ": left out, its name would lead out of the target");
    }
    // Follows links, so that a link to the image is not replaced either.
    struct ::stat there {};
    if (fstatat(directory, name.c_str(), &there, 0) == 0 && run_.isImage(there)) {
        throw ItemFailure(escaped(path) + ": left out, it would replace the image itself");
    }
    switch (found.attributes.type()) {
    case FSItemType::directory:
        return getDirectory(found, path, directory, name);
    case FSItemType::symlink:
        return getLink(found, path, directory, name);
    case FSItemType::file:
        return getFile(found, path, directory, name);
    default:
        throwNoContent(path, found.attributes);
    }
}

void TreeGetter::getFile(const Found& found, const std::string& path, int directory,
                         const std::string& name) {
    // The link count has the DOS name in it, so it is only a hint.
    const bool mayHaveNames = run_.settings.hardLinks && found.attributes.linkCount() > 1;
    if (mayHaveNames && linkToFirst(found, path, directory, name)) {
        ++run_.report.hardLinks;
        return;
    }
    run_.bar.begin(path);
    makeFile(path, directory, name, [&](const FileDescriptor& file) {
        readContents(found, path, file);
        getStreams(found.item, path, file.get());
        // Times come after the writes, which change them.
        if (futimens(file.get(), times(found.attributes).data()) != 0) {
            throwHostError(path);
        }
        struct ::stat status {};
        if (mayHaveNames && fstat(file.get(), &status) == 0) {
            copied_[found.attributes.fileID()] = {joined(below_, name), status.st_dev,
                                                  status.st_ino};
        }
    });
    ++run_.report.files;
}

void TreeGetter::getStream(std::span<const std::byte> bytes, const std::string& path, int directory,
                           const std::string& name) {
    makeFile(path, directory, name, [&](const FileDescriptor& file) {
        const int error = file.writeAt(bytes.data(), bytes.size(), 0).error;
        if (error != 0) {
            throwHostError(path, error);
        }
    });
    ++run_.report.streams;
}

void TreeGetter::makeFile(const std::string& path, int directory, const std::string& name,
                          const std::function<void(const FileDescriptor& file)>& fill) {
    const std::string partial = run_.partialName();
    // O_EXCL never opens an existing file, whoever made it.
    FileDescriptor file(openat(directory, partial.c_str(),
                               O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0666));
    if (!file) {
        throwHostError(path);
    }
    orTakeAway(directory, partial, [&] {
        fill(file);
        if (!isSafeToName(directory, name, file)) {
            throwHostError(path);
        }
        // Closing may report a failed write, so it comes before the rename.
        if (const int error = file.close(); error != 0) {
            throwHostError(path, error);
        }
        giveName(directory, partial, name, path);
    });
}

bool TreeGetter::linkToFirst(const Found& found, const std::string& path, int directory,
                             const std::string& name) {
    const auto first = copied_.find(found.attributes.fileID());
    const std::string partial = run_.partialName();
    if (first == copied_.end() ||
        linkat(top_, first->second.path.c_str(), directory, partial.c_str(), 0) != 0) {
        return false; // copied again
    }
    bool isLinked = false;
    orTakeAway(directory, partial, [&] {
        struct ::stat status {};
        // Somebody may have put another file there meanwhile.
        isLinked = fstatat(directory, partial.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0 &&
                   status.st_dev == first->second.device && status.st_ino == first->second.inode;
        if (isLinked) {
            giveName(directory, partial, name, path);
        }
    });
    // Renaming one name of a file to another one of the same file does nothing.
    if (unlinkat(directory, partial.c_str(), 0) != 0 && errno != ENOENT) {
        throwHostError(path);
    }
    return isLinked;
}

void TreeGetter::getLink(const Found& found, const std::string& path, int directory,
                         const std::string& name) {
    const std::string target = valueOf(volume_.readSymbolicLink(found.item), path);
    const std::string partial = run_.partialName();
    if (symlinkat(target.c_str(), directory, partial.c_str()) != 0) {
        throwHostError(path);
    }
    orTakeAway(directory, partial, [&] {
        if (utimensat(directory, partial.c_str(), times(found.attributes).data(),
                      AT_SYMLINK_NOFOLLOW) != 0) {
            throwHostError(path);
        }
        giveName(directory, partial, name, path);
    });
    ++run_.report.links;
}

void TreeGetter::getDirectory(const Found& found, const std::string& path, int directory,
                              const std::string& name) {
    // An existing directory is merged. O_NOFOLLOW below refuses an existing link to one, which
    // might lead out of the target.
    if (mkdirat(directory, name.c_str(), 0777) != 0 && errno != EEXIST) {
        throwHostError(path);
    }
    const FileDescriptor made(
        openat(directory, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!made) {
        if (errno == ENOTDIR || errno == ELOOP) {
            throw ItemFailure(escaped(path) +
                              ": something else than a directory has its name in the target");
        }
        throwHostError(path);
    }
    ++run_.report.directories;
    // Times come last: every entry that is made changes the directory's.
    const std::string above = std::exchange(below_, joined(below_, name));
    getEntries(found.item, path, made.get());
    below_ = above;
    getStreams(found.item, path, made.get());
    if (futimens(made.get(), times(found.attributes).data()) != 0) {
        throwHostError(path);
    }
}

void TreeGetter::getEntries(const ItemRef& volumeDirectory, const std::string& path,
                            int directory) {
    const fskit::FSItemID own = valueOf(volume_.attributes(volumeDirectory), path).fileID();
    if (depth_ >= kTreeDepthMax || !entered_.insert(own).second) {
        throw ItemFailure(escaped(path) + ": too many directories inside each other");
    }
    ++depth_;
    try {
        forEachEntry(volume_, volumeDirectory, path, [&](const DirectoryEntry& entry) {
            const std::string below = joined(path == "/" ? "" : path, entry.name);
            auto found = volume_.lookup(volumeDirectory, entry.name);
            if (found) {
                get(*found, below, directory, entry.name);
            } else {
                run_.problem(
                    Failure(explain(below, found.error()), below, numberOf(found.error())));
            }
        });
    } catch (const ItemFailure&) { // the run goes on behind this directory
        --depth_;
        throw;
    }
    --depth_;
    TAVELIN_ASSERT(depth_ >= 0);
}

void TreeGetter::readContents(const Found& found, const std::string& path,
                              const FileDescriptor& file) {
    // A file that takes less space than it has bytes has holes, or is compressed. Its runs of zeros
    // become holes of the copy, which would otherwise be larger than the original.
    const bool maySkipZeros = found.attributes.allocSize() < found.attributes.size();
    std::uint64_t offset = 0;
    while (const std::size_t count =
               valueOf(volume_.read(found.item, offset, buffer_), path, found.attributes)) {
        throwIfInterrupted();
        TAVELIN_ASSERT(count <= buffer_.size());
        for (std::size_t done = 0; done < count;) {
            const std::size_t length = std::min(maySkipZeros ? kHoleBytes : count, count - done);
            const auto piece = std::span<const std::byte>(buffer_).subspan(done, length);
            if (!maySkipZeros || !isZero(piece)) {
                const int error = file.writeAt(piece.data(), length, offset + done).error;
                if (error != 0) {
                    throwHostError(path, error);
                }
            }
            done += length;
        }
        offset += count;
        run_.report.bytes += count;
        run_.bar.advance(count);
    }
    // Ends a file whose last bytes were skipped.
    if (maySkipZeros && ftruncate(file.get(), static_cast<off_t>(offset)) != 0) {
        throwHostError(path);
    }
}

void TreeGetter::getStreams(const ItemRef& item, const std::string& path, int file) {
    if (!run_.settings.streams) {
        return;
    }
    for (const std::string& name : valueOf(volume_.listXattrs(item), path)) {
        const std::string stream = fmt::format("{} (stream {})", path, name);
        const auto value = volume_.getXattr(item, name);
        try {
            if (writeHostStream(file, name, valueOf(value, stream), stream)) {
                ++run_.report.streams;
            } else {
                run_.leaveOutStream();
            }
        } catch (const ItemFailure& failure) { // the file itself is still worth having
            run_.problem(failure);
        }
    }
}

void TreeGetter::giveName(int directory, const std::string& partial, const std::string& name,
                          const std::string& path) {
    throwIfInterrupted();
    if (renameat(directory, partial.c_str(), directory, name.c_str()) != 0) {
        throwHostError(path);
    }
}

void TreeGetter::orTakeAway(int directory, const std::string& partial,
                            const std::function<void()>& work) {
    try {
        work();
    } catch (...) {
        if (unlinkat(directory, partial.c_str(), 0) != 0) {
            run_.problem(Failure("a half-written file could not be removed again: " +
                                 explainHost(partial, errno)));
        }
        // The error of the work is the one to report.
        throw;
    }
}

} // namespace tavelin::cli
