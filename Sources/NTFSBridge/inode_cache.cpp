#include "NTFSBridge/inode_cache.hpp"

namespace ntb {
namespace {

// As many again as there are entries keep the chains at one entry or two.
constexpr int bucket_count = 2 * cached_inodes_max;

int bucket_of(const CACHED_GENERIC* item) noexcept {
    const auto* const inode = reinterpret_cast<const CACHED_NIDATA*>(item);
    return static_cast<int>(inode->inum % bucket_count);
}

// Where the volume has its inode cache, known by its hash function; null when there is none, or it
// is in use. The library's structure has one pointer more before its caches when it was configured
// to map extended attributes, which its headers do not tell.
CACHE_HEADER** inode_cache_of(ntfs_volume* volume) noexcept {
    for (CACHE_HEADER** const place : {&volume->nidata_cache, &volume->lookup_cache}) {
        if (*place != nullptr && (*place)->dohash == ntfs_inode_nidata_hash) {
            return (*place)->most_recent_entry == nullptr ? place : nullptr;
        }
    }
    return nullptr;
}

} // namespace

// The library finds everything through the header's pointers and frees the whole with one free(),
// so a cache needs one block of memory: header, entries, chain links, buckets (cache.h). All links
// and buckets begin empty, which is what calloc() gives.
void enlarge_inode_cache(ntfs_volume* volume) noexcept {
    CACHE_HEADER** const place = inode_cache_of(volume);
    if (place == nullptr) {
        return;
    }
    constexpr size_t entries_at = sizeof(CACHE_HEADER);
    constexpr size_t links_at = entries_at + cached_inodes_max * sizeof(CACHED_NIDATA);
    constexpr size_t buckets_at = links_at + cached_inodes_max * sizeof(HASH_ENTRY);
    constexpr size_t size = buckets_at + bucket_count * sizeof(void*); // each a pointer to a link
    static_assert(entries_at == offsetof(CACHE_HEADER, entry));
    auto* const memory = static_cast<uint8_t*>(std::calloc(1, size));
    if (memory == nullptr) {
        return;
    }
    auto* const entries = reinterpret_cast<CACHED_NIDATA*>(memory + entries_at);
    auto* const links = reinterpret_cast<HASH_ENTRY*>(memory + links_at);
    for (int i = 0; i + 1 < cached_inodes_max; ++i) {
        entries[i].next = &entries[i + 1];
        links[i].next = &links[i + 1];
    }
    auto* const cache = reinterpret_cast<CACHE_HEADER*>(memory);
    cache->name = (*place)->name;
    cache->free_entry = reinterpret_cast<CACHED_GENERIC*>(entries);
    cache->free_hash = links;
    cache->first_hash = reinterpret_cast<HASH_ENTRY**>(memory + buckets_at);
    cache->dofree = (*place)->dofree;
    cache->dohash = bucket_of;
    cache->fixed_size = static_cast<int>(sizeof(CACHED_NIDATA) - sizeof(CACHED_GENERIC));
    cache->max_hash = bucket_count;
    std::free(*place);
    *place = cache;
}

} // namespace ntb
