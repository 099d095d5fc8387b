// The contents of files: always the unnamed data stream.
#include "NTFSBridge/open_file.hpp"
#include "NTFSBridge/operation.hpp"
#include "NTFSBridge/system_compression.hpp"
#include "NTFSBridge/transfer.hpp"
#include "NTFSBridge/volume.hpp"

using namespace ntb;

namespace {

constexpr auto data_and_change_time = static_cast<ntfs_time_update_flags>(NTFS_UPDATE_MCTIME);

// Has the last compression block written out, where there are such blocks; errno or EIO.
int32_t complete(ntfs_attr* data) noexcept {
    errno = 0;
    return data->data_flags == 0 || ntfs_attr_pclose(data) == 0 ? 0 : err_or(EIO);
}

// Tells the cache which pages have nothing but what was just written to the stream: these may go to
// the device before the metadata that leads to them. Not where compression has the bytes move, and
// not while the clusters may be those of another file after a power cut.
void mark_file_data(ntb_vol* vol, ntfs_attr* stream, uint64_t offset, uint64_t length) noexcept {
    constexpr uint64_t page = page_cache::page_size;
    const uint64_t cluster = vol->volume->cluster_size;
    if (!NAttrNonResident(stream) || stream->data_flags != 0 || vol->context->freed.has_seen()) {
        return;
    }
    for (uint64_t at = offset; at < offset + length;) {
        const runlist_element* const run =
            ntfs_attr_find_vcn(stream, static_cast<VCN>(at / cluster));
        if (run == nullptr || run->lcn < 0 || run->length <= 0) {
            return; // the library has just written there, so there is a run
        }
        const uint64_t run_at = static_cast<uint64_t>(run->vcn) * cluster;
        const uint64_t run_end = run_at + static_cast<uint64_t>(run->length) * cluster;
        const uint64_t end = std::min(offset + length, run_end);
        // A page that was written in part is the stream's all the same when all of it is in the
        // run. With clusters smaller than a page it may be another file's as well.
        const uint64_t place = static_cast<uint64_t>(run->lcn) * cluster;
        const uint64_t from = (place + at - run_at) / page * page;
        const uint64_t to = (place + end - run_at + page - 1) / page * page;
        const uint64_t first = std::max(from, place);
        vol->context->mark_file_data(std::min(to, place + run_end - run_at) - first, first);
        at = end;
    }
}

// errno or EIO.
int32_t resize(ntfs_attr* data, uint64_t size) noexcept {
    const bool grows = size > static_cast<uint64_t>(data->data_size);
    if (grows && (data->data_flags & ATTR_COMPRESSION_MASK) != 0) {
        // Asked to grow compressed data, the library makes it end with a compression block of its
        // own choice and answers success. Writing the last byte gives the size that was asked for,
        // and leaves a hole before it where there can be one.
        const uint8_t zero = 0;
        uint64_t done = 0;
        const int32_t error = write_stream(data, size - 1, &zero, sizeof zero, &done);
        return first_error(error, complete(data));
    }
    errno = 0;
    return ntfs_attr_truncate(data, static_cast<s64>(size)) == 0 ? 0 : err_or(EIO);
}

} // namespace

int32_t ntb_read(ntb_vol* vol, uint64_t ino, uint64_t offset, void* buffer, uint64_t length,
                 uint64_t* done) {
    *done = 0;
    open_file file;
    if (const int32_t error = file.open_inode(vol, ino); error != 0) {
        return error;
    }
    if (is_reparse_point(file.inode.get())) {
        const int32_t error = read_compressed(vol, file.inode.get(), offset, buffer, length, done);
        if (error != EOPNOTSUPP) {
            return error;
        }
    }
    if (const int32_t error = file.open_data(); error != 0) {
        return error;
    }
    if (offset >= file.size()) {
        return 0;
    }
    length = std::min(length, file.size() - offset);
    return read_stream(file.data.get(), offset, buffer, length, done);
}

static int32_t write_file(ntb_vol* vol, uint64_t ino, uint64_t offset, const void* buffer,
                          uint64_t length, uint64_t* done) {
    *done = 0;
    if (is_read_only(vol)) {
        return EROFS;
    }
    open_file file;
    if (const int32_t error = file.open(vol, ino); error != 0) {
        return error;
    }
    if (length == 0) {
        return file.close(0);
    }
    if (offset > offset_max || length > offset_max - offset) {
        return EFBIG;
    }
    if (is_far_from_written(file.data.get(), offset)) {
        return file.close(ENODATA);
    }
    int32_t error = write_stream(file.data.get(), offset, buffer, length, done);
    if (error != 0 && *done == 0) {
        return file.close(error);
    }
    error = first_error(error, complete(file.data.get()));
    mark_file_data(vol, file.data.get(), offset, *done);
    // The library forgets it where the data moves out of the record. Put right only when the inode
    // is closed, it would have the directory's entry written at once.
    file.inode->allocated_size = allocated_size_of(file.data.get());
    const bool is_in_record = !NAttrNonResident(file.data.get());
    file.data.reset();
    ntfs_inode_update_times(file.inode.get(), data_and_change_time);
    // Without the cache the library writes an index block at once and drops an error of that. Then
    // it drops it here, as ever, and not in the sync, which must say that something failed.
    // Data in the record would be copied once more, as the record is written with the entry.
    if (vol->context->is_caching() && !is_in_record) {
        vol->outdated.defer(file.inode.get());
    }
    return file.close(error);
}

int32_t ntb_write(ntb_vol* vol, uint64_t ino, uint64_t offset, const void* buffer, uint64_t length,
                  uint64_t* done) {
    *done = 0;
    if (const int32_t error = begin_operation(vol); error != 0) {
        return error;
    }
    bool taken_back = false;
    const int32_t error =
        end_operation(vol, write_file(vol, ino, offset, buffer, length, done), &taken_back);
    *done = taken_back ? 0 : *done;
    return error;
}

static int32_t resize_file(ntb_vol* vol, uint64_t ino, uint64_t size) {
    if (is_read_only(vol)) {
        return EROFS;
    }
    open_file file;
    if (const int32_t error = file.open(vol, ino); error != 0) {
        return error;
    }
    if (size == file.size()) {
        return file.close(trim_clusters(file, size));
    }
    if (size > offset_max) {
        return EFBIG;
    }
    if (const int32_t error = resize(file.data.get(), size); error != 0) {
        return file.close(error);
    }
    file.data.reset();
    ntfs_inode_update_times(file.inode.get(), data_and_change_time);
    return file.close(0);
}

int32_t ntb_truncate(ntb_vol* vol, uint64_t ino, uint64_t size) {
    return atomically(vol, [&] { return resize_file(vol, ino, size); });
}

int32_t ntb_flush(ntb_vol* vol, uint64_t ino) {
    if (is_read_only(vol)) {
        return 0;
    }
    open_file file;
    if (const int32_t error = file.open_inode(vol, ino); error != 0) {
        return error;
    }
    errno = 0;
    if (ntfs_inode_sync(file.inode.get()) != 0) {
        return file.close(err_or(EIO));
    }
    if (const int32_t error = file.close(0); error != 0) {
        return error;
    }
    return sync_device(vol);
}
