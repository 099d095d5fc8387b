// Files whose bytes are elsewhere, through FSKit's requests.
#include "module_fixture.hpp"

#include "check/image_editor.hpp"
#include "platform/error_numbers.hpp"
#include "support/reparse_items.hpp"

#include <algorithm>

namespace tavelin::test {
namespace {

using Kind = ReparseItem::Kind;

class ReparseRequests : public VolumeTest {
  protected:
    void SetUp() override {
        REQUIRE_DRIVER();
        makeReparseItems(DriverMount(sample, kReparseItemOptions), "items");
        reread();
        start();
    }
};

TEST_F(ReparseRequests, AnswerTheFilesOwnBytesOrAnError) {
    auto ask = requests();
    const Item directory = *ask.lookup(root, "items");
    for (const ReparseItem& each : reparseItems()) {
        SCOPED_TRACE(each.name);
        const Item item = *ask.lookup(directory, each.name);
        fskit::FSItemSetAttributesRequest shorter;
        shorter.setSize(1);
        switch (each.kind) {
        case Kind::compressed:
            EXPECT_TRUE(*ask.read(item, 0, each.content.size()) == each.content);
            EXPECT_EQ(ask.write(item, 0, "new").code(), 0);
            EXPECT_EQ(*ask.read(item, 0, 4), "new" + each.content.substr(3, 1));
            break;
        case Kind::link:
            EXPECT_EQ(ask.readlink(item).code(), 0);
            break;
        case Kind::refused:
            EXPECT_EQ(ask.setAttributes(item, shorter).code(), kENOTSUP);
            [[fallthrough]];
        default:
            EXPECT_EQ(ask.read(item, 0, 10).code(), kENOTSUP);
            EXPECT_EQ(ask.write(item, 0, "new").code(), kENOTSUP);
            break;
        }
        EXPECT_EQ(ask.rename(item, directory, each.name, root, each.name).code(), 0);
        EXPECT_EQ(ask.remove(item, root, each.name), 0);
    }
}

TEST_F(VolumeTest, EncryptedFilesAreRefused) {
    start();
    ASSERT_EQ(
        requests().write(*requests().create(root, "letter"), 0, std::string(9000, 'x')).code(), 0);
    ASSERT_EQ(unload(), 0);
    std::vector<std::uint8_t> bytes(disk->bytes.begin(), disk->bytes.end());
    ImageEditor editor(bytes);
    markEncrypted(editor, "/letter");
    disk->bytes.assign(bytes.begin(), bytes.end());
    start();
    auto ask = requests();
    const Item letter = *ask.lookup(root, "letter");
    EXPECT_EQ(ask.attributes(letter)->native().dataState, fskit::FSItemDataState::encrypted);
    EXPECT_EQ(ask.read(letter, 0, 10).code(), kEACCES);
    EXPECT_EQ(ask.write(letter, 0, "new").code(), kEACCES);
    fskit::FSItemSetAttributesRequest shorter;
    shorter.setSize(1);
    EXPECT_EQ(ask.setAttributes(letter, shorter).code(), kEACCES);
    const auto logged = takeLog();
    EXPECT_TRUE(std::ranges::any_of(logged, [](const std::string& line) {
        return line.find("encrypted by Windows (EFS)") != std::string::npos;
    }));
    EXPECT_EQ(ask.rename(letter, root, "letter", root, "moved").code(), 0);
    EXPECT_EQ(ask.remove(letter, root, "moved"), 0);
    EXPECT_EQ(unload(), 0);
}

} // namespace
} // namespace tavelin::test
