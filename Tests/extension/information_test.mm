// The extension's information dictionary as a program sees it, and the log that the host
// application follows.
#import <FSKit/FSKit.h>
#import <Foundation/Foundation.h>

#include "extension/app/log_follower.hpp"
#include "extension/information.hpp"
#include "extension/text.hpp"
#include "platform/product.hpp"
#include "platform/services.hpp"
#include "support/temp_directory.hpp"

#include <gtest/gtest.h>

namespace tavelin::test {

namespace {

TEST(Information, OfTheExtensionSaysWhatTheProgramIsBuiltWith) {
    @autoreleasepool {
        NSDictionary *plist = [NSDictionary
            dictionaryWithContentsOfFile:toNSString(TAVELIN_BUNDLE_INPUTS "/extension-Info.plist")];
        const InformationDictionary dictionary = toInformation(plist);
        // Everything the program asks for stands in both, with the same text.
        const InformationDictionary elsewhere = posixServices().informationDictionary();
        for (const auto &[key, value] : elsewhere) {
            if (value.as<std::string>() != nullptr) {
                EXPECT_EQ(informationText(dictionary, {key}), informationText(elsewhere, {key}));
            }
        }
        EXPECT_EQ(informationText(dictionary, {"EXAppExtensionAttributes", "FSShortName"}),
                  product::kShortName);

        const auto principal =
            informationText(dictionary, {"EXAppExtensionAttributes", "EXExtensionPrincipalClass"});
        Class type = NSClassFromString(toNSString(principal.value_or("")));
        EXPECT_TRUE([type isSubclassOfClass:[FSUnaryFileSystem class]]);
        Class volume = NSClassFromString(@"TavelinVolume");
        EXPECT_TRUE([volume isSubclassOfClass:[FSVolume class]]);
        // To implement it would restrict the attributes to the names it lists.
        EXPECT_FALSE([volume instancesRespondToSelector:@selector(supportedXattrNamesForItem:)]);
    }
}

TEST(Information, TextsCrossUnharmed) {
    @autoreleasepool {
        EXPECT_EQ(toText(toNSString("été ✓ 𝄞")), "été ✓ 𝄞");
        EXPECT_EQ(toText(toNSString("bad \xff")), "bad \xef\xbf\xbd");
        EXPECT_EQ(toText(nil), "");
    }
}

TEST(LogFollower, ShowsTheEndAndThenWhatIsAdded) {
    const TempDirectory directory;
    EventLog log(directory / "module.log", 1000);
    for (int i = 0; i < 30; ++i) {
        log.event("old", {{"n", i}});
    }
    LogFollower follower(log, 300);
    const std::string end = follower.added();
    EXPECT_LE(end.size(), 300u);
    EXPECT_EQ(end.front(), '{');
    EXPECT_NE(end.find("\"n\":29"), std::string::npos);
    EXPECT_EQ(follower.added(), "");
    log.event("new");
    EXPECT_NE(follower.added().find("\"ev\":\"new\""), std::string::npos);
    EXPECT_EQ(follower.added(), "");
}

} // namespace

} // namespace tavelin::test
