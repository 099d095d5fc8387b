// What hosts may ask to be changed, and what is answered where a volume cannot keep it.
#include "module_fixture.hpp"

#include "check/image_editor.hpp"
#include "platform/error_numbers.hpp"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <functional>

namespace tavelin {
namespace {

using namespace test;
namespace Bit = fskit::FSItemAttribute;
using fskit::FSItemSetAttributesRequest;

class Changes : public VolumeTest {};

TEST_F(Changes, ASizeSetOnALinkOrADirectoryIsIgnored) {
    start();
    auto ask = requests();
    for (const Item& item :
         {*ask.symlink(root, "link", "target"), *ask.create(root, "folder", Type::directory)}) {
        const auto before = *ask.attributes(item);
        FSItemSetAttributesRequest change;
        change.setSize(0);
        change.setModifyTime({.tv_sec = 1000, .tv_nsec = 0});
        const auto after = *ask.setAttributes(item, change);
        EXPECT_EQ(change.consumedAttributes, Bit::modifyTime);
        EXPECT_EQ(after.type(), before.type());
        EXPECT_EQ(after.size(), before.size());
    }
    EXPECT_EQ(ask.readlink(*ask.lookup(root, "link"))->data(), "target");
}

TEST_F(Changes, WhatCannotBeKeptIsRefusedBeforeAnythingIsApplied) {
    start();
    auto ask = requests();
    const Item file = *ask.create(root, "file");
    using Set = void (*)(FSItemSetAttributesRequest&);
    const std::vector<std::pair<Set, std::int64_t>> cases{
        {[](auto& change) { change.setType(Type::directory); }, kEINVAL},
        {[](auto& change) { change.setLinkCount(9); }, kEINVAL},
        {[](auto& change) { change.setAllocSize(4096); }, kEINVAL},
        {[](auto& change) { change.setFileID(77); }, kEINVAL},
        {[](auto& change) { change.setParentID(77); }, kEINVAL},
        {[](auto& change) { change.setFlags(0x2); }, kENOTSUP},     // chflags uchg
        {[](auto& change) { change.setFlags(0x20000); }, kENOTSUP}, // schg
        {[](auto& change) { change.setFlags(0x4); }, kENOTSUP},     // uappnd
    };
    for (const auto& [set, code] : cases) {
        FSItemSetAttributesRequest change;
        change.setSize(7);
        set(change);
        EXPECT_EQ(ask.setAttributes(file, change).code(), code);
        EXPECT_EQ(change.consumedAttributes, 0u);
        EXPECT_EQ(ask.attributes(file)->size(), 0u);
    }
    const auto capabilities = volume().supportedVolumeCapabilities();
    EXPECT_TRUE(capabilities.doesNotSupportImmutableFiles &&
                capabilities.doesNotSupportSettingFilePermissions);
    EXPECT_FALSE(capabilities.supportsHardLinks);
    EXPECT_EQ(ask.link(file, root, "second").code(), kENOTSUP);
    const std::uint32_t mode = ask.attributes(file)->mode();
    FSItemSetAttributesRequest owned;
    owned.setMode(mode ^ 0111);
    EXPECT_EQ(ask.setAttributes(file, owned)->mode(), mode);
    EXPECT_EQ(volume().maximumNameLength(), 255);
    EXPECT_EQ(ask.create(root, std::string(255, 'n')).code(), 0);
    EXPECT_EQ(ask.create(root, std::string(256, 'n')).code(), kENAMETOOLONG);
    FSItemSetAttributesRequest archived;
    archived.setFlags(0x10000); // of no meaning here, and harmless
    EXPECT_EQ(ask.setAttributes(file, archived).code(), 0);
}

TEST_F(Changes, ExtendedAttributesAreBoundedWhenTheyAreSetAndWhenTheyAreRead) {
    const SampleVolume large({.bytes = 160 << 20});
    disk = std::make_shared<MemoryResource>(readFile(large.image()));
    start();
    auto ask = requests();
    const auto most = static_cast<std::size_t>(volume().maximumXattrSize());
    const Item file = *ask.create(root, "file");
    const std::string value(most + 1, 'v');
    EXPECT_EQ(ask.setXattr(file, "note", value), kE2BIG);
    EXPECT_EQ((*ask.xattrs(file)).size(), 0u);
    EXPECT_EQ(ask.setXattr(file, "note", std::string_view(value).substr(1)), 0);
    EXPECT_EQ((*ask.xattr(file, "note")).size(), most);
    // A stream may be any length, as other systems make them.
    const std::uint64_t record = dynamic_cast<const NItem&>(*file).ino;
    EXPECT_EQ(volume().ntfs->locked([&](ntb_vol* vol) {
        return ntb_setxattr(vol, record, "note", value.data(), value.size(), NTB_XATTR_ANY);
    }),
              0);
    EXPECT_EQ(ask.xattr(file, "note").code(), kE2BIG);
}

TEST_F(Changes, OffsetsBeforeTheFileAreRefused) {
    start();
    const Item file = *requests().create(root, "file");
    EXPECT_EQ(codeOf(volume().seekRegion(file, -1, fskit::FSSeekRegion::hole)), kEINVAL);
    EXPECT_EQ(codeOf(volume().preallocateSpace(file, -1, 1, {})), kEINVAL);
}

TEST_F(Changes, TheLastCloseWritesBackWhatWasChanged) {
    start();
    auto ask = requests();
    const Item file = *ask.create(root, "file");
    const auto dirtyPages = [&] { return volume().ioStatistics().get().dirtyPages; };
    ask.close(file);
    EXPECT_EQ(dirtyPages(), 0u) << "it was made";
    for (const char* content : {"content", "changed"}) {
        EXPECT_EQ(*ask.write(file, 0, content), 7u);
        ask.close(file, fskit::FSVolumeOpenModesRead);
        EXPECT_GT(dirtyPages(), 0u) << "it is still open";
        ask.close(file);
        EXPECT_EQ(dirtyPages(), 0u) << "it was written";
    }
    const Item other = *ask.create(root, "other");
    ask.close(file);
    EXPECT_GT(dirtyPages(), 0u) << "nothing was changed through this one";
    EXPECT_EQ(ask.rename(file, root, "file", root, "renamed").code(), 0);
    ask.close(file);
    EXPECT_EQ(dirtyPages(), 0u) << "it was renamed";
}

TEST_F(Changes, ReservedSpaceGoesWithTheLastCloseUnlessItPersists) {
    start();
    auto ask = requests();
    const Item file = *ask.create(root, "file");
    EXPECT_EQ(*ask.write(file, 0, std::string(5000, 'f')), 5000u);
    const auto reserve = [&](fskit::FSPreallocateFlags flags) {
        const auto done =
            volume().preallocateSpace(file, 0, 1 << 20, flags | fskit::FSPreallocateFlagsFromEOF);
        EXPECT_EQ(done->bytesAllocated, 1u << 20);
    };
    const auto allocated = [&] { return ask.attributes(file)->allocSize(); };
    const std::vector<std::function<void()>> ends{
        [&] { ask.close(file); }, [&] { volume().deactivateItem(file); },
        [&] {
            FSItemSetAttributesRequest sameSize;
            sameSize.setSize(5000);
            EXPECT_EQ(ask.setAttributes(file, sameSize).code(), 0);
        }};
    for (const auto& end : ends) {
        reserve(0);
        ask.close(file, fskit::FSVolumeOpenModesRead);
        EXPECT_EQ(allocated(), 8192u + (1 << 20)) << "it is still open";
        end();
        EXPECT_EQ(allocated(), 8192u);
    }
    reserve(fskit::FSPreallocateFlagsPersist);
    reserve(0);
    ask.close(file);
    EXPECT_EQ(allocated(), 8192u + (1 << 20)) << "what came before stays";
    reserve(0);
    reserve(fskit::FSPreallocateFlagsPersist);
    ask.close(file);
    volume().deactivateItem(file);
    volume().deactivateItem(nullptr);
    EXPECT_EQ(allocated(), 8192u + (3 << 20)) << "it persists, and so does what is before it";
    EXPECT_EQ(ask.attributes(file)->size(), 5000u);
}

TEST_F(Changes, EncryptedFilesAreRefusedWithAWordInTheLog) {
    start();
    const Item made = *requests().create(root, "letter");
    EXPECT_EQ(requests().write(made, 0, std::string(9000, 'x')).code(), 0);
    ASSERT_EQ(unload(), 0);
    std::vector<std::uint8_t> bytes(disk->bytes.begin(), disk->bytes.end());
    ImageEditor editor(bytes);
    markEncrypted(editor, "/letter");
    disk->bytes.assign(bytes.begin(), bytes.end());
    start();
    auto ask = requests();
    const Item letter = *ask.lookup(root, "letter");
    EXPECT_EQ(ask.attributes(letter)->native().dataState, fskit::FSItemDataState::encrypted);
    FSItemSetAttributesRequest shorter;
    shorter.setSize(1);
    for (const std::int64_t code :
         {ask.read(letter, 0, 10).code(), ask.write(letter, 0, "n").code(),
          ask.setAttributes(letter, shorter).code()}) {
        EXPECT_EQ(code, kEACCES);
    }
    EXPECT_NE(fmt::format("{}", fmt::join(takeLog(), " ")).find("(EFS)"), std::string::npos);
    EXPECT_EQ(ask.rename(letter, root, "letter", root, "moved").code(), 0);
    EXPECT_EQ(ask.remove(letter, root, "moved"), 0);
    EXPECT_EQ(unload(), 0);
}

} // namespace
} // namespace tavelin
