// Owners, modes and device numbers in the extended attributes of WSL. What the bridge writes is
// read by the system's own driver, and the other way round.
#include "support/bridge_volume.hpp"
#include "support/reparse_items.hpp"

#include <algorithm>
#include <sys/sysmacros.h>

namespace tavelin::test {
namespace {

constexpr uint32_t kAll = NTB_OWNER_USER | NTB_OWNER_GROUP | NTB_OWNER_MODE;
constexpr const char* kEntries = "system.ntfs_ea"; // the driver's name for $EA

std::string entry(const std::string& name, const std::string& value) {
    const size_t size = 8 + name.size() + 1 + value.size();
    const size_t padded = (size + 3) / 4 * 4;
    return littleEndian(padded, 4) + '\0' + static_cast<char>(name.size()) +
           littleEndian(value.size(), 2) + name + '\0' + value + std::string(padded - size, '\0');
}

std::string number(const std::string& name, uint32_t value) {
    return entry(name, littleEndian(value, 4));
}

std::string owner(uint32_t user, uint32_t group, uint32_t mode) {
    return number("$LXUID", user) + number("$LXGID", group) + number("$LXMOD", mode);
}

TEST(Owners, AreReadAsOthersWriteThem) {
    REQUIRE_DRIVER();
    BridgeVolume volume;
    volume.finish();
    const std::string others = entry("OTHER", "of somebody else");
    const struct {
        const char* name;
        std::string entries;
        ntb_owner owner;
    } kRows[] = {
        {"none", others, {0, 0, 0, 0}},
        {"all", owner(7, 8, 0100751), {kAll, 7, 8, 0751}},
        {"between others",
         others + owner(UINT32_MAX - 1, 0, 0106711) + entry("LAST", ""),
         {kAll, UINT32_MAX - 1, 0, 06711}},
        {"some", number("$LXMOD", 0100600), {NTB_OWNER_MODE, 0, 0, 0600}},
        {"of another length", entry("$LXUID", "12345"), {0, 0, 0, 0}},
    };
    {
        const DriverMount driver(volume.sample());
        for (const auto& row : kRows) {
            driver.make(row.name);
            driver.set(row.name, kEntries, row.entries);
        }
    }
    volume.reload();
    const uint64_t all = volume.find("all");
    EXPECT_EQ(volume.attributes(all).owner.given, 0u) << "nobody asked for it";
    ntb_set_reads_owners(volume, 1);
    for (const auto& row : kRows) {
        SCOPED_TRACE(row.name);
        const ntb_owner read = volume.attributes(volume.find(row.name)).owner;
        EXPECT_EQ(read.given, row.owner.given);
        EXPECT_EQ(read.user, row.owner.user);
        EXPECT_EQ(read.group, row.owner.group);
        EXPECT_EQ(read.mode, row.owner.mode);
    }

    const ntb_owner mode = {NTB_OWNER_MODE, 0, 0, 0640};
    for (const char* name : {"none", "between others"}) {
        EXPECT_EQ(ntb_set_owner(volume, volume.find(name), &mode), 0);
    }
    volume.finish();
    const DriverMount driver(volume.sample());
    const std::string changed = number("$LXMOD", 0100640);
    EXPECT_EQ(driver.get("none", kEntries), others + changed);
    EXPECT_EQ(driver.get("between others", kEntries), others + number("$LXUID", UINT32_MAX - 1) +
                                                          number("$LXGID", 0) + entry("LAST", "") +
                                                          changed);
}

TEST(Owners, AreWrittenWithWhatIsMade) {
    REQUIRE_DRIVER();
    BridgeVolume volume;
    const struct {
        const char* name;
        uint32_t kind;
        mode_t type;
        uint64_t device;
    } kRows[] = {
        {"file", NTB_TYPE_FILE, S_IFREG, 0},
        {"directory", NTB_TYPE_DIRECTORY, S_IFDIR, 0},
        {"fifo", NTB_TYPE_FIFO, S_IFIFO, 0},
        {"socket", NTB_TYPE_SOCKET, S_IFSOCK, 0},
        {"character device", NTB_TYPE_CHARACTER_DEVICE, S_IFCHR, uint64_t{5} << 32 | 300},
        {"block device", NTB_TYPE_BLOCK_DEVICE, S_IFBLK, uint64_t{259} << 32 | 7},
    };
    const ntb_owner given = {kAll, 1000, 100, 02751};
    for (const auto& row : kRows) {
        const ntb_new_item item = {row.kind, row.device, given};
        uint64_t ino = 0;
        ASSERT_EQ(ntb_make(volume, NTB_ROOT_INO, row.name, &item, &ino), 0) << row.name;
        EXPECT_EQ(volume.attributes(ino).type, row.kind);
        EXPECT_EQ(volume.attributes(ino).device, row.device);
    }
    uint64_t link = 0;
    ASSERT_EQ(ntb_symlink(volume, NTB_ROOT_INO, "link", "target", &given, &link), 0);
    ASSERT_EQ(ntb_symlink_windows(volume, NTB_ROOT_INO, "windows", "target", &given, &link), 0);
    EXPECT_EQ(volume.readlink(link), "target");

    volume.finish();
    const DriverMount driver(volume.sample());
    for (const auto& row : kRows) {
        SCOPED_TRACE(row.name);
        struct stat status {};
        ASSERT_EQ(::lstat(driver.path(row.name).c_str(), &status), 0);
        EXPECT_EQ(status.st_mode & S_IFMT, row.type);
        EXPECT_EQ(status.st_rdev, makedev(static_cast<unsigned>(row.device >> 32),
                                          static_cast<unsigned>(row.device & UINT32_MAX)));
        const std::string entries = driver.get(row.name, kEntries);
        EXPECT_TRUE(entries.ends_with(owner(1000, 100, row.type | 02751)));
    }
}

// What is damaged reads as absent, and is not written back shortened.
TEST(Owners, DamagedEntriesAreLeftAlone) {
    BridgeVolume volume;
    ntb_set_reads_owners(volume, 1);
    const ntb_owner given = {kAll, 1, 2, 0751};
    const ntb_new_item item = {NTB_TYPE_FILE, 0, given};
    uint64_t ino = 0;
    ASSERT_EQ(ntb_make(volume, NTB_ROOT_INO, "file", &item, &ino), 0);
    const auto setDistance = [&](int distance) {
        ASSERT_EQ(volume.unmount(), 0);
        auto& bytes = volume.memory().bytes;
        const std::string name = "$LXGID";
        const auto found = std::search(bytes.begin(), bytes.end(), name.begin(), name.end());
        ASSERT_NE(found, bytes.end());
        *(found - 8) = static_cast<uint8_t>(distance);
        ASSERT_EQ(volume.mount(), 0);
        ntb_set_reads_owners(volume, 1);
    };
    for (const int distance : {0, 4, 16, 19, 200}) {
        SCOPED_TRACE(distance);
        setDistance(distance);
        EXPECT_EQ(volume.attributes(ino).owner.given, NTB_OWNER_USER);
        EXPECT_EQ(ntb_set_owner(volume, ino, &given), EIO);
        EXPECT_EQ(volume.attributes(ino).owner.given, NTB_OWNER_USER);
    }
    setDistance(20); // as it was
    EXPECT_EQ(volume.attributes(ino).owner.given, kAll);
}

} // namespace
} // namespace tavelin::test
