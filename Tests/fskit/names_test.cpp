// Names in the normal forms of Unicode, and names that Windows cannot have.
#include "module_fixture.hpp"

#include "platform/normal_forms.hpp"

namespace tavelin {
namespace {

using namespace test;
using Names = std::vector<std::string>;

// An e with an acute accent, as Windows and as programs of macOS write it, and a compatibility
// ideograph, which composing would turn into another character.
const std::string kWindows = "caf\u00e9 \uf900.txt";
const std::string kMac = "cafe\u0301 \uf900.txt";

class NamesTest : public VolumeTest {
  protected:
    Names listed() {
        Page page;
        const fskit::FSItemGetAttributesRequest wanted;
        static_cast<void>(*Answer{volume().enumerateDirectory(root, 0, 0, &wanted, page)});
        Names names;
        for (const Entry& entry : page.entries) {
            names.push_back(entry.name);
        }
        return names;
    }
    // Loads the volume once more, and activates it with other options than it is loaded with.
    void restart(const Options& loading, const Options& activation) {
        EXPECT_EQ(unload(), 0);
        ASSERT_EQ(load(loading), 0);
        root = *requests().activate(activation);
    }
    // A file under exactly this name.
    Item make(const std::string& name) {
        volume().setNormalizesNames(false);
        const Answer made = requests().create(root, name);
        volume().setNormalizesNames(true);
        return *made;
    }
    std::string storedName(const std::string& name) {
        const auto found = volume().lookupItem(fskit::FSFileName(name), root);
        return found ? found->itemName.data() : found.error().localizedDescription();
    }
};

TEST(NormalForms, ComposeAndDecomposeWhatMacOSDoes) {
    EXPECT_EQ(composed(kMac), kWindows);
    EXPECT_EQ(decomposed(kWindows), kMac);
    EXPECT_EQ(decomposed("\uac00"), "\u1100\u1161");
    EXPECT_EQ(composed("a\u0308\u0323"), "\u1ea1\u0308") << "marks in canonical order";
    for (const char* same : {"plain.txt", "\xff\xfe", "\xed\xa0\x80\xcc\x81", "\u212b"}) {
        EXPECT_EQ(composed(same), same);
        EXPECT_EQ(decomposed(same), same);
    }
}

TEST_F(NamesTest, ANameIsFoundInEitherFormAndAnsweredAsItIsStored) {
    start({"-o", "normalize_names"});
    for (const auto& [stored, other] : {std::pair(kWindows, kMac), std::pair(kMac, kWindows)}) {
        const Item file = make(stored);
        auto ask = requests();
        EXPECT_EQ(storedName(other), stored);
        EXPECT_EQ(storedName(stored), stored);
        EXPECT_EQ(ask.create(root, other).code(), kEEXIST);
        EXPECT_EQ(ask.symlink(root, other, "x").code(), kEEXIST);
        EXPECT_EQ(ask.rename(file, root, other, root, "moved")->newName.data(), "moved");
        EXPECT_EQ(ask.rename(file, root, "moved", root, stored).code(), 0);

        // Replaces the item that has the name in another form.
        const Item fresh = *ask.create(root, "fresh");
        const Item over = *ask.lookup(root, other);
        EXPECT_EQ(ask.rename(fresh, root, "fresh", root, other, over).code(), 0);
        EXPECT_EQ(listed().size(), 1u);
        EXPECT_EQ(ask.remove(fresh, root, other), 0);
        EXPECT_EQ(listed(), Names{});
    }
}

TEST_F(NamesTest, NewNamesAreComposed) {
    start({"-o", "normalize_names"});
    auto ask = requests();
    fskit::FSItemSetAttributesRequest none;
    const fskit::FSFileName asked(kMac);
    const auto expectMade = [&](const Item& item, const std::string& answered) {
        EXPECT_EQ(answered, kWindows);
        EXPECT_EQ(listed(), Names{kWindows});
        EXPECT_EQ(ask.remove(item, root, kMac), 0);
    };
    const Answer file{volume().createItem(asked, Type::file, root, none)};
    expectMade(file->newItem, file->newItemName.data());
    const Answer link{volume().createSymbolicLink(asked, root, none, fskit::FSFileName("x"))};
    expectMade(link->newItem, link->newItemName.data());
    const Item plain = *ask.create(root, "plain");
    expectMade(plain, ask.rename(plain, root, "plain", root, kMac)->newName.data());
    const Item old = make(kMac);
    expectMade(old, ask.rename(old, root, kMac, root, kWindows)->newName.data());
    EXPECT_EQ(ask.setName("caf"
                          "e\u0301"),
              0);
    EXPECT_EQ(*volume().label(), "caf\u00e9");
}

TEST_F(NamesTest, TheGivenFormComesFirstAndTheOptionTurnsTheRestOff) {
    start({"-o", "normalize_names"});
    const Item windows = make(kWindows);
    const Item mac = make(kMac);
    EXPECT_EQ(*requests().lookup(root, kWindows), windows);
    EXPECT_EQ(*requests().lookup(root, kMac), mac);
    EXPECT_EQ(requests().rename(mac, root, kMac, root, kMac).code(), 0);
    EXPECT_EQ(*requests().lookup(root, kWindows), windows) << "nobody asked for its end";
    EXPECT_EQ(requests().remove(mac, root, kMac), 0);
    EXPECT_EQ(listed(), Names{kWindows});

    restart({"-o", "normalize_names"}, {"-o", "nonormalize_names"});
    EXPECT_EQ(requests().lookup(root, kMac).code(), kENOENT);
    EXPECT_EQ(requests().create(root, kMac).code(), 0);
    EXPECT_EQ(listed().size(), 2u);
}

// By the volume's own table, which knows more letters than those of ASCII.
TEST_F(NamesTest, CaseDoesNotCountWhereTheMountSaysSo) {
    start({"-o", "ignore_case"});
    auto ask = requests();
    for (const auto& [stored, other] :
         {std::pair<std::string, std::string>("README.txt", "readme.TXT"),
          {"CAF\u00c9 \u0434", "caf\u00e9 \u0414"}}) {
        const Item file = *ask.create(root, stored);
        EXPECT_EQ(storedName(other), stored);
        EXPECT_EQ(ask.create(root, other).code(), kEEXIST);
        EXPECT_EQ(ask.symlink(root, other, "x").code(), kEEXIST);
        const Answer linked{volume().linkInternal(file, fskit::FSFileName(other), root)};
        EXPECT_EQ(linked.code(), kEEXIST);
        // The case alone, with the old name in any.
        EXPECT_EQ(ask.rename(file, root, stored, root, other)->newName.data(), other);
        EXPECT_EQ(listed(), Names{other});
        EXPECT_EQ(ask.rename(file, root, stored, root, stored)->newName.data(), stored);
        EXPECT_EQ(listed(), Names{stored});
        // What is replaced keeps its name.
        const Item fresh = *ask.create(root, "fresh");
        EXPECT_EQ(ask.rename(fresh, root, "FRESH", root, other, file).code(), 0);
        EXPECT_EQ(listed(), Names{stored});
        EXPECT_EQ(ask.remove(fresh, root, other), 0);
        EXPECT_EQ(listed(), Names{});
    }
    // Of names that differ by nothing else, each leads to its own item.
    volume().setIgnoresCase(false);
    const Item upper = *ask.create(root, "ABC");
    const Item lower = *ask.create(root, "abc");
    volume().setIgnoresCase(true);
    EXPECT_EQ(*ask.lookup(root, "ABC"), upper);
    EXPECT_EQ(*ask.lookup(root, "abc"), lower);
    EXPECT_EQ(ask.lookup(root, "Abc").code(), 0);
    EXPECT_EQ(volume().supportedVolumeCapabilities().caseFormat,
              fskit::FSVolumeCaseFormat::insensitiveCasePreserving);

    restart({"-o", "ignore_case"}, {"-o", "normalize_names"});
    EXPECT_EQ(requests().create(root, kWindows).code(), 0);
    EXPECT_EQ(storedName("CAFE\u0301 \uf900.TXT"), kWindows) << "in another form as well";
    restart({"-o", "ignore_case"}, {"-o", "noignore_case"});
    EXPECT_EQ(requests().lookup(root, "Abc").code(), kENOENT);
}

TEST_F(NamesTest, AHostsRulesHoldUnlessTheMountSaysOtherwise) {
    TavelinFileSystem strict({.windowsNames = true, .normalizeNames = true});
    struct Case {
        Options loading;
        Options activation;
        std::int64_t forbidden; // of names that Windows cannot have
        std::int64_t other;     // of a name in the other form
    };
    for (const Case& c : {Case{{}, {}, kEINVAL, 0},
                          {{"-o", "nowindows_names,nonormalize_names"}, {}, 0, kENOENT},
                          {{}, {"-o", "nowindows_names"}, 0, 0}}) {
        disk->bytes = readFile(sample.image());
        static_cast<void>(*Answer{strict.loadResource(disk, {c.loading})});
        const Item directory = *Answer{strict.volume->activate({c.activation})};
        Requests ask(*strict.volume);
        for (const char* name : {"a:b", "what?", "con", "nul.txt", "dot.", "space "}) {
            EXPECT_EQ(ask.create(directory, name).code(), c.forbidden) << name;
        }
        EXPECT_EQ(ask.create(directory, "caf\u00e9").code(), 0);
        EXPECT_EQ(ask.lookup(directory, "cafe\u0301").code(), c.other);
        EXPECT_EQ(codeOf(strict.unloadResource(disk, {})), 0);
    }
}

} // namespace
} // namespace tavelin
