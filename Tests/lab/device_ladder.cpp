#include "lab/device_ladder.hpp"

#include "hosting/module_host.hpp"
#include "lab/host_disk.hpp"
#include "lab/recording.hpp"
#include "platform/error_numbers.hpp"
#include "support/failure_stride.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <functional>
#include <optional>

namespace tavelin::test {

namespace {

using Times = DeviceFault::Times;

// A device without its host would be asked forever if a retry had no end.
constexpr std::uint64_t kCallsAfterTheEndMax = 100;
constexpr std::uint64_t kCachedMax = 4096; // bytes of a block, of the page cache

std::optional<std::int32_t> errorOf(const std::function<void()>& work) {
    try {
        work();
        return std::nullopt;
    } catch (const fskit::Error& error) {
        return static_cast<std::int32_t>(error.code());
    }
}

struct Rig {
    Rig(const Bytes& base, std::uint64_t blockSize)
        : disk(std::make_shared<HostDisk>(base, blockSize)), host(disk) {}

    // From the call numbered so on; 1 is the next one.
    void hurt(const DeviceFault& fault, std::uint64_t call) {
        disk->fail(call, fault.times == Times::once ? call : UINT64_MAX, toHost(fault.error));
    }

    std::shared_ptr<HostDisk> disk;
    ModuleHost host;
};

// One run of a request on a failing device: what happened, and the complaints about it.
class FaultRun {
  public:
    FaultRun(Rig& rig, const Workload& request, const DeviceFault& fault,
             const Reference& reference)
        : rig_(rig), request_(request), fault_(fault), reference_(reference) {}

    std::vector<std::string> run(std::uint64_t call, bool isCached) {
        isCached_ = isCached;
        rig_.host.open();
        rig_.hurt(fault_, call);
        hurt();
        if (fault_.times == Times::forGood) {
            leave();
            return std::move(complaints_);
        }
        if (fault_.times == Times::forAWhile) {
            rig_.disk->heal();
        }
        replay();
        inspect();
        return std::move(complaints_);
    }

    bool hasLostName() const { return lostName_; }

  private:
    void complain(std::string what) { complaints_.push_back(std::move(what)); }

    // Whatever writes back answers an error exactly when the device does.
    void expectReported(std::string_view what, const std::function<void()>& work) {
        const std::uint64_t hits = rig_.disk->failures();
        const auto error = errorOf(work);
        const bool failed = fault_.error != 0 && rig_.disk->failures() > hits;
        if (failed != error.has_value()) {
            complain(fmt::format("{} answers {}, {} calls failed", what, error.value_or(0),
                                 rig_.disk->failures() - hits));
        }
    }

    // The request and a synchronise, on the failing device.
    void hurt() {
        const auto error = errorOf([&] { request_.run(rig_.host.volume()); });
        done_ = !error;
        const std::uint64_t hits = rig_.disk->failures();
        if (error && (hits == 0 || fault_.error == 0)) {
            complain(fmt::format("answers {} without a failure", *error));
        }
        // A read that failed once may have been tried again: what the request leaves shows that. A
        // page that could not be written back stays dirty, for the next synchronise to report.
        // Where writes pass the cache by, the library may have dropped the error of one.
        if (isCached_ && !error && rig_.disk->failedReads() > 0 && fault_.error != 0 &&
            fault_.times != Times::once) {
            complain("answers success although the device failed");
        }
        expectReported("synchronise", [&] { rig_.host.volume().synchronize().get(); });
    }

    void replay() {
        if (!done_) {
            const auto error = errorOf([&] { request_.run(rig_.host.volume()); });
            done_ = !error;
            // The first try may have come as far as the name, or the stream.
            if (error && *error != kEEXIST && *error != kENOENT &&
                (isCached_ || *error != kENOATTR)) {
                complain(fmt::format("retried, answers {}", *error));
            }
        }
        expectReported("a later synchronise", [&] { rig_.host.volume().synchronize().get(); });
        expectReported("closing", [&] { rig_.host.close().get(); });
    }

    // The device never comes back.
    void leave() {
        const bool isGone = rig_.disk->failures() > 0;
        if (isGone) {
            (void)errorOf([&] { request_.run(rig_.host.volume()); });
        }
        const auto closed = errorOf([&] { rig_.host.close().get(); });
        if (rig_.disk->failures() > 0 && !closed) {
            complain("unloads without an error");
        }
        if (rig_.host.isLoaded()) {
            complain("is still loaded");
        }
        if (rig_.disk->failures() > kCallsAfterTheEndMax) {
            complain(fmt::format("calls the lost device {} times", rig_.disk->failures()));
        }
    }

    void inspect() {
        try {
            const Snapshot found = contentOf(rig_.disk->bytes);
            std::string wrong = difference(done_ ? reference_.after : reference_.before, found,
                                           request_.undecided(done_));
            // The library drops the error of writing an index block.
            if (!wrong.empty() && done_ && !isCached_ && addsName()) {
                lostName_ = true;
                wrong = difference(reference_.before, found, request_.touches);
            }
            if (!wrong.empty()) {
                complain(wrong);
            }
        } catch (const std::exception& error) {
            complain(std::string("left unreadable: ") + error.what());
        }
    }

    bool addsName() const {
        return reference_.after.entries.size() > reference_.before.entries.size();
    }

    Rig& rig_;
    const Workload& request_;
    const DeviceFault& fault_;
    const Reference& reference_;
    bool isCached_ = true;
    bool done_ = false;
    bool lostName_ = false;
    std::vector<std::string> complaints_;
};

} // namespace

std::string DeviceFault::describe() const {
    const std::string what = error == 0 ? "short transfer" : fmt::format("error {}", error);
    switch (times) {
    case Times::once:
        return what + " once";
    case Times::forAWhile:
        return what + " for a while";
    case Times::forGood:
        break;
    }
    return what + " for good";
}

void LadderResult::add(const LadderResult& other) {
    rungs += other.rungs;
    failures += other.failures;
    lostNames += other.lostNames;
    faults.insert(faults.end(), other.faults.begin(), other.faults.end());
}

Reference DeviceLadder::reference(const Workload& request) const {
    ModuleHost host(std::make_shared<HostDisk>(base_, blockSize_));
    host.open();
    Reference reference;
    reference.before = takeSnapshot(host.volume());
    request.run(host.volume());
    reference.after = takeSnapshot(host.volume());
    host.close().get();
    return reference;
}

LadderResult DeviceLadder::climb(const Workload& request, const DeviceFault& fault) const {
    const Reference wanted = reference(request);
    LadderResult result;
    // With another place to begin at for each request.
    for (std::uint64_t call = 1 + request.name.size() % kFailureStride;; call += kFailureStride) {
        Rig rig(base_, blockSize_);
        FaultRun rung(rig, request, fault, wanted);
        const auto complaints = rung.run(call, blockSize_ <= kCachedMax);
        result.rungs++;
        result.lostNames += rung.hasLostName() ? 1 : 0;
        result.failures += rig.disk->failures();
        for (const std::string& complaint : complaints) {
            result.faults.push_back(fmt::format("{}: {} at call {}: {}", request.name,
                                                fault.describe(), call, complaint));
        }
        if (rig.disk->failures() == 0) {
            return result;
        }
    }
}

LadderResult DeviceLadder::climbOpening(const DeviceFault& fault) const {
    const Snapshot wanted = contentOf(base_);
    LadderResult result;
    for (std::uint64_t call = 1;; call++) {
        Rig rig(base_, blockSize_);
        rig.hurt(fault, call);
        const auto complain = [&](std::string_view what) {
            result.faults.push_back(
                fmt::format("open: {} at call {}: {}", fault.describe(), call, what));
        };
        bool opened = true;
        try {
            rig.host.open();
        } catch (const OpenError& error) {
            opened = false;
        }
        result.rungs++;
        result.failures += rig.disk->failures();
        if (!opened && fault.error == 0) {
            complain("refused for a short transfer");
        }
        rig.disk->heal();
        if (!opened) {
            try {
                rig.host.open();
            } catch (const OpenError& error) {
                complain(std::string("does not open afterwards: ") + error.what());
            }
        }
        if (const auto error = errorOf([&] { rig.host.close().get(); })) {
            complain(fmt::format("closing on a healed device answers {}", *error));
        }
        if (const auto wrong = difference(wanted, contentOf(rig.disk->bytes)); !wrong.empty()) {
            complain(wrong);
        }
        if (rig.disk->failures() == 0) {
            return result;
        }
    }
}

} // namespace tavelin::test
