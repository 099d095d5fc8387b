#include "hosts/cli/copy/item_copier.hpp"

#include "hosts/cli/text.hpp"

#include <fcntl.h>

namespace tavelin::cli {

bool ItemCopier::copy(const HostTree::Directory& from, const VolumeTree::Directory& to,
                      const std::string& name) {
    return putter_.put({from.descriptor.get(), name, joined(from.path, name)}, to.item, name);
}

bool ItemCopier::copy(const VolumeTree::Directory& from, const HostTree::Directory& to,
                      const std::string& name) {
    const std::string path = joined(from.path, name);
    return getter_.get(valueOf(volume_.lookup(from.item, name), path), path, to.descriptor.get(),
                       name);
}

void ItemCopier::copyStreams(const HostTree::Directory& from, const VolumeTree::Directory& to) {
    putter_.putStreams(from.descriptor.get(), to.item, to.path);
}

void ItemCopier::copyStreams(const VolumeTree::Directory& from, const HostTree::Directory& to) {
    getter_.getStreams(from.item, from.path, to.descriptor.get());
}

bool ItemCopier::isSame(const HostTree::Directory& host, const VolumeTree::Directory& directory,
                        const std::string& name) {
    return isSame(directory, host, name);
}

bool ItemCopier::isSame(const VolumeTree::Directory& directory, const HostTree::Directory& host,
                        const std::string& name) {
    const std::string path = joined(directory.path, name);
    const FileDescriptor file(openat(host.descriptor.get(), name.c_str(),
                                     O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    if (!file) {
        throwHostError(joined(host.path, name));
    }
    return contents_.isSame(valueOf(volume_.lookup(directory.item, name), path), path, file,
                            joined(host.path, name));
}

} // namespace tavelin::cli
