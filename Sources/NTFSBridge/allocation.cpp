// Which of a file's bytes have clusters: holes and data, clusters ahead of the data, and making
// holes.
#include "NTFSBridge/ntb.h"
#include "NTFSBridge/open_file.hpp"
#include "NTFSBridge/operation.hpp"
#include "NTFSBridge/transfer.hpp"
#include "NTFSBridge/volume.hpp"

using namespace ntb;

namespace {

// Zeroes to write from. Longer than what goes through the page cache, so that a long stretch of
// them goes around it.
constexpr uint64_t zeroes_bytes = 256 << 10;
static_assert(zeroes_bytes > NTB_CACHED_BYTES_MAX);
std::array<uint8_t, zeroes_bytes> zeroes; // never written to; not in the program's file

uint64_t initialised_bytes(const ntfs_attr* data) noexcept {
    return static_cast<uint64_t>(data->initialized_size);
}

// Whether runs of clusters are all there is to the stream: it is neither in the record nor
// compressed nor encrypted.
bool is_plain(const ntfs_attr* data) noexcept {
    return NAttrNonResident(data) &&
           (data->data_flags & (ATTR_COMPRESSION_MASK | ATTR_IS_ENCRYPTED)) == 0;
}

// A run of a stream, in bytes.
struct clusters {
    uint64_t start; // of the file
    uint64_t end;
    int64_t place; // on the device; negative for a hole

    bool is_hole() const noexcept { return place < 0; }
    uint64_t place_of(uint64_t at) const noexcept {
        return static_cast<uint64_t>(place) + (at - start);
    }
};

// The run that has a byte of a plain stream; errno or EIO.
int32_t find_clusters(ntfs_attr* data, uint64_t at, clusters* found) noexcept {
    const uint64_t cluster = data->ni->vol->cluster_size;
    errno = 0;
    const runlist_element* const run = ntfs_attr_find_vcn(data, static_cast<VCN>(at / cluster));
    if (run == nullptr || run->length <= 0 || (run->lcn < 0 && run->lcn != LCN_HOLE)) {
        return err_or(EIO);
    }
    *found = {.start = static_cast<uint64_t>(run->vcn) * cluster,
              .end = static_cast<uint64_t>(run->vcn + run->length) * cluster,
              .place = run->lcn == LCN_HOLE ? -1 : run->lcn * static_cast<int64_t>(cluster)};
    return 0;
}

struct region {
    bool is_hole;
    uint64_t end; // bytes from the beginning of the file
};

// The longest region known without a look further on: two that follow each other may be alike.
// What was never written counts as a hole. `at` is within the file; errno or EIO.
int32_t find_region(ntfs_attr* data, uint64_t at, region* found) noexcept {
    const auto size = static_cast<uint64_t>(data->data_size);
    const uint64_t initialised = initialised_bytes(data);
    *found = {.is_hole = is_plain(data) && at >= initialised, .end = size};
    if (!is_plain(data) || found->is_hole) {
        return 0;
    }
    clusters here{};
    const int32_t error = find_clusters(data, at, &here);
    *found = {.is_hole = here.is_hole(),
              .end = std::min(here.end, here.is_hole() ? size : initialised)};
    return error;
}

int32_t seek(const ntb_vol* vol, uint64_t ino, uint64_t offset, bool for_hole,
             uint64_t* found) noexcept {
    open_file file;
    if (const int32_t error = file.open_inode(vol, ino); error != 0) {
        return error;
    }
    const auto size = static_cast<uint64_t>(file.inode->data_size);
    if (offset >= size) {
        return ENXIO;
    }
    const int32_t error = file.open_data();
    if (error == EOPNOTSUPP || error == EACCES) {
        // The bytes are elsewhere, or cannot be had: nothing of them is known to be zero.
        *found = for_hole ? size : offset;
        return 0;
    }
    if (error != 0) {
        return error;
    }
    for (region here{.is_hole = !for_hole, .end = offset}; here.is_hole != for_hole;) {
        offset = here.end;
        if (offset >= size) {
            *found = size; // the end counts as a hole
            return for_hole ? 0 : ENXIO;
        }
        if (const int32_t failed = find_region(file.data.get(), offset, &here); failed != 0) {
            return failed;
        }
    }
    *found = offset;
    return 0;
}

// Changes sizes of a stream where the library has no call for it. The sizes stand in its first
// extent.
int32_t set_sizes(ntfs_attr* data, uint64_t size, uint64_t initialised) noexcept {
    attribute_search search(data->ni);
    if (!search.find(data->type, data->name, data->name_len)) {
        return err_or(EIO);
    }
    ATTR_RECORD* const record = search.found();
    if (record->non_resident == 0) {
        return EIO; // the library holds it for one that is not
    }
    record->data_size = cpu_to_sle64(static_cast<s64>(size));
    record->initialized_size = cpu_to_sle64(static_cast<s64>(initialised));
    data->data_size = static_cast<s64>(size);
    data->initialized_size = static_cast<s64>(initialised);
    ntfs_inode_mark_dirty(search.holder());
    return 0;
}

// Notes in the inode what its directory entries are to say of the stream, and the times.
void note_change(open_file& file, unsigned times) noexcept {
    file.inode->data_size = file.data->data_size;
    file.inode->allocated_size = allocated_size_of(file.data.get());
    NInoFileNameSetDirty(file.inode.get());
    ntfs_inode_update_times(file.inode.get(), static_cast<ntfs_time_update_flags>(times));
}

// EOPNOTSUPP for streams that have no plain clusters, encrypted and compressed ones.
int32_t open_for_allocation(const ntb_vol* vol, uint64_t ino, open_file& file) noexcept {
    if (is_read_only(vol)) {
        return EROFS;
    }
    if (const int32_t error = file.open(vol, ino); error != 0) {
        return error;
    }
    return (file.data->data_flags & ATTR_COMPRESSION_MASK) != 0 ? EOPNOTSUPP : 0;
}

int32_t result_of(int answer) noexcept {
    return answer == 0 ? 0 : err_or(EIO);
}

int32_t allocate(const ntb_vol* vol, uint64_t ino, uint64_t offset, uint64_t end,
                 bool keep_size) noexcept {
    open_file file;
    if (const int32_t error = open_for_allocation(vol, ino, file); error != 0) {
        return error;
    }
    ntfs_attr* const data = file.data.get();
    const uint64_t size = file.size();
    const uint64_t initialised = std::min(initialised_bytes(data), size);
    const uint64_t allocated =
        NAttrNonResident(data) ? static_cast<uint64_t>(data->allocated_size) : size;
    if (end <= allocated && (keep_size || end <= size)) {
        return file.close(0);
    }
    errno = 0;
    int32_t error = 0;
    // What lies between the old end and the range becomes a hole, but for a file that keeps its
    // size: then it has none beyond its end.
    if (!keep_size && offset > allocated) {
        error = result_of(ntfs_attr_truncate(data, static_cast<s64>(offset)));
    }
    if (error == 0 && end > allocated) {
        error = admit(vol, end - std::max(allocated, keep_size ? 0 : offset));
    }
    if (error == 0) {
        error = result_of(end > allocated ? ntfs_attr_truncate_solid(data, static_cast<s64>(end))
                                          : ntfs_attr_truncate(data, static_cast<s64>(end)));
    }
    if (error == 0 && keep_size) {
        error = NAttrNonResident(data)
                    ? set_sizes(data, size, initialised)
                    : result_of(ntfs_attr_truncate(data, static_cast<s64>(size)));
    }
    if (error == 0) {
        note_change(file, keep_size ? NTFS_UPDATE_CTIME : NTFS_UPDATE_MCTIME);
    }
    return file.close(error);
}

// Writes zeroes over what the stream has of a stretch, which is within the file: holes and what was
// never written read so already.
int32_t write_zeroes(ntfs_attr* data, uint64_t from, uint64_t to) noexcept {
    while (from < to) {
        region here{};
        if (const int32_t error = find_region(data, from, &here); error != 0) {
            return error;
        }
        const uint64_t end = std::min(here.end, to);
        while (from < end && !here.is_hole) {
            uint64_t done = 0;
            const int32_t error =
                write_stream(data, from, zeroes.data(), std::min(end - from, zeroes_bytes), &done);
            if (error != 0) {
                return error;
            }
            from += done;
        }
        from = end;
    }
    return 0;
}

// The run list with a hole in the place of [first, end); null without memory. In memory of the
// library's kind: it enlarges run lists in steps of 4096 bytes, and counts on what is left of one.
c_bytes with_hole(const runlist_element* runs, VCN first, VCN end) noexcept {
    constexpr size_t step = 4096;
    size_t count = 1; // the end
    for (const runlist_element* run = runs; run->length != 0; run++) {
        count++;
    }
    const size_t size = (count + 2) * sizeof(runlist_element); // one may fall into three
    c_bytes memory(static_cast<uint8_t*>(std::malloc((size + step - 1) / step * step)));
    if (!memory) {
        return memory;
    }
    auto* const made = reinterpret_cast<runlist_element*>(memory.get());
    size_t used = 0;
    const auto add = [&](VCN from, VCN to, LCN lcn) {
        if (from >= to) {
            return;
        }
        if (lcn == LCN_HOLE && used != 0 && made[used - 1].lcn == LCN_HOLE) {
            made[used - 1].length += to - from;
        } else {
            made[used++] = {.vcn = from, .lcn = lcn, .length = to - from};
        }
    };
    const runlist_element* run = runs;
    for (; run->length != 0; run++) {
        const VCN run_end = run->vcn + run->length;
        const bool has_clusters = run->lcn >= 0;
        add(run->vcn, std::min(run_end, first), run->lcn);
        add(std::max(run->vcn, first), std::min(run_end, end), LCN_HOLE);
        const VCN rest = std::max(run->vcn, end);
        add(rest, run_end, has_clusters ? run->lcn + (rest - run->vcn) : run->lcn);
    }
    made[used] = *run;
    return memory;
}

// Gives the clusters from `first` to `end` back.
int32_t free_clusters(ntfs_attr* data, VCN first, VCN end) noexcept {
    errno = 0;
    if (ntfs_attr_map_whole_runlist(data) != 0) {
        return err_or(EIO);
    }
    c_bytes runs = with_hole(data->rl, first, end);
    if (!runs) {
        return ENOMEM;
    }
    if (ntfs_cluster_free(data->ni->vol, data, first, end - first) < 0) {
        return err_or(EIO);
    }
    std::free(data->rl);
    data->rl = reinterpret_cast<runlist_element*>(runs.release());
    return result_of(ntfs_attr_update_mapping_pairs(data, 0));
}

int32_t punch(const ntb_vol* vol, uint64_t ino, uint64_t offset, uint64_t end) noexcept {
    open_file file;
    if (const int32_t error = open_for_allocation(vol, ino, file); error != 0) {
        return error;
    }
    ntfs_attr* const data = file.data.get();
    const uint64_t cluster = data->ni->vol->cluster_size;
    const uint64_t size = file.size();
    // Whole clusters; the last one also where what it has behind the range is behind the file.
    const uint64_t first = (offset + cluster - 1) / cluster * cluster;
    const uint64_t last =
        end < size ? end / cluster * cluster : static_cast<uint64_t>(data->allocated_size);
    const bool frees = is_plain(data) && first < last;
    int32_t error = write_zeroes(data, offset, std::min({frees ? first : end, end, size}));
    if (error == 0 && frees) {
        error = write_zeroes(data, last, std::min(end, size));
    }
    if (error == 0 && frees) {
        error = free_clusters(data, static_cast<VCN>(first / cluster),
                              static_cast<VCN>(last / cluster));
    }
    if (error == 0) {
        note_change(file, NTFS_UPDATE_MCTIME);
    }
    return file.close(error);
}

// Has what the stream's clusters hold behind what was written read as zero, up to `end` at most.
int32_t initialise(const ntb_vol* vol, uint64_t ino, uint64_t end) noexcept {
    open_file file;
    if (const int32_t error = open_for_allocation(vol, ino, file); error != 0) {
        return error;
    }
    ntfs_attr* const data = file.data.get();
    end = std::min(end, file.size());
    if (!is_plain(data)) {
        return file.close(0);
    }
    uint64_t at = initialised_bytes(data);
    for (uint64_t written = 0; at < end && written < NTB_INITIALISE_BYTES_MAX;) {
        clusters here{};
        if (const int32_t error = find_clusters(data, at, &here); error != 0) {
            return file.close(error);
        }
        const uint64_t length = here.is_hole()
                                    ? std::min(here.end, end) - at
                                    : std::min({here.end - at, end - at, uint64_t{zeroes_bytes}});
        if (!here.is_hole()) {
            errno = 0;
            const auto wanted = static_cast<s64>(length);
            if (ntfs_pwrite(data->ni->vol->dev, static_cast<s64>(here.place_of(at)), wanted,
                            zeroes.data()) != wanted) {
                return file.close(err_or(EIO));
            }
            written += length;
        }
        at += length;
    }
    return file.close(at > initialised_bytes(data) ? set_sizes(data, file.size(), at) : 0);
}

} // namespace

bool ntb::is_far_from_written(ntfs_attr* data, uint64_t offset) noexcept {
    uint64_t at = initialised_bytes(data);
    if (!is_plain(data) || offset <= at || offset - at <= NTB_CACHED_BYTES_MAX) {
        return false;
    }
    const auto end = std::min(offset, static_cast<uint64_t>(data->data_size));
    for (clusters here{}; at < end; at = here.end) {
        // An error is left to the write, which comes across it as well.
        if (find_clusters(data, at, &here) != 0 || !here.is_hole()) {
            return !here.is_hole();
        }
    }
    return false;
}

int32_t ntb::trim_clusters(open_file& file, uint64_t keep) noexcept {
    ntfs_attr* const data = file.data.get();
    const auto cluster = static_cast<int64_t>(data->ni->vol->cluster_size);
    const uint64_t size = file.size();
    const uint64_t end = std::min(std::max(size, keep), offset_max);
    if (!is_plain(data) || static_cast<int64_t>(end) > data->allocated_size - cluster) {
        return 0;
    }
    const uint64_t initialised = std::min(initialised_bytes(data), size);
    // The library frees nothing of a stream whose size stays, so it is told of a longer one.
    data->data_size = data->allocated_size;
    errno = 0;
    int32_t error = result_of(ntfs_attr_truncate(data, static_cast<s64>(end)));
    if (error == 0 && end != size) {
        error = set_sizes(data, size, initialised);
    }
    if (error == 0) {
        file.inode->data_size = data->data_size;
        file.inode->allocated_size = allocated_size_of(data);
        NInoFileNameSetDirty(file.inode.get());
    }
    return error;
}

int32_t ntb_trim(ntb_vol* vol, uint64_t ino, uint64_t keep) {
    return atomically(vol, [&] {
        open_file file;
        const int32_t error = is_read_only(vol) ? EROFS : file.open(vol, ino);
        return error != 0 ? error : file.close(trim_clusters(file, keep));
    });
}

int32_t ntb_seek(ntb_vol* vol, uint64_t ino, uint64_t offset, int32_t for_hole, uint64_t* found) {
    return seek(vol, ino, offset, for_hole != 0, found);
}

int32_t ntb_allocate(ntb_vol* vol, uint64_t ino, uint64_t offset, uint64_t length,
                     int32_t keep_size) {
    if (offset > offset_max || length > offset_max - offset) {
        return EFBIG;
    }
    return atomically(vol,
                      [&] { return allocate(vol, ino, offset, offset + length, keep_size != 0); });
}

int32_t ntb_punch(ntb_vol* vol, uint64_t ino, uint64_t offset, uint64_t length) {
    const uint64_t end = offset > UINT64_MAX - length ? UINT64_MAX : offset + length;
    return atomically(vol, [&] { return punch(vol, ino, offset, end); });
}

int32_t ntb_initialise(ntb_vol* vol, uint64_t ino, uint64_t end) {
    return atomically(vol, [&] { return initialise(vol, ino, end); });
}
