// Files that Windows compressed as a whole (`compact /exe`, CompactOS): their bytes are in the
// stream WofCompressedData, and the unnamed stream is a hole of the right size. The layouts are
// those of Microsoft's [MS-FSCC] 2.1.2 and of the WOF_EXTERNAL_INFO and FILE_PROVIDER_EXTERNAL_INFO
// structures.
#pragma once

#include "NTFSBridge/reparse.hpp"
#include "compression/chunk_reader.hpp"

#include <array>
#include <optional>

struct ntb_vol;

namespace ntb {

inline constexpr const char* compressed_stream_name = "WofCompressedData";

// How a file is compressed; absent when the reparse point is of another kind, of another provider
// (image files elsewhere), or of a version or format that is not known.
[[nodiscard]] std::optional<tavelin::compression::Format>
system_compression_format(const reparse_point& point) noexcept;

// The readers of the files that were read last, with the chunks that they keep: at most
// `readers_max` times some 350 KiB. A reader is good as long as nobody changes the file.
class compressed_readers {
  public:
    using reader = tavelin::compression::ChunkReader;

    // Null when there is none for the record's present use.
    [[nodiscard]] reader* find(const ntfs_inode* inode) noexcept;
    // Takes the reader over and answers it; the one that was used longest ago gives way.
    reader* keep(const ntfs_inode* inode, std::unique_ptr<reader> made) noexcept;
    // Called before the file's compressed stream changes, as a reader remembers where its chunks
    // are.
    void forget(const ntfs_inode* inode) noexcept;

  private:
    static constexpr size_t readers_max = 16;

    struct entry {
        uint64_t ino = 0;
        uint16_t sequence = 0;
        uint64_t last_use = 0;
        std::unique_ptr<reader> owned;
    };
    [[nodiscard]] entry* entry_of(const ntfs_inode* inode) noexcept;

    std::array<entry, readers_max> entries_;
    uint64_t uses_ = 0;
};

// Reads from a system-compressed file, *done bytes up to its end. ENOTSUP-like answers do not
// occur: EOPNOTSUPP when the file is none, EIO when its stream is damaged, else errno.
[[nodiscard]] int32_t read_compressed(ntb_vol* vol, ntfs_inode* inode, uint64_t offset,
                                      void* buffer, uint64_t length, uint64_t* done) noexcept;

// The space that the compressed stream takes, in bytes; 0 when it cannot be opened.
[[nodiscard]] uint64_t compressed_allocation(ntfs_inode* inode) noexcept;

} // namespace ntb
