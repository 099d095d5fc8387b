// The one disk of the tests: bytes in memory that a test watches, hurts, and cuts the power of.
// What makes a device of it for the layer under test is in lab/disk_device.hpp, disk_resource.hpp,
// host_disk.hpp and disk_io.hpp.
#pragma once

#include "platform/mutex.hpp"
#include "support/bytes.hpp"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <functional>
#include <set>
#include <utility>
#include <vector>

namespace tavelin::test {

enum class DiskCall {
    read,
    write,
    fileData, // a write, where the bridge tells file data apart
    metadataRead,
    metadataWrite,
    metadataFlush,
    flush, // to the medium
    discard,
};

// What was asked of a disk. Offset and length, of a flush both 0, are bytes.
struct DiskRequest {
    DiskCall call;
    std::uint64_t offset;
    std::uint64_t length;
    bool operator==(const DiskRequest&) const = default;
};

// One thing that happened to the medium.
struct DiskEvent {
    bool flush = false;       // everything before has reached it
    std::uint64_t offset = 0; // bytes
    Bytes content;
};

// Why a disk did nothing: an errno of the host.
struct DiskFailure {
    std::int32_t error = EIO;
};

// `Content` is what a test has its bytes in: anything with data(), size(), resize() and [].
// Any thread makes calls; the fields are set before the disk is used, or while it is not.
template<typename Content>
class DiskOf {
  public:
    using Call = DiskCall;
    static constexpr std::uint64_t kSector = 512; // that are lost, or cannot be written, as a whole

    explicit DiskOf(Content content) : bytes(std::move(content)) {}
    // Another disk with the same bytes: whole, and not watched yet.
    DiskOf(const DiskOf& other) : bytes(other.bytes) {}
    DiskOf& operator=(const DiskOf& other) {
        bytes = other.bytes;
        return *this;
    }

    Content bytes;

    // Asked before each call: how many of the bytes may be moved, or it throws, which reaches the
    // caller. It makes no calls itself.
    std::function<std::size_t(Call, std::uint64_t offset, std::size_t length)> hook;

    bool isRecording = false; // whether it keeps events
    std::vector<DiskEvent> events;

    std::set<std::uint64_t> lost;       // sectors that cannot be read
    bool isHealing = true;              // a write brings a lost one back
    std::set<std::uint64_t> unwritable; // sectors that can be read

    // Has the calls numbered `first` (1 is the next one) to `last` do nothing but fail; with no
    // error they move half of the bytes instead. Only those of the kinds `of` are counted, when
    // there are any.
    void fail(std::uint64_t first, std::uint64_t last, std::int32_t error = EIO,
              std::set<Call> of = {}) {
        const MutexLock held(mutex_);
        failing_ = {first, last, error, std::move(of)};
    }
    void failFrom(std::uint64_t first, std::int32_t error = EIO, std::set<Call> of = {}) {
        fail(first, UINT64_MAX, error, std::move(of));
    }
    void heal() {
        const MutexLock held(mutex_);
        failing_.last = 0;
    }
    // Calls that did, since fail(), and those of them that read.
    std::uint64_t failures() const {
        const MutexLock held(mutex_);
        return failing_.hits;
    }
    std::uint64_t failedReads() const {
        const MutexLock held(mutex_);
        return failing_.reads;
    }

    int count(Call call) const {
        const MutexLock held(mutex_);
        return counts_[static_cast<std::size_t>(call)];
    }
    // The calls since the last takeLog(), up to a limit that unit tests stay below.
    std::vector<DiskRequest> takeLog() {
        const MutexLock held(mutex_);
        return std::exchange(log_, {});
    }

  protected:
    // All throw DiskFailure, or what the hook throws, and answer how many bytes they moved.
    std::size_t copyOut(Call call, std::byte* to, std::uint64_t offset, std::size_t length) {
        const std::size_t moved = admit(call, offset, length);
        requireInside(offset, moved);
        const auto first = lost.lower_bound(offset / kSector);
        if (first != lost.end() && *first * kSector < offset + moved) {
            throw DiskFailure{};
        }
        std::memcpy(to, bytes.data() + offset, moved);
        return moved;
    }

    std::size_t copyIn(Call call, const std::byte* from, std::uint64_t offset, std::size_t length) {
        const std::size_t moved = admit(call, offset, length);
        requireInside(offset, moved);
        for (std::uint64_t at = offset / kSector; at * kSector < offset + moved; ++at) {
            if (unwritable.contains(at) || (lost.contains(at) && !isHealing)) {
                throw DiskFailure{};
            }
            lost.erase(at);
        }
        std::memcpy(bytes.data() + offset, from, moved);
        if (isRecording) {
            events.push_back({false, offset, Bytes(from, from + moved)});
        }
        return moved;
    }

    void flush(Call call) {
        admit(call, 0, 0);
        if (isRecording) {
            events.push_back({true, 0, {}});
        }
    }

    // Leaves bytes behind that were in no file.
    void lose(std::uint64_t offset, std::uint64_t length) {
        const Bytes garbage(length, std::byte{0xdd});
        copyIn(Call::discard, garbage.data(), offset, garbage.size());
    }

  private:
    static constexpr std::size_t kLogMax = 10'000;
    static constexpr std::size_t kCalls = static_cast<std::size_t>(Call::discard) + 1;

    struct Failing {
        std::uint64_t first = 0;
        std::uint64_t last = 0;
        std::int32_t error = EIO;
        std::set<Call> of{};
        std::uint64_t seen = 0;
        std::uint64_t hits = 0;
        std::uint64_t reads = 0;
    };

    std::size_t admit(Call call, std::uint64_t offset, std::size_t length) {
        {
            const MutexLock held(mutex_);
            ++counts_[static_cast<std::size_t>(call)];
            if (log_.size() < kLogMax) {
                log_.push_back({call, offset, length});
            }
            if (failing_.of.empty() || failing_.of.contains(call)) {
                ++failing_.seen;
                if (failing_.seen >= failing_.first && failing_.seen <= failing_.last) {
                    ++failing_.hits;
                    failing_.reads += call == Call::read ? 1 : 0;
                    if (failing_.error != 0) {
                        throw DiskFailure{failing_.error};
                    }
                    length = std::min(length, std::max<std::size_t>(512, length / 1024 * 512));
                }
            }
        }
        return hook ? hook(call, offset, length) : length;
    }

    void requireInside(std::uint64_t offset, std::uint64_t length) const {
        if (length > bytes.size() || offset > bytes.size() - length) {
            throw DiskFailure{};
        }
    }

    mutable Mutex mutex_;
    std::array<int, kCalls> counts_ TAVELIN_GUARDED_BY(mutex_){};
    std::vector<DiskRequest> log_ TAVELIN_GUARDED_BY(mutex_);
    Failing failing_ TAVELIN_GUARDED_BY(mutex_);
};

} // namespace tavelin::test
