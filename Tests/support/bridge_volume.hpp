// A sample volume mounted through the bridge, its device being a copy of the image in memory.
#pragma once

#include "NTFSBridge/ntb.h"
#include "lab/disk_io.hpp"
#include "lab/structural_check.hpp"
#include "support/sample_volume.hpp"

#include <gtest/gtest.h>

#include <cerrno>
#include <map>
#include <string>

namespace tavelin::test {

// What a mount answers. Nothing stays mounted.
inline int32_t mountError(DiskIo& device, bool isReadOnly = false) {
    int32_t error = 0;
    ntb_vol* const volume = ntb_mount(&device.io(), isReadOnly ? 1 : 0, &error);
    EXPECT_EQ(volume == nullptr, error != 0);
    EXPECT_EQ(ntb_umount(volume), 0);
    return error;
}

class BridgeVolume {
  public:
    explicit BridgeVolume(const VolumeGeometry& geometry = {})
        : sample_(geometry), memory_(DiskIo::fromFile(sample_.image(), geometry.sectorSize)) {
        mount();
    }
    // What the bridge leaves on the disk has to be sound, whatever it answered.
    ~BridgeVolume() {
        const int32_t error = volume_ != nullptr ? unmount() : 0;
        if (sample_.isChecked() && error == 0 && !::testing::Test::HasFailure()) {
            EXPECT_EQ(structuralComplaints(std::as_bytes(std::span(memory_.bytes))), "");
        }
    }
    BridgeVolume(const BridgeVolume&) = delete;
    BridgeVolume& operator=(const BridgeVolume&) = delete;

    operator ntb_vol*() const { return volume_; }
    DiskIo& memory() { return memory_; }
    const SampleVolume& sample() const { return sample_; }

    int32_t unmount() { return ntb_umount(std::exchange(volume_, nullptr)); }
    int32_t mount(bool isReadOnly = false) {
        int32_t error = 0;
        volume_ = ntb_mount(&memory_.io(), isReadOnly ? 1 : 0, &error);
        return error;
    }
    // Unmounts, hands the image to the independent tools and has them check it.
    const SampleVolume& finish() {
        EXPECT_EQ(unmount(), 0);
        EXPECT_EQ(memory_.violations(), 0u);
        memory_.save(sample_.image());
        EXPECT_NO_THROW(sample_.check());
        return sample_;
    }

    // Mounts again what others have made of the image after finish().
    void reload() {
        memory_ = DiskIo::fromFile(sample_.image());
        ASSERT_EQ(mount(), 0);
    }

    uint64_t make(const std::string& name, uint64_t parent = NTB_ROOT_INO,
                  uint32_t kind = NTB_TYPE_FILE) {
        uint64_t ino = 0;
        EXPECT_EQ(ntb_create(volume_, parent, name.c_str(), kind, &ino), 0) << name;
        return ino;
    }
    uint64_t makeDirectory(const std::string& name, uint64_t parent = NTB_ROOT_INO) {
        return make(name, parent, NTB_TYPE_DIRECTORY);
    }
    // 0 when there is no such name.
    uint64_t find(const std::string& name, uint64_t parent = NTB_ROOT_INO) {
        uint64_t ino = 0;
        const int32_t error = ntb_lookup(volume_, parent, name.c_str(), &ino);
        EXPECT_TRUE(error == 0 || error == ENOENT) << name << ": " << error;
        return error == 0 ? ino : 0;
    }
    // "/a/b", by one lookup a part.
    uint64_t resolve(const std::string& path) {
        uint64_t ino = NTB_ROOT_INO;
        for (size_t at = 1; at < path.size();) {
            const size_t end = std::min(path.find('/', at), path.size());
            ino = find(path.substr(at, end - at), ino);
            at = end + 1;
        }
        return ino;
    }
    // Of a name in the root directory.
    int32_t unlink(const std::string& name) {
        return ntb_unlink(volume_, NTB_ROOT_INO, name.c_str());
    }
    int32_t rename(const std::string& from, const std::string& to) {
        return ntb_rename(volume_, NTB_ROOT_INO, from.c_str(), NTB_ROOT_INO, to.c_str());
    }
    ntb_statfs space() const {
        ntb_statfs space = {};
        EXPECT_EQ(ntb_statfs_get(volume_, &space), 0);
        return space;
    }
    ntb_stats stats() const {
        ntb_stats stats = {};
        ntb_get_stats(volume_, &stats);
        return stats;
    }
    int32_t write(uint64_t ino, const std::string& data, uint64_t offset = 0) {
        uint64_t done = 0;
        const int32_t error = ntb_write(volume_, ino, offset, data.data(), data.size(), &done);
        EXPECT_EQ(done, error == 0 ? data.size() : done);
        return error;
    }
    std::string read(uint64_t ino) { return read(ino, 0, attributes(ino).size + 1); }
    std::string read(uint64_t ino, uint64_t offset, uint64_t length) {
        std::string data(length, '\0');
        uint64_t done = 0;
        EXPECT_EQ(ntb_read(volume_, ino, offset, data.data(), length, &done), 0);
        data.resize(done);
        return data;
    }
    ntb_attr attributes(uint64_t ino) {
        ntb_attr attr = {};
        EXPECT_EQ(ntb_getattr(volume_, ino, &attr), 0);
        return attr;
    }
    std::string readlink(uint64_t ino, decltype(ntb_readlink)& read = ntb_readlink) {
        char* target = nullptr;
        EXPECT_EQ(read(volume_, ino, &target), 0);
        const std::string text = target == nullptr ? "" : target;
        free(target);
        return text;
    }
    // Name to type of everything in a directory. Duplicate names are a failure.
    std::map<std::string, uint32_t> list(uint64_t directory = NTB_ROOT_INO) {
        std::map<std::string, uint32_t> entries;
        const auto add = [](void* context, const char* name, uint64_t, uint16_t, uint32_t type) {
            auto& list = *static_cast<std::map<std::string, uint32_t>*>(context);
            EXPECT_TRUE(list.emplace(name, type).second) << name;
            return int32_t{0};
        };
        EXPECT_EQ(ntb_readdir(volume_, directory, add, &entries), 0);
        return entries;
    }
    std::string shortName(const std::string& name, uint64_t parent = NTB_ROOT_INO) {
        char* alias = nullptr;
        EXPECT_EQ(ntb_short_name(volume_, parent, name.c_str(), &alias), 0) << name;
        const std::string text = alias == nullptr ? "none" : alias;
        free(alias);
        return text;
    }
    std::vector<std::string> streams(uint64_t ino) {
        std::vector<std::string> names;
        const auto add = [](void* context, const char* name) {
            static_cast<std::vector<std::string>*>(context)->emplace_back(name);
            return int32_t{0};
        };
        EXPECT_EQ(ntb_listxattr(volume_, ino, add, &names), 0);
        return names;
    }
    // The error, or 0 and the value.
    std::pair<int32_t, std::string> stream(uint64_t ino, const std::string& name) {
        void* value = nullptr;
        uint64_t size = 0;
        const int32_t error = ntb_getxattr(volume_, ino, name.c_str(), &value, &size);
        EXPECT_EQ(value != nullptr, error == 0);
        std::string text(static_cast<const char*>(value), size);
        free(value);
        return {error, text};
    }
    int32_t setStream(uint64_t ino, const std::string& name, const std::string& value,
                      int32_t flags = NTB_XATTR_ANY) {
        return ntb_setxattr(volume_, ino, name.c_str(), value.data(), value.size(), flags);
    }

  private:
    SampleVolume sample_;
    DiskIo memory_;
    ntb_vol* volume_ = nullptr;
};

// Bytes that repeat nowhere near, so that a misplaced block shows.
inline std::string patternText(uint64_t size, uint32_t seed = 1) {
    std::string text(size, '\0');
    uint32_t state = seed * 2654435761u;
    for (char& c : text) {
        state = state * 1664525u + 1013904223u;
        c = static_cast<char>(state >> 24);
    }
    return text;
}

} // namespace tavelin::test
