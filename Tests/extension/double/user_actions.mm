#import "extension/double/user_actions.h"

#include <gtest/gtest.h>

namespace tavelin::test {

namespace {

// Entries with attributes that go into one page of 64 KiB.
constexpr size_t kPageEntries = 300;

} // namespace

void UserActions::askAfterwards(std::initializer_list<FSItem *> items, bool freeSpace) {
    if (daemon_.hasHandlers()) {
        return;
    }
    for (FSItem *item : items) {
        EXPECT_TRUE(daemon_.getAttributes(item).ok());
    }
    if (freeSpace) {
        EXPECT_GT(daemon_.statistics(), 0u);
    }
}

void UserActions::open(FSItem *item) {
    EXPECT_TRUE(!tellsUse_ || daemon_.open(item).ok());
}

void UserActions::close(FSItem *item) {
    EXPECT_TRUE(!tellsUse_ || daemon_.close(item).ok());
}

Answer UserActions::lookup(FSItem *directory, const std::string &name) {
    Answer found = daemon_.lookup(directory, name);
    if (found.ok()) {
        askAfterwards({found.item()}, false);
    }
    return found;
}

Answer UserActions::create(FSItem *directory, const std::string &name, FSItemType type) {
    EXPECT_FALSE(lookup(directory, name).ok());
    Answer made = daemon_.create(directory, name, type);
    EXPECT_TRUE(made.ok());
    askAfterwards({made.item(), directory}, true);
    return made;
}

void UserActions::write(FSItem *item, const std::string &content) {
    open(item);
    EXPECT_EQ(daemon_.write(item, content).number, content.size());
    askAfterwards({item}, true);
    close(item);
}

void UserActions::rename(FSItem *item, FSItem *directory, const std::string &name,
                         const std::string &newName) {
    EXPECT_FALSE(lookup(directory, newName).ok());
    EXPECT_TRUE(daemon_.rename(item, directory, name, directory, newName).ok());
    askAfterwards({item, directory}, true);
}

void UserActions::setTimes(FSItem *item) {
    EXPECT_TRUE(daemon_.setSize(item, 4096).ok()); // whichever attribute, one request
    askAfterwards({}, true);
}

void UserActions::openAndRead(const std::string &name) {
    const Answer file = lookup(daemon_.root(), name);
    open(file.item());
    EXPECT_EQ(daemon_.readText(file.item(), 4096).size(), 4096u);
    askAfterwards({file.item()}, false);
    close(file.item());
}

void UserActions::save(const std::string &name) {
    FSItem *const root = daemon_.root();
    const Answer old = lookup(root, name);
    const Answer fresh = create(root, name + ".new");
    write(fresh.item(), std::string(4096, 'n'));
    setTimes(fresh.item());
    EXPECT_TRUE(daemon_.rename(fresh.item(), root, name + ".new", root, name, old.item()).ok());
    askAfterwards({fresh.item(), root}, true);
    EXPECT_TRUE(!tellsUse_ || daemon_.deactivateItem(old.item()).ok());
    EXPECT_TRUE(daemon_.reclaim(old.item()).ok());
}

void UserActions::list(FSItem *directory) {
    open(directory);
    EXPECT_FALSE(daemon_.list(directory, kPageEntries, true).empty());
    close(directory);
}

void UserActions::copyDirectory(const std::string &name, int files) {
    const Answer directory = create(daemon_.root(), name, FSItemTypeDirectory);
    for (int i = 0; i < files; ++i) {
        const Answer file = create(directory.item(), "file" + std::to_string(i));
        write(file.item(), std::string(4096, 'c'));
        setTimes(file.item());
        EXPECT_TRUE(daemon_.setXattr(file.item(), "com.apple.provenance", [NSData data]).ok());
        askAfterwards({}, true);
    }
}

void UserActions::copyTree(int directories, int filesEach) {
    for (int i = 0; i < directories; ++i) {
        copyDirectory("copy" + std::to_string(i), filesEach);
    }
}

} // namespace tavelin::test
