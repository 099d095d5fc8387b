// A disk that nothing was written to for a second is clean for everybody, and one that is busy
// says that it is.
#include "hosting/module_host.hpp"
#include "lab/host_disk.hpp"
#include "lab/others_view.hpp"
#include "lab/recording.hpp"
#include "lab/structural_check.hpp"
#include "support/replaced_services.hpp"
#include "support/run_process.hpp"
#include "support/sample_volume.hpp"

#include <gtest/gtest.h>

#include <algorithm>

namespace tavelin::test {
namespace {

// Random work on a volume, in busy periods of a few changes each.
class BusyPeriods {
  public:
    BusyPeriods(std::uint64_t seed, bool isMarked)
        : random_(seed), source_(seed), isMarked_(isMarked) {
        Bytes image = loadImage(SampleVolume({.bytes = 4u << 20}).image());
        setMark(image, isMarked);
        disk_ = recordingDisk(std::move(image));
        host_.emplace(disk_);
        host_->open();
        atRest_ = disk_->bytes;
    }

    // The disk is cut off a second after the last change.
    void busyThenIdle() {
        const std::size_t from = disk_->events.size();
        for (std::uint64_t i = random_() % 4; i < 4; ++i) {
            change();
            if (random_() % 2 == 0) {
                services_.timers().tick();
            }
        }
        services_.timers().tick(); // flushes what there is
        services_.timers().tick(); // finds nothing new
        expectClean(disk_->bytes);
        const std::size_t to = disk_->events.size();
        services_.timers().tick();
        EXPECT_EQ(disk_->events.size(), to) << "there was something left to do";
        const auto all = disk_->events.begin();
        expectMarkedOrSound({all + static_cast<std::ptrdiff_t>(from), disk_->events.end()});
        atRest_ = disk_->bytes;
    }

    std::size_t cuts() const { return cuts_; }

  private:
    void change() {
        Operation op{Verb::reload};
        while (op.verb == Verb::reload) {
            op = source_.next(model_.tree());
        }
        if (model_.apply(op).error == 0) {
            carryOut(host_->volume(), op);
        }
    }

    void expectClean(const Bytes& image) const {
        EXPECT_TRUE(isLogBlank(image));
        EXPECT_EQ(test::isMarked(image), isMarked_);
        Bytes unmarked = image;
        setMark(unmarked, false);
        EXPECT_EQ(structuralComplaints(unmarked), "");
        const TempDirectory directory;
        writeFile(directory / "image", textOf(image));
        EXPECT_EQ(run({"ntfs-3g.probe", "--readwrite", directory / "image"}).status, 0);
    }

    void expectMarkedOrSound(const std::vector<DiskEvent>& events) {
        for (std::size_t end = 0; end <= events.size(); ++end) {
            for (const Cut cut : {Cut::prefix, Cut::torn, Cut::reordered}) {
                const Bytes image = afterCut(atRest_, events, end, cut, random_);
                const std::string damage = unmarkedDamage(image);
                EXPECT_EQ(damage, "") << "cut " << static_cast<int>(cut) << " after event " << end
                                      << " of " << events.size();
                if (isMarked_) {
                    EXPECT_TRUE(test::isMarked(image)) << "another system's mark is gone";
                }
                ++cuts_;
            }
        }
    }

    std::mt19937_64 random_;
    OperationSource source_;
    const bool isMarked_;
    Model model_;
    ReplacedServices services_;
    std::shared_ptr<HostDisk> disk_;
    std::optional<ModuleHost> host_;
    Bytes atRest_; // the disk before the busy period
    std::size_t cuts_ = 0;
};

TEST(IdleDisk, IsAsFoundAndABusyOneIsMarkedOrSound) {
    for (const bool isMarked : {false, true}) {
        BusyPeriods work(7, isMarked);
        for (int i = 0; i < 20 && !testing::Test::HasFailure(); ++i) {
            SCOPED_TRACE(testing::Message() << "found marked " << isMarked << ", period " << i);
            work.busyThenIdle();
        }
        EXPECT_GT(work.cuts(), 500u);
    }
}

} // namespace
} // namespace tavelin::test
