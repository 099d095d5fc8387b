// A volume's whole life through the module.
#include "module_fixture.hpp"

namespace tavelin {
namespace {

using namespace test;
using ::testing::Test;

class Lifecycle : public VolumeTest {};

TEST_F(Lifecycle, FromProbeToUnload) {
    EXPECT_EQ((*probe()).name, "Sample");
    start();
    auto ask = requests();
    EXPECT_EQ(ask.mount().code(), 0);

    const Item folder = *ask.create(root, "folder", Type::directory);
    const Item file = *ask.create(folder, "file");
    const Item link = *ask.symlink(folder, "link", "../folder/file");
    EXPECT_EQ(*ask.write(file, 0, "hello"), 5u);
    EXPECT_EQ(*ask.read(file, 1, 100), "ello");
    EXPECT_EQ(ask.setXattr(file, "note", "written").code(), 0);
    EXPECT_EQ((*ask.xattr(file, "note")).size(), 7u);
    EXPECT_EQ((*ask.xattrs(file)).size(), 1u);
    EXPECT_EQ((*ask.readlink(link))->data(), "../folder/file");
    EXPECT_EQ(*ask.lookup(folder, "file"), file);
    EXPECT_EQ((*ask.attributes(file))->size(), 5u);

    Page page;
    EXPECT_EQ(ask.list(folder, page).code(), 0);
    EXPECT_EQ(page.names(), (std::vector<std::string>{".>1", "..>2", "file>3", "link>4"}));

    EXPECT_EQ((*ask.rename(file, folder, "file", root, "moved"))->data(), "moved");
    EXPECT_EQ(ask.remove(link, folder, "link").code(), 0);
    EXPECT_EQ(ask.remove(folder, root, "folder").code(), 0);
    EXPECT_EQ(ask.close(file).code(), 0);
    EXPECT_EQ(ask.synchronize().code(), 0);
    ask.unmount();
    for (const Item& item : {folder, link, file, root}) {
        EXPECT_EQ(ask.reclaim(item).code(), 0);
    }
    EXPECT_EQ(ask.deactivate().code(), 0);
    EXPECT_EQ(unload().code(), 0);

    save();
    EXPECT_EQ(sample.cat("/moved"), "hello");
    EXPECT_EQ(sample.cat("/moved", "note"), "written");
    EXPECT_EQ(sample.check().find("FAILED"), std::string::npos);
}

} // namespace
} // namespace tavelin
