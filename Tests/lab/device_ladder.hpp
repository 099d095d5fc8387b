// Fails every device call of a request in turn, and says what was wrong with how that was taken.
#pragma once

#include "lab/requests.hpp"
#include "lab/snapshot.hpp"

#include <cstdint>
#include <string>
#include <vector>

namespace tavelin::test {

// What becomes of a device call that is chosen to fail.
struct DeviceFault {
    enum class Times {
        once,      // at the latest when the volume is closed
        forAWhile, // from then on, until the request and a synchronise have been answered
        forGood,   // from then on, to the end of the volume
    };

    std::int32_t error = 0; // a macOS number; 0: half of the bytes are moved, without an error
    Times times = Times::once;

    std::string describe() const;
};

struct LadderResult {
    std::uint64_t rungs = 0;     // runs of the request
    std::uint64_t failures = 0;  // device calls failed
    std::uint64_t lostNames = 0; // without the cache: new names that were answered, and are lost
    std::vector<std::string> faults;

    void add(const LadderResult& other);
};

// What a request leaves on a volume, and how it began.
struct Reference {
    Snapshot before;
    Snapshot after;
};

class DeviceLadder {
  public:
    // `base` is preparedVolume(). With a block size above 4096 nothing goes through the page cache,
    // so that each write of the library is a device call of its request.
    DeviceLadder(const Bytes& base, std::uint64_t blockSize) : base_(base), blockSize_(blockSize) {}

    // Call by call: the request, a synchronise, and the volume's end.
    LadderResult climb(const Workload& request, const DeviceFault& fault) const;
    // The same for opening the volume: its content is that of `base`, opened without a failure.
    LadderResult climbOpening(const DeviceFault& fault) const;

  private:
    Reference reference(const Workload& request) const;

    const Bytes& base_;
    const std::uint64_t blockSize_;
};

} // namespace tavelin::test
