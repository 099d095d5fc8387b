#include "check/filled_volume.hpp"

#include "NTFSBridge/ntb.h"
#include "support/memory_io.hpp"

#include <stdexcept>

namespace tavelin::test {
namespace {

void require(int32_t error) {
    if (error != 0) {
        throw std::runtime_error("the volume cannot be filled: " + std::to_string(error));
    }
}

// Makes files through the bridge; what it answers is for its own tests.
class Filler {
  public:
    explicit Filler(MemoryIo& memory) {
        int32_t error = 0;
        volume_ = ntb_mount(&memory.io(), 0, &error);
        require(error);
    }
    ~Filler() { ntb_umount(volume_); }
    Filler(const Filler&) = delete;
    Filler& operator=(const Filler&) = delete;

    uint64_t make(const std::string& name, uint64_t parent = NTB_ROOT_INO,
                  uint32_t kind = NTB_TYPE_FILE) {
        uint64_t ino = 0;
        require(ntb_create(volume_, parent, name.c_str(), kind, &ino));
        return ino;
    }
    void write(uint64_t ino, size_t size, uint64_t offset = 0) {
        std::string data(size, 'x');
        uint32_t state = 1;
        for (char& c : data) {
            state = state * 1664525u + 1013904223u;
            c = static_cast<char>(state >> 24);
        }
        uint64_t done = 0;
        require(ntb_write(volume_, ino, offset, data.data(), size, &done));
    }
    void setStream(uint64_t ino, const std::string& name, const std::string& value) {
        require(
            ntb_setxattr(volume_, ino, name.c_str(), value.data(), value.size(), NTB_XATTR_ANY));
    }
    void remove(const std::string& name, uint64_t parent) {
        require(ntb_unlink(volume_, parent, name.c_str()));
    }

  private:
    ntb_vol* volume_ = nullptr;
};

} // namespace

std::string numbered(int number) {
    return "name" + std::to_string(1000 + number);
}

std::vector<uint8_t> filledImage(const VolumeGeometry& geometry, int names) {
    MemoryIo memory = MemoryIo::fromFile(SampleVolume(geometry).image(), geometry.sectorSize);
    {
        Filler volume(memory);
        volume.write(volume.make("file"), 20000);
        volume.write(volume.make("other"), 200000);
        volume.write(volume.make("small"), 100);
        const uint64_t sparse = volume.make("sparse");
        volume.write(sparse, 5000);
        volume.write(sparse, 5000, 4u << 20);
        const uint64_t streams = volume.make("streams");
        volume.setStream(streams, "aa", "one");
        volume.setStream(streams, "bb", std::string(24, '\0'));
        const uint64_t many = volume.make("many");
        for (int i = 0; i < 60; ++i) {
            volume.setStream(many, "stream" + std::to_string(100 + i), std::string(80, 'x'));
        }
        volume.make("inner", volume.make("outer", NTB_ROOT_INO, NTB_TYPE_DIRECTORY),
                    NTB_TYPE_DIRECTORY);
        const uint64_t directory = volume.make("dir", NTB_ROOT_INO, NTB_TYPE_DIRECTORY);
        for (int i = 0; i < names; ++i) {
            volume.make(numbered(i), directory);
        }
        for (int i = names / 2; i < names; ++i) {
            volume.remove(numbered(i), directory);
        }
    }
    return memory.bytes();
}

} // namespace tavelin::test
