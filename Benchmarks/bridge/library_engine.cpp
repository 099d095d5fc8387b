#include "Benchmarks/bridge/engine.hpp"
#include "NTFSBridge/library.hpp"

#include <fmt/format.h>

#include <stdexcept>

namespace tavelin::bench {
namespace {

void check(bool isGood, const char* what) {
    if (!isGood) {
        throw std::runtime_error(fmt::format("{}: {}", what, std::strerror(errno)));
    }
}

class Name {
  public:
    explicit Name(const std::string& text) : length_(ntfs_mbstoucs(text.c_str(), &units_)) {
        check(length_ > 0, "ntfs_mbstoucs");
    }
    ~Name() { std::free(units_); }
    Name(const Name&) = delete;
    Name& operator=(const Name&) = delete;

    ntfschar* units() const { return units_; }
    int length() const { return length_; }

  private:
    ntfschar* units_ = nullptr;
    int length_;
};

class LibraryEngine final : public Engine {
  public:
    explicit LibraryEngine(const std::string& image)
        : volume_(ntfs_mount(image.c_str(), NTFS_MNT_RECOVER)) {
        check(volume_ != nullptr, "ntfs_mount");
        check(ntfs_volume_get_free_space(volume_) == 0, "ntfs_volume_get_free_space");
    }
    ~LibraryEngine() override {
        ntfs_inode_close(directory_);
        ntfs_umount(volume_, FALSE);
    }

    void makeDirectory(const std::string& name) override {
        ntfs_inode* const root = open(FILE_root);
        ntfs_inode* const made = create(root, name, S_IFDIR);
        check(ntfs_inode_close_in_dir(made, root) == 0, "ntfs_inode_close_in_dir");
        check(ntfs_inode_close(root) == 0, "ntfs_inode_close");
        openDirectory(name);
    }
    void openDirectory(const std::string& name) override {
        ntfs_inode* const root = open(FILE_root);
        directory_ = open(find(root, name));
        check(ntfs_inode_close(root) == 0, "ntfs_inode_close");
    }
    void createAndWrite(const std::string& name, const std::string& content) override {
        ntfs_inode* const file = create(directory_, name, S_IFREG);
        writeData(file, content);
        check(ntfs_inode_close_in_dir(file, directory_) == 0, "ntfs_inode_close_in_dir");
    }
    void openAndWrite(const std::string& name, const std::string& content) override {
        ntfs_inode* const file = open(find(directory_, name));
        writeData(file, content);
        ntfs_inode_update_times(file, static_cast<ntfs_time_update_flags>(NTFS_UPDATE_MCTIME));
        check(ntfs_inode_close_in_dir(file, directory_) == 0, "ntfs_inode_close_in_dir");
    }
    uint64_t lookUpSize(const std::string& name) override {
        ntfs_inode* const file = open(find(directory_, name));
        ntfs_attr* const data = openData(file);
        const auto size = static_cast<uint64_t>(data->data_size);
        ntfs_attr_close(data);
        check(ntfs_inode_close(file) == 0, "ntfs_inode_close");
        return size;
    }
    uint64_t countEntries() override {
        uint64_t count = 0;
        s64 position = 0;
        const auto add = [](void* context, const ntfschar* units, int length, int type, s64,
                            MFT_REF reference, unsigned) {
            char* text = nullptr;
            if (type != FILE_NAME_DOS && MREF(reference) >= FILE_first_user &&
                ntfs_ucstombs(units, length, &text, 0) > 0 && text[0] != '.') {
                *static_cast<uint64_t*>(context) += 1;
            }
            std::free(text);
            return 0;
        };
        check(ntfs_readdir(directory_, &position, &count, add) == 0, "ntfs_readdir");
        return count;
    }
    void openFile(const std::string& name, bool isNew) override {
        ntfs_inode* const root = open(FILE_root);
        if (isNew) {
            ntfs_inode* const made = create(root, name, S_IFREG);
            check(ntfs_inode_close_in_dir(made, root) == 0, "ntfs_inode_close_in_dir");
        }
        file_ = open(find(root, name));
        check(ntfs_inode_close(root) == 0, "ntfs_inode_close");
        data_ = openData(file_);
    }
    void write(uint64_t offset, const std::vector<char>& data) override {
        const auto size = static_cast<s64>(data.size());
        check(ntfs_attr_pwrite(data_, static_cast<s64>(offset), size, data.data()) == size,
              "ntfs_attr_pwrite");
    }
    void read(uint64_t offset, std::vector<char>& data) override {
        const auto size = static_cast<s64>(data.size());
        check(ntfs_attr_pread(data_, static_cast<s64>(offset), size, data.data()) == size,
              "ntfs_attr_pread");
    }
    void closeFile() override {
        ntfs_attr_close(data_);
        check(ntfs_inode_close(file_) == 0, "ntfs_inode_close");
    }
    void sync() override { check(ntfs_device_sync(volume_->dev) == 0, "ntfs_device_sync"); }

  private:
    ntfs_inode* open(MFT_REF reference) {
        ntfs_inode* const inode = ntfs_inode_open(volume_, reference);
        check(inode != nullptr, "ntfs_inode_open");
        return inode;
    }
    static MFT_REF find(ntfs_inode* directory, const std::string& text) {
        const Name name(text);
        const u64 found = ntfs_inode_lookup_by_name(directory, name.units(), name.length());
        check(found != static_cast<u64>(-1), "ntfs_inode_lookup_by_name");
        return MREF(found);
    }
    static ntfs_inode* create(ntfs_inode* directory, const std::string& text, mode_t mode) {
        const Name name(text);
        ntfs_inode* const made =
            ntfs_create(directory, 0, name.units(), static_cast<u8>(name.length()), mode);
        check(made != nullptr, "ntfs_create");
        return made;
    }
    static ntfs_attr* openData(ntfs_inode* file) {
        ntfs_attr* const data = ntfs_attr_open(file, AT_DATA, AT_UNNAMED, 0);
        check(data != nullptr, "ntfs_attr_open");
        return data;
    }
    static void writeData(ntfs_inode* file, const std::string& content) {
        ntfs_attr* const data = openData(file);
        const auto size = static_cast<s64>(content.size());
        check(ntfs_attr_pwrite(data, 0, size, content.data()) == size, "ntfs_attr_pwrite");
        ntfs_attr_close(data);
    }

    ntfs_volume* volume_;
    ntfs_inode* directory_ = nullptr;
    ntfs_inode* file_ = nullptr;
    ntfs_attr* data_ = nullptr;
};

} // namespace

std::unique_ptr<Engine> mountLibrary(const std::string& image) {
    return std::make_unique<LibraryEngine>(image);
}

} // namespace tavelin::bench
