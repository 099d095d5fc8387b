// Volumes that Windows has not let go of, and those that are to be left alone: opened for reading
// only, and not a byte of them changed.
#include "module_fixture.hpp"

#include "check/image_editor.hpp"
#include "platform/error_numbers.hpp"
#include "support/run_process.hpp"

#include <endian.h>

namespace tavelin {
namespace {

using namespace test;

constexpr std::size_t kPage = 4096;

template<typename Number>
void put(std::string& page, std::size_t at, Number number) {
    for (std::size_t byte = 0; byte < sizeof(Number); ++byte) {
        page[at + byte] = static_cast<char>(number >> (8 * byte));
    }
}

// A restart page of the journal, with the fields at which <ntfs-3g/logfile.h> has them: one client
// named NTFS, which is still at work when `inUse`.
std::string restartPage(std::uint16_t major, std::uint16_t minor, bool inUse,
                        std::uint64_t journalSize) {
    constexpr std::size_t kArea = 48;
    constexpr std::size_t kClient = kArea + 48;
    constexpr std::uint16_t kNone = 0xffff;
    std::string page(kPage, '\0');
    page.replace(0, 4, "RSTR");
    put<std::uint16_t>(page, 4, 30); // where the sectors' saved last words are
    put<std::uint16_t>(page, 6, 9);  // how many, with the mark that replaces them
    put<std::uint32_t>(page, 16, kPage);
    put<std::uint32_t>(page, 20, kPage);
    put<std::uint16_t>(page, 24, kArea);
    put(page, 26, minor);
    put(page, 28, major);
    put<std::uint16_t>(page, kArea + 8, 1); // clients
    put<std::uint16_t>(page, kArea + 10, inUse ? kNone : std::uint16_t{0});
    put<std::uint16_t>(page, kArea + 12, inUse ? std::uint16_t{0} : kNone);
    put<std::uint32_t>(page, kArea + 16,
                       67 - static_cast<std::uint32_t>(std::bit_width(journalSize)));
    put<std::uint16_t>(page, kArea + 20, 48 + 160); // length with the client's record
    put<std::uint16_t>(page, kArea + 22, 48);
    put(page, kArea + 24, journalSize);
    put<std::uint16_t>(page, kArea + 36, 48);
    put<std::uint16_t>(page, kArea + 38, 64);
    put(page, kClient + 16, kNone);
    put(page, kClient + 18, kNone);
    put<std::uint32_t>(page, kClient + 28, 8);
    page.replace(kClient + 32, 8, std::string("N\0T\0F\0S\0", 8));
    constexpr std::uint16_t kMark = 1;
    put(page, 30, kMark);
    for (std::size_t sector = 0; sector < 8; ++sector) {
        put(page, sector * 512 + 510, kMark); // what was there is the zeroes saved above
    }
    return page;
}

class Fallback : public VolumeTest {
  protected:
    void setJournal(std::uint16_t major, std::uint16_t minor, bool inUse) {
        const std::string image = sample.image().string();
        std::string journal = run({"ntfscat", "-f", "-q", "-i", "2", image}).out;
        const std::string page = restartPage(major, minor, inUse, journal.size());
        journal.replace(0, 2 * kPage, page + page);
        const auto file = sample.directory() / "journal";
        writeFile(file, journal);
        const auto copied = run({"ntfscp", "-f", "-q", "-i", image, file.string(), "2"});
        ASSERT_TRUE(copied.ok()) << copied.describe();
        reread();
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
        std::vector<std::uint8_t> bytes(disk->bytes.begin(), disk->bytes.end());
        ImageEditor editor(bytes);
        editor.editValue(ntb::record_volume, ntb::at_volume_information, "",
                         [](ImageEditor::Bytes value) { ntb::put_at(value.data(), 10, 2, 1); });
        if (isDamaged) { // the next write could take what is in use
            editor.setBit(ntb::record_bitmap, ntb::at_data, "",
                          editor.runs(ntb::record_upcase, ntb::at_data).at(0).lcn, false);
        }
        disk->bytes.assign(bytes.begin(), bytes.end());
        start();
        EXPECT_EQ(volume().ntfs->readOnly(), isDamaged);
        EXPECT_EQ(requests().create(root, "new").code(), isDamaged ? kEROFS : 0);
        EXPECT_EQ(unload(), 0);
        EXPECT_EQ(disk->bytes == std::string(bytes.begin(), bytes.end()), isDamaged);
    }
}

TEST_F(Fallback, AskingForReadOnlyNeverFallsBack) {
    expectLoadedReadOnly(false, {"-o", "ro"});
    disk->writable = false;
    expectLoadedReadOnly(false);
}

} // namespace
} // namespace tavelin
