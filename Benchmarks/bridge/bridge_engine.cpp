#include "Benchmarks/bridge/engine.hpp"
#include "NTFSBridge/ntb.h"
#include "core/device_box.hpp"
#include "core/file_block_device.hpp"

#include <fmt/format.h>

#include <cstring>
#include <stdexcept>

namespace tavelin::bench {
namespace {

void check(int32_t error, const char* what) {
    if (error != 0) {
        throw std::runtime_error(fmt::format("{}: {}", what, std::strerror(error)));
    }
}

class BridgeEngine final : public Engine {
  public:
    explicit BridgeEngine(const std::string& image)
        : box_(std::make_shared<FileBlockDevice>(image)), io_(makeIO(box_)) {
        int32_t error = 0;
        volume_ = ntb_mount(&io_, 0, &error);
        check(error, "ntb_mount");
    }
    ~BridgeEngine() override { ntb_umount(volume_); }

    void makeDirectory(const std::string& name) override {
        check(ntb_create(volume_, NTB_ROOT_INO, name.c_str(), NTB_TYPE_DIRECTORY, &directory_),
              "ntb_create");
    }
    void openDirectory(const std::string& name) override {
        check(ntb_lookup(volume_, NTB_ROOT_INO, name.c_str(), &directory_), "ntb_lookup");
    }
    void createAndWrite(const std::string& name, const std::string& content) override {
        uint64_t ino = 0;
        check(ntb_create(volume_, directory_, name.c_str(), NTB_TYPE_FILE, &ino), "ntb_create");
        writeAll(ino, 0, content.data(), content.size());
    }
    void openAndWrite(const std::string& name, const std::string& content) override {
        writeAll(find(name), 0, content.data(), content.size());
    }
    uint64_t lookUpSize(const std::string& name) override {
        ntb_attr attributes = {};
        check(ntb_getattr(volume_, find(name), &attributes), "ntb_getattr");
        return attributes.size;
    }
    uint64_t countEntries() override {
        uint64_t count = 0;
        const auto add = [](void* context, const char*, uint64_t, uint16_t, uint32_t) {
            *static_cast<uint64_t*>(context) += 1;
            return int32_t{0};
        };
        check(ntb_readdir(volume_, directory_, add, &count), "ntb_readdir");
        return count;
    }
    void openFile(const std::string& name, bool create) override {
        if (create) {
            check(ntb_create(volume_, NTB_ROOT_INO, name.c_str(), NTB_TYPE_FILE, &file_),
                  "ntb_create");
        } else {
            check(ntb_lookup(volume_, NTB_ROOT_INO, name.c_str(), &file_), "ntb_lookup");
        }
    }
    void write(uint64_t offset, const std::vector<char>& data) override {
        writeAll(file_, offset, data.data(), data.size());
    }
    void read(uint64_t offset, std::vector<char>& data) override {
        uint64_t done = 0;
        check(ntb_read(volume_, file_, offset, data.data(), data.size(), &done), "ntb_read");
        check(done == data.size() ? 0 : EIO, "ntb_read");
    }
    void closeFile() override {}
    void sync() override { check(ntb_sync(volume_), "ntb_sync"); }

  private:
    uint64_t find(const std::string& name) {
        uint64_t ino = 0;
        check(ntb_lookup(volume_, directory_, name.c_str(), &ino), "ntb_lookup");
        return ino;
    }
    void writeAll(uint64_t ino, uint64_t offset, const char* data, size_t size) {
        uint64_t done = 0;
        check(ntb_write(volume_, ino, offset, data, size, &done), "ntb_write");
    }

    DeviceBox box_;
    ntb_io io_;
    ntb_vol* volume_ = nullptr;
    uint64_t directory_ = NTB_ROOT_INO;
    uint64_t file_ = 0;
};

} // namespace

std::unique_ptr<Engine> mountBridge(const std::string& image) {
    return std::make_unique<BridgeEngine>(image);
}

} // namespace tavelin::bench
