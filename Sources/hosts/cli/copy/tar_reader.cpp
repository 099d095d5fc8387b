#include "hosts/cli/copy/tar_reader.hpp"

#include "hosts/cli/interruption.hpp"
#include "platform/error_numbers.hpp"

#include <fmt/format.h>

#include <span>
#include <string_view>

namespace tavelin::cli {
namespace {

using fskit::FSItemType;

constexpr std::string_view kInput = "standard input";

/// The components of an entry's name. Throws ItemFailure for one that leads out of the target.
std::vector<std::string> componentsOf(const std::string& path) {
    std::vector<std::string> components;
    for (std::size_t at = 0; at < path.size();) {
        const std::size_t slash = std::min(path.find('/', at), path.size());
        std::string component = path.substr(at, slash - at);
        at = slash + 1;
        if (component == "..") {
            throw ItemFailure(escaped(path) + ": left out, its name leads out of the target", path,
                              kEINVAL);
        }
        if (!component.empty() && component != ".") {
            components.push_back(std::move(component));
        }
    }
    return components;
}

std::timespec timeOf(time_t seconds, long nanoseconds) {
    return {.tv_sec = seconds, .tv_nsec = nanoseconds};
}

} // namespace

TarReader::TarReader(VolumeClient& volume, CopyRun& run, const ItemRef& target, int descriptor)
    : volume_(volume),
      run_(run),
      putter_(volume, run),
      target_(target),
      archive_(archive_read_new()) {
    if (archive_ == nullptr) {
        throw std::bad_alloc();
    }
    if (archive_read_support_format_tar(archive_.get()) != ARCHIVE_OK ||
        // A warning means that a filter would run as a program of its own.
        archive_read_support_filter_all(archive_.get()) < ARCHIVE_WARN ||
        archive_read_open_fd(archive_.get(), descriptor, kTransferBytes) != ARCHIVE_OK) {
        throwArchiveError(archive_.get(), kInput);
    }
}

void TarReader::extractAll() {
    for (;;) {
        throwIfInterrupted();
        archive_entry* header = nullptr;
        const int result = archive_read_next_header(archive_.get(), &header);
        if (result == ARCHIVE_EOF) {
            break;
        }
        if (result != ARCHIVE_OK && result != ARCHIVE_WARN) {
            throwArchiveError(archive_.get(), kInput);
        }
        try {
            extract(header);
        } catch (const ItemFailure& failure) {
            run_.problem(failure);
        }
    }
    // The innermost first, which the archive has last.
    for (auto one = directories_.rbegin(); one != directories_.rend(); ++one) {
        try {
            setTimes(one->header.get(), one->item, one->path);
        } catch (const ItemFailure& failure) {
            run_.problem(failure);
        }
    }
}

void TarReader::extract(archive_entry* header) {
    const char* const text = archive_entry_pathname_utf8(header);
    if (text == nullptr) {
        throw ItemFailure("an entry of the archive has a name that is not UTF-8: left out");
    }
    const std::string path = text;
    std::vector<std::string> components = componentsOf(path);
    const mode_t type = archive_entry_filetype(header);
    if (components.empty()) {
        return; // the target itself
    }
    if (type == AE_IFDIR) {
        ItemRef directory = directoryOf(components, path);
        setStreams(header, directory, path);
        directories_.push_back(
            {std::move(directory), ArchiveEntry(archive_entry_clone(header)), path});
        ++run_.report.directories;
        return;
    }
    const std::string name = std::move(components.back());
    components.pop_back();
    const ItemRef directory = directoryOf(components, path);
    if (const char* const first = archive_entry_hardlink_utf8(header)) {
        extractHardLink(first, directory, name, path);
    } else if (type == AE_IFREG) {
        extractFile(header, directory, name, path);
    } else if (type == AE_IFLNK) {
        const char* const target = archive_entry_symlink_utf8(header);
        const std::string partial = run_.partialName();
        putter_.install(
            volume_.createSymbolicLink(directory, partial, target == nullptr ? "" : target),
            partial, directory, name, path,
            [&](const ItemRef& item) { setTimes(header, item, path); });
        ++run_.report.links;
    } else {
        throw ItemFailure(escaped(path) + ": devices, pipes and sockets are left out");
    }
}

void TarReader::extractFile(archive_entry* header, const ItemRef& directory,
                            const std::string& name, const std::string& path) {
    const std::string partial = run_.partialName();
    putter_.install(volume_.create(directory, partial, FSItemType::file), partial, directory, name,
                    path, [&](const ItemRef& item) {
                        writeData(item, path);
                        // The end of a sparse file may be a hole.
                        fskit::FSItemSetAttributesRequest changes;
                        changes.setSize(static_cast<std::uint64_t>(archive_entry_size(header)));
                        ofItem(volume_.setAttributes(item, changes), path);
                        setStreams(header, item, path);
                        setTimes(header, item, path);
                    });
    ++run_.report.files;
}

void TarReader::extractHardLink(const std::string& first, const ItemRef& directory,
                                const std::string& name, const std::string& path) {
    std::vector<std::string> components = componentsOf(first);
    if (components.empty()) {
        throwItemError(path, kEINVAL);
    }
    const std::string firstName = std::move(components.back());
    components.pop_back();
    const Found file =
        valueOf(volume_.lookup(directoryOf(components, path), firstName), path + " -> " + first);
    const auto there = volume_.lookup(directory, name);
    if (!there || there->attributes.fileID() != file.attributes.fileID()) {
        const std::string partial = run_.partialName();
        valueOf(volume_.linkInternal(file.item, directory, partial), path);
        putter_.install(volume_.lookup(directory, partial), partial, directory, name, path,
                        [](const ItemRef& /*complete*/) {});
    }
    ++run_.report.hardLinks;
}

void TarReader::writeData(const ItemRef& item, const std::string& path) {
    for (;;) {
        throwIfInterrupted();
        const void* bytes = nullptr;
        std::size_t size = 0;
        la_int64_t offset = 0;
        const int result = archive_read_data_block(archive_.get(), &bytes, &size, &offset);
        if (result == ARCHIVE_EOF) {
            return;
        }
        if (result != ARCHIVE_OK) {
            throwArchiveError(archive_.get(), kInput);
        }
        const std::span<const std::byte> piece(static_cast<const std::byte*>(bytes), size);
        for (std::size_t done = 0; done < size;) {
            const std::size_t written = ofItem(
                volume_.write(item, static_cast<std::uint64_t>(offset) + done, piece.subspan(done)),
                path);
            if (written == 0) {
                throwItemError(path, kENOSPC);
            }
            done += written;
        }
        run_.report.bytes += size;
    }
}

void TarReader::setStreams(archive_entry* header, const ItemRef& item, const std::string& path) {
    if (!run_.settings.streams) {
        return;
    }
    archive_entry_xattr_reset(header);
    const char* name = nullptr;
    const void* value = nullptr;
    std::size_t size = 0;
    while (archive_entry_xattr_next(header, &name, &value, &size) == ARCHIVE_OK) {
        const std::string_view attribute = name;
        if (!attribute.starts_with(kArchiveStreamPrefix)) {
            continue; // of the system that the archive is from
        }
        const auto set = volume_.setXattr(
            item, attribute.substr(kArchiveStreamPrefix.size()),
            std::span<const std::byte>(static_cast<const std::byte*>(value), size));
        if (set) {
            ++run_.report.streams;
        } else { // the file itself is still worth having
            run_.problem(Failure(explain(fmt::format("{}:{}", path, name), set.error()), path,
                                 numberOf(set.error())));
        }
    }
}

void TarReader::setTimes(archive_entry* header, const ItemRef& item, const std::string& path) {
    fskit::FSItemSetAttributesRequest changes;
    if (archive_entry_birthtime_is_set(header) != 0) {
        changes.setBirthTime(
            timeOf(archive_entry_birthtime(header), archive_entry_birthtime_nsec(header)));
    }
    const std::timespec modified =
        timeOf(archive_entry_mtime(header), archive_entry_mtime_nsec(header));
    changes.setModifyTime(modified);
    changes.setAccessTime(
        archive_entry_atime_is_set(header) != 0
            ? timeOf(archive_entry_atime(header), archive_entry_atime_nsec(header))
            : modified);
    ofItem(volume_.setAttributes(item, changes), path);
}

ItemRef TarReader::directoryOf(const std::vector<std::string>& components,
                               const std::string& path) {
    ItemRef here = target_.duplicate();
    for (const std::string& name : components) {
        auto next = volume_.lookup(here, name);
        if (!next && numberOf(next.error()) == kENOENT) {
            next = volume_.create(here, name, FSItemType::directory);
        }
        Found found = ofItem(std::move(next), path);
        if (found.attributes.type() != FSItemType::directory) {
            throw ItemFailure(escaped(path) + ": something else than a directory has the name \"" +
                                  escaped(name) + "\" on the volume",
                              path, kENOTDIR);
        }
        here = std::move(found.item);
    }
    return here;
}

} // namespace tavelin::cli
