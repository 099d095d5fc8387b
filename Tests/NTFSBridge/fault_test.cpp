// A scripted workload while device calls or the bridge's own allocations fail, each in turn.
#include "NTFSBridge/ntb.h"
#include "NTFSBridge/volume.hpp"
#include "support/memory_io.hpp"
#include "support/sample_volume.hpp"

#include <gtest/gtest.h>

#include <cerrno>
#include <functional>
#include <map>
#include <new>
#include <set>

// The bridge's allocations all come this way, by the linker's --wrap: operator new for what it
// keeps, malloc for what it hands out. The library's own do not.
namespace {

struct {
    bool isCounting = false;
    uint64_t count = 0;
    uint64_t failing = 0; // which one answers null; 0: none
} allocations;

bool allocationFails() {
    return allocations.isCounting && ++allocations.count == allocations.failing;
}

} // namespace

extern "C" {
void* __real_malloc(size_t size);
void* __wrap_malloc(size_t size) {
    return allocationFails() ? nullptr : __real_malloc(size);
}
void* __real__ZnwmRKSt9nothrow_t(size_t size, const std::nothrow_t& tag) noexcept;
void* __wrap__ZnwmRKSt9nothrow_t(size_t size, const std::nothrow_t& tag) noexcept {
    return allocationFails() ? nullptr : __real__ZnwmRKSt9nothrow_t(size, tag);
}
void* __real__ZnamRKSt9nothrow_t(size_t size, const std::nothrow_t& tag) noexcept;
void* __wrap__ZnamRKSt9nothrow_t(size_t size, const std::nothrow_t& tag) noexcept {
    return allocationFails() ? nullptr : __real__ZnamRKSt9nothrow_t(size, tag);
}
}

// libntfs-3g loses memory of its own when the device fails beneath it: in a mount that gives up,
// and in creations and removals that cannot write the inodes they close. Telling its losses from
// ours takes whole stacks.
extern "C" const char* __asan_default_options() {
    return "fast_unwind_on_malloc=0";
}
extern "C" const char* __lsan_default_suppressions() {
    return "leak:ntfs_device_mount\nleak:Faults_ChangesWithoutCacheFail_Test\n";
}

namespace tavelin::test {
namespace {

// Runs the workload and notes which errors it met and which contents were promised to be there.
class Workload {
  public:
    explicit Workload(MemoryIo& device) : device_(device) {}
    ~Workload() { ntb_umount(volume_); }
    Workload(const Workload&) = delete;
    Workload& operator=(const Workload&) = delete;

    const std::set<int32_t>& errors() const { return errors_; }

    // False when it could not even mount.
    bool mount(bool isReadOnly = false) {
        int32_t error = 0;
        volume_ = ntb_mount(&device_.io(), isReadOnly ? 1 : 0, &error);
        note(error);
        EXPECT_EQ(volume_ == nullptr, error != 0);
        return volume_ != nullptr;
    }

    void run() {
        uint64_t directory = 0;
        if (note(ntb_create(volume_, NTB_ROOT_INO, "directory", NTB_TYPE_DIRECTORY, &directory))) {
            fill(directory);
        }
        for (const uint64_t size : {100, 5000, 70000, 200000}) {
            put("kept " + std::to_string(size), std::string(size, 'k'));
        }
        changeFile();
        changeNames();
        note(ntb_set_label(volume_, "label"));
        free(ntb_label(volume_));
        note(ntb_flush_dirty(volume_));
        note(ntb_sync(volume_));
    }

    // Reads what run() made.
    void inspect() {
        ntb_attr attr = {};
        uint64_t ino = 0;
        note(ntb_getattr(volume_, NTB_ROOT_INO, &attr));
        if (note(ntb_lookup(volume_, NTB_ROOT_INO, "directory", &ino))) {
            list(ino);
        }
        if (note(ntb_lookup(volume_, NTB_ROOT_INO, "link", &ino))) {
            note(ntb_getattr(volume_, ino, &attr));
            readLink(ino);
        }
        if (note(ntb_lookup(volume_, NTB_ROOT_INO, "changed", &ino))) {
            readStreams(ino);
            get(ino, 300000);
        }
    }

    // With a device that works again, everything that was promised gets there.
    void expectRecovery() {
        EXPECT_TRUE(volume_->context->cache.is_consistent());
        EXPECT_EQ(ntb_sync(volume_), 0);
        EXPECT_EQ(volume_->stats.dirtyPages, 0u);
        EXPECT_EQ(ntb_umount(std::exchange(volume_, nullptr)), 0);
        ASSERT_TRUE(mount());
        for (const auto& [name, content] : promised_) {
            uint64_t ino = 0;
            EXPECT_EQ(ntb_lookup(volume_, NTB_ROOT_INO, name.c_str(), &ino), 0) << name;
            EXPECT_TRUE(get(ino, content.size() + 1) == content) << name;
        }
    }

  private:
    bool note(int32_t error) {
        EXPECT_GE(error, 0);
        if (error != 0) {
            errors_.insert(error);
        }
        return error == 0;
    }

    void put(const std::string& name, const std::string& content) {
        uint64_t ino = 0;
        uint64_t done = 0;
        if (note(ntb_create(volume_, NTB_ROOT_INO, name.c_str(), NTB_TYPE_FILE, &ino)) &&
            note(ntb_write(volume_, ino, 0, content.data(), content.size(), &done))) {
            EXPECT_EQ(done, content.size());
            promised_[name] = content;
        }
    }

    std::string get(uint64_t ino, uint64_t length) {
        std::string content(length, '\0');
        uint64_t done = 0;
        note(ntb_read(volume_, ino, 0, content.data(), length, &done));
        content.resize(done);
        return content;
    }

    void fill(uint64_t directory) {
        uint64_t ino = 0;
        for (int i = 0; i < 60; ++i) {
            const std::string name = "a rather long name, number " + std::to_string(i);
            note(ntb_create(volume_, directory, name.c_str(), NTB_TYPE_FILE, &ino));
            if (i % 3 == 0) {
                note(ntb_unlink(volume_, directory, name.c_str()));
            }
        }
        list(directory);
    }

    void list(uint64_t directory) {
        const auto ignore = [](void*, const char*, uint64_t, uint32_t) { return int32_t{0}; };
        note(ntb_readdir(volume_, directory, ignore, nullptr));
    }

    void readLink(uint64_t ino) {
        char* target = nullptr;
        if (note(ntb_readlink(volume_, ino, &target))) {
            EXPECT_STREQ(target, "kept 100");
        }
        free(target);
    }

    void readStreams(uint64_t ino) {
        void* value = nullptr;
        uint64_t size = 0;
        const bool isRead = note(ntb_getxattr(volume_, ino, "small", &value, &size));
        EXPECT_EQ(value != nullptr, isRead);
        free(value);
        const auto ignore = [](void*, const char*) { return int32_t{0}; };
        note(ntb_listxattr(volume_, ino, ignore, nullptr));
    }

    void changeFile() {
        uint64_t ino = 0;
        if (!note(ntb_create(volume_, NTB_ROOT_INO, "changed", NTB_TYPE_FILE, &ino))) {
            return;
        }
        const std::string large(120000, 's');
        const ntb_time time = {1000000000, 0};
        ntb_attr attr = {};
        note(ntb_truncate(volume_, ino, 300000));
        note(ntb_setxattr(volume_, ino, "large", large.data(), large.size(), NTB_XATTR_ANY));
        note(ntb_setxattr(volume_, ino, "small", "value", 5, NTB_XATTR_CREATE));
        readStreams(ino);
        note(ntb_removexattr(volume_, ino, "large"));
        note(ntb_set_times(volume_, ino, &time, &time, nullptr, nullptr));
        note(ntb_set_hidden(volume_, ino, 1));
        note(ntb_getattr(volume_, ino, &attr));
        get(ino, 300000);
        note(ntb_flush(volume_, ino));
    }

    void changeNames() {
        uint64_t ino = 0;
        put("moved", "text");
        if (promised_.count("moved") != 0 &&
            note(ntb_rename(volume_, NTB_ROOT_INO, "moved", NTB_ROOT_INO, "Moved"))) {
            promised_["Moved"] = promised_["moved"];
        }
        promised_.erase("moved");
        if (note(ntb_symlink(volume_, NTB_ROOT_INO, "link", "kept 100", &ino))) {
            readLink(ino);
        }
    }

    MemoryIo& device_;
    ntb_vol* volume_ = nullptr;
    std::set<int32_t> errors_;
    std::map<std::string, std::string> promised_;
};

const std::vector<uint8_t>& freshImage() {
    static const std::vector<uint8_t> image = [] {
        const SampleVolume sample({.bytes = 4 << 20});
        return MemoryIo::fromFile(sample.image()).bytes();
    }();
    return image;
}

// Returns how many failures the run met.
uint64_t runFailing(uint32_t blockSize, uint64_t first, uint64_t last) {
    MemoryIo device(freshImage(), blockSize);
    Workload workload(device);
    device.fail(first, last, ENXIO);
    if (workload.mount()) {
        workload.run();
        device.heal();
        workload.expectRecovery();
    }
    EXPECT_EQ(device.violations(), 0u);
    return device.failures();
}

TEST(Faults, EveryDeviceCallFailsOnce) {
    for (uint64_t call = 1; runFailing(512, call, call) != 0; ++call) {
        ASSERT_FALSE(HasFailure()) << "call " << call;
    }
}

TEST(Faults, EveryDeviceCallFailsForGood) {
    for (uint64_t call = 1; runFailing(512, call, UINT64_MAX) != 0; ++call) {
        ASSERT_FALSE(HasFailure()) << "from call " << call;
    }
}

// Blocks over a page switch the cache off, so that here every access of the library can fail.
constexpr uint32_t kUncachedBlock = 8192;

TEST(Faults, ChangesWithoutCacheFail) {
    uint64_t met = 1;
    for (uint64_t call = 1; met != 0; call += 17) {
        met = runFailing(kUncachedBlock, call, call + call % 3);
        ASSERT_FALSE(HasFailure()) << "call " << call;
    }
}

TEST(Faults, ReadsWithoutCacheFail) {
    MemoryIo device(freshImage(), kUncachedBlock);
    {
        Workload preparation(device);
        ASSERT_TRUE(preparation.mount());
        preparation.run();
    }
    for (uint64_t call = 1; device.failures() != 0 || call == 1; ++call) {
        Workload workload(device);
        device.fail(call, call, ENXIO);
        if (workload.mount(true)) {
            workload.inspect();
        }
        ASSERT_FALSE(HasFailure()) << "call " << call;
    }
}

TEST(Faults, EveryAllocationOfTheBridgeFails) {
    uint64_t met = 1;
    for (uint64_t call = 1; met != 0; ++call) {
        SCOPED_TRACE(testing::Message() << "allocation " << call);
        MemoryIo device(freshImage());
        Workload workload(device);
        allocations = {.isCounting = true, .count = 0, .failing = call};
        const bool isMounted = workload.mount();
        if (isMounted) {
            workload.run();
        }
        met = allocations.count >= call ? 1 : 0;
        allocations = {};
        for (const int32_t error : workload.errors()) {
            EXPECT_EQ(error, ENOMEM);
        }
        if (isMounted) {
            workload.expectRecovery();
        }
        ASSERT_FALSE(HasFailure());
    }
}

} // namespace
} // namespace tavelin::test
