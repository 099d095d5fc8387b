#include "NTFSBridge/system_compression.hpp"

#include "NTFSBridge/operation.hpp"
#include "NTFSBridge/transfer.hpp"
#include "NTFSBridge/volume.hpp"

#include <new>

namespace ntb {
namespace {

using tavelin::compression::ChunkReader;
using tavelin::compression::Format;

// The data of a WOF reparse point whose provider is the file itself.
struct wof_file_data {
    le32 wof_version;
    le32 provider;
    le32 provider_version;
    le32 algorithm; // a Format
};
constexpr uint32_t wof_version = 1;
constexpr uint32_t file_provider = 2;
constexpr uint32_t file_provider_version = 1;

constexpr uint64_t piece_size = 1 << 20; // of what is written out at a time, bytes
constexpr uint64_t spare_clusters = 64;  // for the records and run lists of what is written out

attribute_guard open_compressed_stream(ntfs_inode* inode) noexcept {
    constexpr int length = 17;
    static_assert(std::char_traits<char>::length(compressed_stream_name) == length);
    ntfschar name[length];
    for (int i = 0; i < length; ++i) {
        name[i] = cpu_to_le16(static_cast<uint16_t>(compressed_stream_name[i]));
    }
    errno = 0;
    return attribute_guard(ntfs_attr_open(inode, AT_DATA, name, length));
}

int32_t make_reader(ntfs_inode* inode, std::unique_ptr<ChunkReader>& made) {
    reparse_point point;
    if (const int32_t error = point.read(inode); error != 0) {
        return error;
    }
    const std::optional<Format> format = system_compression_format(point);
    if (!format) {
        return EOPNOTSUPP;
    }
    errno = 0;
    const attribute_guard plain = open_unnamed_data(inode);
    const attribute_guard packed = plain ? open_compressed_stream(inode) : attribute_guard();
    if (!packed) {
        return errno == ENOENT ? EIO : err_or(EIO);
    }
    made = ChunkReader::create(*format, static_cast<uint64_t>(plain->data_size),
                               static_cast<uint64_t>(packed->data_size));
    return made ? 0 : EIO;
}

int32_t reader_of(ntb_vol* vol, ntfs_inode* inode, ChunkReader*& found) noexcept {
    found = vol->compressed.find(inode);
    if (found != nullptr) {
        return 0;
    }
    try {
        std::unique_ptr<ChunkReader> made;
        if (const int32_t error = make_reader(inode, made); error != 0) {
            return error;
        }
        found = vol->compressed.keep(inode, std::move(made));
        return 0;
    } catch (const std::bad_alloc&) {
        return ENOMEM;
    }
}

// Reads through a file's reader. The stream is opened when it is first needed.
int32_t read_through(ChunkReader& reader, ntfs_inode* inode, uint64_t offset, std::span<uint8_t> to,
                     size_t& count) noexcept {
    attribute_guard packed;
    const auto source = [&](uint64_t from, std::span<uint8_t> into) -> int {
        if (!packed) {
            packed = open_compressed_stream(inode);
            if (!packed) {
                return err_or(EIO);
            }
        }
        uint64_t done = 0;
        const int32_t error = read_stream(packed.get(), from, into.data(), into.size(), &done);
        return error == 0 && done != into.size() ? EIO : error;
    };
    return reader.read(std::ref(source), offset, to, count);
}

} // namespace

std::optional<Format> system_compression_format(const reparse_point& point) noexcept {
    wof_file_data data = {};
    if (point.tag() != NTB_TAG_WOF || point.data().size() < sizeof data) {
        return std::nullopt;
    }
    std::memcpy(&data, point.data().data(), sizeof data);
    const auto format = static_cast<Format>(le32_to_cpu(data.algorithm));
    const bool is_known = le32_to_cpu(data.wof_version) == wof_version &&
                          le32_to_cpu(data.provider) == file_provider &&
                          le32_to_cpu(data.provider_version) == file_provider_version &&
                          tavelin::compression::chunkSize(format) != 0;
    return is_known ? std::optional(format) : std::nullopt;
}

compressed_readers::entry* compressed_readers::entry_of(const ntfs_inode* inode) noexcept {
    const uint16_t sequence = le16_to_cpu(inode->mrec->sequence_number);
    const auto found = std::ranges::find_if(entries_, [&](const entry& each) {
        return each.owned && each.ino == inode->mft_no && each.sequence == sequence;
    });
    return found == entries_.end() ? nullptr : &*found;
}

ChunkReader* compressed_readers::find(const ntfs_inode* inode) noexcept {
    entry* const found = entry_of(inode);
    if (found == nullptr) {
        return nullptr;
    }
    found->last_use = ++uses_;
    return found->owned.get();
}

ChunkReader* compressed_readers::keep(const ntfs_inode* inode,
                                      std::unique_ptr<ChunkReader> made) noexcept {
    entry& oldest = *std::ranges::min_element(entries_, {}, &entry::last_use);
    oldest = {.ino = inode->mft_no,
              .sequence = le16_to_cpu(inode->mrec->sequence_number),
              .last_use = ++uses_,
              .owned = std::move(made)};
    return oldest.owned.get();
}

void compressed_readers::forget(const ntfs_inode* inode) noexcept {
    if (entry* const found = entry_of(inode)) {
        *found = {};
    }
}

int32_t read_compressed(ntb_vol* vol, ntfs_inode* inode, uint64_t offset, void* buffer,
                        uint64_t length, uint64_t* done) noexcept {
    *done = 0;
    ChunkReader* reader = nullptr;
    if (const int32_t error = reader_of(vol, inode, reader); error != 0) {
        return error;
    }
    size_t count = 0;
    const int32_t error =
        read_through(*reader, inode, offset,
                     {static_cast<uint8_t*>(buffer), static_cast<size_t>(length)}, count);
    *done = count;
    return error;
}

uint64_t compressed_allocation(ntfs_inode* inode) noexcept {
    const attribute_guard packed = open_compressed_stream(inode);
    return packed ? static_cast<uint64_t>(packed->allocated_size) : 0;
}

namespace {

// Fills the unnamed stream, which is a hole, with what the compressed one stands for.
int32_t write_out(ChunkReader& reader, ntfs_inode* inode, ntfs_attr* plain) {
    const auto buffer =
        std::make_unique_for_overwrite<uint8_t[]>(std::min(piece_size, reader.fileSize()));
    for (uint64_t offset = 0; offset < reader.fileSize();) {
        const uint64_t size = std::min(piece_size, reader.fileSize() - offset);
        size_t count = 0;
        if (const int32_t error = read_through(reader, inode, offset, {buffer.get(), size}, count);
            error != 0) {
            return error;
        }
        uint64_t done = 0;
        if (const int32_t error = write_stream(plain, offset, buffer.get(), count, &done);
            error != 0) {
            return error;
        }
        offset += count;
    }
    errno = 0;
    return plain->data_flags == 0 || ntfs_attr_pclose(plain) == 0 ? 0 : err_or(EIO);
}

// Makes the unnamed stream a hole again. The compressed form is what counts, so a failure here
// costs space and nothing else.
void give_space_back(ntfs_attr* plain, uint64_t size) noexcept {
    if (ntfs_attr_truncate(plain, 0) == 0) {
        (void)ntfs_attr_truncate(plain, static_cast<s64>(size));
    }
}

// Takes the reparse point and the compressed stream away, in this order: a file with a stream too
// many is whole, one whose reparse point leads to no stream is not.
int32_t drop_compressed_form(ntfs_inode* inode) noexcept {
    errno = 0;
    if (ntfs_remove_ntfs_reparse_data(inode) != 0) {
        return err_or(EIO);
    }
    const attribute_guard packed = open_compressed_stream(inode);
    errno = 0;
    return !packed || ntfs_attr_rm(packed.get()) == 0 ? 0 : err_or(EIO);
}

} // namespace
} // namespace ntb

using namespace ntb;

static int32_t decompress_file(ntb_vol* vol, uint64_t ino) {
    if (is_read_only(vol)) {
        return EROFS;
    }
    inode_guard inode;
    if (const int32_t error = inode.open(vol->volume, ino); error != 0) {
        return error;
    }
    if (is_directory(inode.get())) {
        return EISDIR;
    }
    ChunkReader* reader = nullptr;
    if (const int32_t error = reader_of(vol, inode.get(), reader); error != 0) {
        return error;
    }
    const uint64_t size = reader->fileSize();
    const uint64_t cluster = vol->volume->cluster_size;
    if (static_cast<uint64_t>(std::max<s64>(vol->volume->free_clusters, 0)) <
        size / cluster + spare_clusters) {
        return ENOSPC;
    }
    errno = 0;
    attribute_guard plain = open_unnamed_data(inode.get());
    if (!plain) {
        return err_or(EIO);
    }
    int32_t error = 0;
    try {
        error = write_out(*reader, inode.get(), plain.get());
    } catch (const std::bad_alloc&) {
        error = ENOMEM;
    }
    if (error != 0) {
        give_space_back(plain.get(), size);
        plain.reset();
        (void)inode.close(); // the first error is the one to report
        return error;
    }
    plain.reset();
    vol->compressed.forget(inode.get());
    error = drop_compressed_form(inode.get());
    return first_error(error, inode.close());
}

int32_t ntb_decompress(ntb_vol* vol, uint64_t ino) {
    return atomically(vol, [&] { return decompress_file(vol, ino); });
}
