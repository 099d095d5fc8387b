// Requests that list directories, with and without the entries' attributes.
#include "hosts/fuse/protocol/requests.hpp"

#include <cerrno>
#include <string>
#include <vector>

namespace tavelin::fusehost {

namespace {

// One reply to READDIR or READDIRPLUS: as many entries as fit.
class Page {
  public:
    Page(fuse_req_t request, size_t size, bool described)
        : request_(request), bytes_(size), described_(described) {}

    bool add(const DirectoryListing::Entry& name, const Entry& entry) {
        name_.assign(name.name); // libfuse wants it terminated
        fuse_entry_param parameters{};
        if (entry.node != nullptr) {
            parameters = entryParameters(request_, entry, {});
        } else {
            parameters.attr.st_ino = inodeNumber(name.id);
            parameters.attr.st_mode = name.type;
        }
        char* const at = bytes_.data() + used_;
        const size_t room = bytes_.size() - used_;
        const auto next = static_cast<off_t>(name.position);
        const size_t size =
            described_
                ? fuse_add_direntry_plus(request_, at, room, name_.c_str(), &parameters, next)
                : fuse_add_direntry(request_, at, room, name_.c_str(), &parameters.attr, next);
        if (size > room) {
            return false;
        }
        used_ += size;
        if (entry.node != nullptr) {
            counted_.push_back(entry.node->number);
        }
        return true;
    }

    void reply() {
        MountedVolume& volume = volumeOf(request_);
        // ENOENT: the request was interrupted, so the kernel holds none of the counts.
        if (fuse_reply_buf(request_, bytes_.data(), used_) == -ENOENT) {
            for (const uint64_t number : counted_) {
                volume.forget(number, 1);
            }
        }
    }

  private:
    fuse_req_t request_;
    std::vector<char> bytes_;
    std::string name_;
    size_t used_ = 0;
    std::vector<uint64_t> counted_;
    const bool described_;
};

template<bool described>
void readDirectory(fuse_req_t request, fuse_ino_t number, size_t size, off_t position,
                   fuse_file_info* /*file*/) {
    answer(request, [&] {
        MountedVolume& volume = volumeOf(request);
        Page page(request, size, described);
        const Outcome<void> read =
            volume.readDirectory(volume.node(number), static_cast<uint64_t>(position), described,
                                 [&](const DirectoryListing::Entry& name, const Entry& entry) {
                                     return page.add(name, entry);
                                 });
        if (!read) {
            fuse_reply_err(request, hostError(read.error()));
            return;
        }
        page.reply();
    });
}

// OPENDIR is answered, although little is kept for an open directory. With ENOSYS the kernel would
// stop sending it and cache each listing in its page cache, entry by entry, which costs more than
// the listing itself and far more than this request.
void openDirectory(fuse_req_t request, fuse_ino_t number, fuse_file_info* file) {
    answer(request, [&] {
        MountedVolume& volume = volumeOf(request);
        Node& directory = volume.node(number);
        volume.openDirectory(directory);
        if (fuse_reply_open(request, file) == -ENOENT) {
            volume.closeDirectory(directory);
        }
    });
}

void closeDirectory(fuse_req_t request, fuse_ino_t number, fuse_file_info* /*file*/) {
    answer(request, [&] {
        MountedVolume& volume = volumeOf(request);
        volume.closeDirectory(volume.node(number));
        fuse_reply_err(request, 0);
    });
}

} // namespace

void addDirectoryRequests(fuse_lowlevel_ops& table) {
    table.opendir = openDirectory;
    table.releasedir = closeDirectory;
    table.readdir = readDirectory<false>;
    table.readdirplus = readDirectory<true>;
}

} // namespace tavelin::fusehost
