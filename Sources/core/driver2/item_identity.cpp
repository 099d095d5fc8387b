#include "core/driver2/item_identity.hpp"

#include <sys/stat.h>

namespace tavelin::Driver2 {

std::uint32_t mode(NTFSItemType type) noexcept {
    switch (type) {
    case NTFSItemType::directory:
        return S_IFDIR | 0777u;
    case NTFSItemType::symlink:
        return S_IFLNK | 0777u;
    case NTFSItemType::fifo:
        return S_IFIFO | 0666u;
    case NTFSItemType::charDevice:
        return S_IFCHR | 0666u;
    case NTFSItemType::blockDevice:
        return S_IFBLK | 0666u;
    case NTFSItemType::socket:
        return S_IFSOCK | 0666u;
    case NTFSItemType::file:
        break;
    }
    return S_IFREG | 0666u;
}

} // namespace tavelin::Driver2
