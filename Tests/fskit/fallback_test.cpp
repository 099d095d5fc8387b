// Volumes that Windows has not let go of, and those that are to be left alone: opened for reading
// only, and not a byte of them changed.
#include "module_fixture.hpp"

#include "check/image_editor.hpp"
#include "platform/error_numbers.hpp"
#include "support/run_process.hpp"

#include <algorithm>
#include <bit>
#include <functional>
#include <initializer_list>
#include <utility>

namespace tavelin {
namespace {

using namespace test;

constexpr std::size_t kPage = 4096;

// Writes a restart page of Windows' journal, with the fields at which <ntfs-3g/logfile.h> has them:
// one client named NTFS, which is still at work when `inUse`.
void putRestartPage(ImageEditor::Bytes page, std::uint16_t major, std::uint16_t minor, bool inUse,
                    std::uint64_t journalSize) {
    constexpr std::size_t kArea = 48;
    constexpr std::size_t kClient = kArea + 48;
    constexpr std::uint64_t kNone = 0xffff;
    constexpr std::uint64_t kMark = 1; // at the end of each sector; what was there is zeroes
    const std::uint64_t sequenceBits = 67 - static_cast<std::uint64_t>(std::bit_width(journalSize));
    const auto put = [&](std::size_t at, std::initializer_list<std::uint64_t> words) {
        for (const std::uint64_t word : words) {
            ntb::put_at(page.data(), std::exchange(at, at + 2), 2, word);
        }
    };
    std::fill_n(page.begin(), kPage, std::uint8_t{0});
    put(0, {0x5352, 0x5254, 30, 9}); // "RSTR", and where the sectors' saved last words are
    put(16, {kPage, 0, kPage, 0, kArea, minor, major, kMark});
    put(kArea + 8, {1, inUse ? kNone : 0, inUse ? 0 : kNone}); // how many clients, and which
    put(kArea + 16, {sequenceBits, 0, 48 + 160, 48, journalSize & 0xffff, journalSize >> 16});
    put(kArea + 36, {48, 64});
    put(kClient + 16, {kNone, kNone}); // before and behind the client
    put(kClient + 28, {8, 0, 'N', 'T', 'F', 'S'});
    for (std::size_t sector = 512; sector <= kPage; sector += 512) {
        put(sector - 2, {kMark});
    }
}

class Fallback : public VolumeTest {
  protected:
    void edit(const std::function<void(ImageEditor&)>& change) {
        std::vector<std::uint8_t> bytes(disk->bytes.begin(), disk->bytes.end());
        ImageEditor editor(bytes);
        change(editor);
        disk->bytes.assign(bytes.begin(), bytes.end());
    }

    void setJournal(std::uint16_t major, std::uint16_t minor, bool inUse) {
        edit([&](ImageEditor& editor) {
            editor.editValue(ntb::record_logfile, ntb::at_data, "", [&](ImageEditor::Bytes log) {
                putRestartPage(log, major, minor, inUse, log.size());
                putRestartPage(log.subspan(kPage), major, minor, inUse, log.size());
            });
        });
    }

    void setHibernationFile(const std::string& content) {
        start();
        const Item file = *requests().create(root, "hiberfil.sys");
        EXPECT_EQ(requests().write(file, 0, content).code(), 0);
        ASSERT_EQ(unload(), 0);
        static_cast<void>(takeLog());
    }

    // Loads, tries to change everything that a request can change, and unloads again.
    void expectLoadedReadOnly(bool fellBack, const Options& options = {}) {
        const std::string before = disk->bytes;
        start(options);
        const bool said =
            takeLog().front() ==
            "info fs: load: volume is hibernated or write-protected, mounted read-only";
        EXPECT_EQ(said, fellBack);
        const auto reported = takeEvents();
        const std::string& loadEvent = reported.at(reported.size() - 2);
        EXPECT_NE(loadEvent.find(fellBack ? R"("fell_back":true)" : R"("fell_back":false)"),
                  std::string::npos);
        EXPECT_NE(loadEvent.find(R"("ro":true)"), std::string::npos);
        EXPECT_NE(reported.back().find(R"("ro":true)"), std::string::npos);
        EXPECT_TRUE(services.timers().live().empty());

        auto ask = requests();
        const Item file = *ask.lookup(root, "file");
        expectReadOnly(file);
        ask.close(file);
        EXPECT_EQ(ask.synchronize(), 0);
        EXPECT_EQ(ask.deactivate(), 0);
        EXPECT_EQ(unload(), 0);
        EXPECT_EQ(disk->count(MemoryResource::Call::write), writes_);
        EXPECT_TRUE(disk->bytes == before);
    }

    void SetUp() override {
        start();
        EXPECT_EQ(*requests().write(*requests().create(root, "file"), 0, "content"), 7u);
        ASSERT_EQ(unload(), 0);
        save();
        static_cast<void>(takeLog());
        writes_ = disk->count(MemoryResource::Call::write);
    }

    int writes_ = 0;
};

TEST_F(Fallback, AHibernatedVolumeIsOpenedForReading) {
    for (const std::string& content : {"hibr" + std::string(kPage, '\0'),
                                       "HIBR" + std::string(kPage, '\1'), std::string("short")}) {
        save();
        setHibernationFile(content);
        writes_ = disk->count(MemoryResource::Call::write);
        expectLoadedReadOnly(true);
        reread();
    }
    setHibernationFile(std::string(kPage, '\0')); // how Windows leaves the file when it is awake
    ASSERT_EQ(load(), 0);
    EXPECT_FALSE(volume().ntfs->readOnly());
}

TEST_F(Fallback, AFastStartedVolumeIsOpenedForReading) {
    setJournal(2, 0, true);
    expectLoadedReadOnly(true);
}

TEST_F(Fallback, AnUncleanJournalIsResetWhenTheVolumeMayBeWritten) {
    setJournal(1, 1, true);
    expectLoadedReadOnly(false, {"-r"});
    ASSERT_EQ(load(), 0);
    EXPECT_FALSE(volume().ntfs->readOnly());
    EXPECT_EQ(unload(), 0);
    save();
    EXPECT_TRUE(run({"ntfs-3g.probe", "-w", sample.image().string()}).ok());
}

TEST_F(Fallback, AMarkedVolumeIsWrittenToWhereNothingIsWrong) {
    sample.leaveUnchecked();
    for (const bool isDamaged : {false, true}) {
        edit([&](ImageEditor& editor) {
            editor.editValue(ntb::record_volume, ntb::at_volume_information, "",
                             [](ImageEditor::Bytes value) { ntb::put_at(value.data(), 10, 2, 1); });
            if (isDamaged) { // the next write could take what is in use
                editor.setBit(ntb::record_bitmap, ntb::at_data, "",
                              editor.runs(ntb::record_upcase, ntb::at_data).at(0).lcn, false);
            }
        });
        const std::string before = disk->bytes;
        start();
        EXPECT_EQ(volume().ntfs->readOnly(), isDamaged);
        EXPECT_EQ(requests().create(root, "new").code(), isDamaged ? kEROFS : 0);
        EXPECT_EQ(unload(), 0);
        EXPECT_EQ(disk->bytes == before, isDamaged);
    }
}

TEST_F(Fallback, AskingForReadOnlyNeverFallsBack) {
    expectLoadedReadOnly(false, {"-o", "ro"});
    disk->writable = false;
    expectLoadedReadOnly(false);
}

} // namespace
} // namespace tavelin
