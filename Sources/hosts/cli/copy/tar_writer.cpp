#include "hosts/cli/copy/tar_writer.hpp"

#include "hosts/cli/interruption.hpp"
#include "hosts/cli/item_text.hpp"
#include "hosts/cli/tree_visit.hpp"
#include "platform/error_numbers.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <sys/stat.h>

namespace tavelin::cli {
namespace {

using fskit::FSItemType;

constexpr std::string_view kOutput = "standard output";

/// Bytes of all streams of one item. libarchive reads no headers above 1 MiB, in which names and
/// lengths need room besides.
constexpr std::size_t kArchiveStreamsBytesMax = 960 << 10;

mode_t modeOf(FSItemType type) {
    return type == FSItemType::directory ? S_IFDIR
           : type == FSItemType::symlink ? S_IFLNK
                                         : S_IFREG;
}

ArchiveEntry headerOf(const fskit::FSItemAttributes& attributes, const std::string& name) {
    ArchiveEntry header(archive_entry_new());
    if (header == nullptr) {
        throw std::bad_alloc();
    }
    archive_entry_set_pathname_utf8(header.get(), name.c_str());
    archive_entry_set_mode(header.get(),
                           modeOf(attributes.type()) | (attributes.mode() & mode_t{07777}));
    const auto& modified = attributes.modifyTime();
    const auto& accessed = attributes.accessTime();
    const auto& created = attributes.birthTime();
    archive_entry_set_mtime(header.get(), modified.tv_sec, modified.tv_nsec);
    archive_entry_set_atime(header.get(), accessed.tv_sec, accessed.tv_nsec);
    archive_entry_set_birthtime(header.get(), created.tv_sec, created.tv_nsec);
    return header;
}

} // namespace

TarWriter::TarWriter(VolumeClient& volume, CopyRun& run, int descriptor)
    : volume_(volume), run_(run), archive_(archive_write_new()), buffer_(kTransferBytes) {
    if (archive_ == nullptr) {
        throw std::bad_alloc();
    }
    if (archive_write_set_format_pax(archive_.get()) != ARCHIVE_OK ||
        // The form that tar(1) reads; libarchive would write each stream in a second one, too.
        archive_write_set_format_option(archive_.get(), "pax", "xattrheader", "SCHILY") !=
            ARCHIVE_OK ||
        archive_write_open_fd(archive_.get(), descriptor) != ARCHIVE_OK) {
        throwArchiveError(archive_.get(), kOutput);
    }
}

void TarWriter::add(const Found& found, const std::string& path) {
    const bool isRoot = found.item == volume_.root();
    const auto guarded = [&](const auto& work) {
        try {
            work();
        } catch (const ItemFailure& failure) {
            run_.problem(failure);
        }
    };
    const std::string top = isRoot ? "" : rooted(path).substr(1);
    if (!isRoot) {
        guarded([&] { addItem(found, top); });
    }
    if (found.attributes.type() != FSItemType::directory) {
        return;
    }
    const TreeVisitor visitor{
        .visit =
            [&](const TreeItem& item) {
                throwIfInterrupted();
                guarded([&] {
                    addItem(valueOf(volume_.lookup(item.directory, item.entry.name), item.path),
                            item.path);
                });
                return item.entry.type == FSItemType::directory;
            },
        .leave = {}};
    if (!visitTree(volume_, found.item, top, visitor)) {
        run_.problem(Failure("directories were left out, told above"));
    }
}

void TarWriter::addItem(const Found& found, const std::string& path) {
    const FSItemType type = found.attributes.type();
    if (isSpecial(type)) {
        throwNoContent(path, found.attributes);
    }
    const ArchiveEntry header =
        headerOf(found.attributes, type == FSItemType::directory ? path + "/" : path);
    if (type == FSItemType::symlink) {
        archive_entry_set_symlink_utf8(header.get(),
                                       valueOf(volume_.readSymbolicLink(found.item), path).c_str());
        write(header.get());
        ++run_.report.links;
        return;
    }
    if (type == FSItemType::file && found.attributes.linkCount() > 1) {
        const auto first = written_.find(found.attributes.fileID());
        if (first != written_.end()) {
            archive_entry_set_hardlink_utf8(header.get(), first->second.c_str());
            write(header.get());
            ++run_.report.hardLinks;
            return;
        }
    }
    addStreams(found.item, path, header.get());
    if (type == FSItemType::directory) {
        write(header.get());
        ++run_.report.directories;
        return;
    }
    addContent(found, path, header.get());
    ++run_.report.files;
    if (found.attributes.linkCount() > 1) {
        written_.emplace(found.attributes.fileID(), path);
    }
}

void TarWriter::addContent(const Found& found, const std::string& path, archive_entry* header) {
    const std::uint64_t size = found.attributes.size();
    archive_entry_set_size(header, static_cast<la_int64_t>(size));
    if (found.attributes.allocSize() < size) {
        addHoles(found.item, size, header);
    }
    // Read before the header is written: a file that cannot be read at all is left out whole.
    std::size_t count = valueOf(volume_.read(found.item, 0, buffer_), path, found.attributes);
    write(header);
    for (std::uint64_t offset = 0; count > 0 && offset < size;) {
        throwIfInterrupted();
        const std::size_t wanted = std::min<std::uint64_t>(count, size - offset);
        if (archive_write_data(archive_.get(), buffer_.data(), wanted) !=
            static_cast<la_ssize_t>(wanted)) {
            throwArchiveError(archive_.get(), kOutput);
        }
        offset += wanted;
        run_.report.bytes += wanted;
        const auto next = volume_.read(found.item, offset, buffer_);
        // The header has promised all bytes: those that cannot be read are zeros in the archive.
        count = next ? *next : 0;
        if (!next) {
            run_.problem(Failure(explainData(path, next.error(), found.attributes) +
                                     "; zeros stand in its place in the archive",
                                 path, numberOf(next.error())));
        }
    }
}

void TarWriter::addHoles(const ItemRef& item, std::uint64_t size, archive_entry* header) {
    for (std::uint64_t at = 0; at < size;) {
        const auto data = volume_.requests().seek(item.item(), at, false);
        const auto hole =
            data ? volume_.requests().seek(item.item(), *data, true) : Outcome<std::uint64_t>(at);
        // Without data up to the end, or of a file that cannot tell: the rest is one hole, or all
        // of the file is stored.
        if (!data || !hole || *hole <= *data) {
            if (data || numberOf(data.error()) != kENXIO) {
                archive_entry_sparse_clear(header);
                return;
            }
            break;
        }
        archive_entry_sparse_add_entry(header, static_cast<la_int64_t>(*data),
                                       static_cast<la_int64_t>(*hole - *data));
        at = *hole;
    }
    // A list without an end would not say how long the file is.
    archive_entry_sparse_add_entry(header, static_cast<la_int64_t>(size), 0);
}

void TarWriter::addStreams(const ItemRef& item, const std::string& path, archive_entry* header) {
    if (!run_.settings.streams) {
        return;
    }
    std::size_t sum = 0;
    for (const std::string& name : valueOf(volume_.listXattrs(item), path)) {
        const auto size = volume_.xattrSize(item, name);
        sum += size ? *size : 0;
        if (sum > kArchiveStreamsBytesMax) {
            sum -= *size;
            run_.problem(Failure(fmt::format("{}:{}: left out, an archive takes {} of streams for "
                                             "one file: 'tavelin get' copies it",
                                             escaped(path), escaped(name),
                                             humanSize(kArchiveStreamsBytesMax)),
                                 path, kEFBIG));
            continue;
        }
        const auto value = volume_.getXattr(item, name);
        if (!value) {
            run_.problem(Failure(explain(fmt::format("{}:{}", path, name), value.error()), path,
                                 numberOf(value.error())));
            continue;
        }
        archive_entry_xattr_add_entry(header, (std::string(kArchiveStreamPrefix) + name).c_str(),
                                      value->data(), value->size());
        ++run_.report.streams;
    }
}

void TarWriter::write(archive_entry* header) {
    // A warning means that a part of the header has no form in the archive; it is written.
    const int result = archive_write_header(archive_.get(), header);
    if (result == ARCHIVE_WARN) {
        run_.problem(Failure(escaped(archive_entry_pathname_utf8(header)) + ": " +
                             escaped(archive_error_string(archive_.get()))));
    } else if (result != ARCHIVE_OK) {
        throwArchiveError(archive_.get(), kOutput);
    }
}

void TarWriter::close() {
    if (archive_write_close(archive_.get()) != ARCHIVE_OK) {
        throwArchiveError(archive_.get(), kOutput);
    }
}

} // namespace tavelin::cli
