#include <Base/PropertyList.h>
#include <Base/Utf8.h>

#include <gmock/gmock.h>

using Base::validUtf8;

namespace {

std::string deep(const std::string& before, const std::string& after = "", int levels = 1000) {
    std::string text = before;
    for (int i = 0; i < levels; ++i)
        text += "<array>";
    text += after;
    for (int i = 0; i < levels; ++i)
        text += "</array>";
    return text + "</plist>";
}

TEST(XmlGuardTest, KnowsNoWayAroundTheDepth) {
    const std::string usual = "<?xml version=\"1.0\"?><!DOCTYPE plist PUBLIC \"-//A//DTD PLIST 1.0//EN\" "
                              "\"http://www.example.com/PropertyList-1.0.dtd\"><plist version=\"1.0\">";
    EXPECT_NE(Base::parseXmlPropertyList(deep(usual, "", 60)), nullptr);
    EXPECT_NE(
        Base::parseXmlPropertyList(usual + "<!-- - > \" --><string><![CDATA[<array>]]></string></plist>"),
        nullptr);
    // What hides the levels from one reader and not from the other: each of them must be refused.
    for (const std::string& before : {
             usual,
             std::string("<!DOCTYPE plist [ <!ENTITY a '<!--'> ]><plist>"),
             std::string("<!DOCTYPE plist \"><!--\"><plist>"),
             std::string("<!DOCTYPE plist '><!--'><plist>"),
             std::string("<plist a=\"/><![CDATA[\">"),
             std::string("<plist><!--><![CDATA[-->"),
             std::string("<plist><?><!--?>"),
             std::string("<plist><![CDATA["),
         }) {
        for (const char* after : {"", "-->", "]]>", "?>"})
            EXPECT_EQ(Base::parseXmlPropertyList(deep(before, after)), nullptr) << before << after;
    }
    std::string empties = "<plist>";
    for (int i = 0; i < 1000; ++i)
        empties += "<array a=\"/>\">";
    EXPECT_EQ(Base::parseXmlPropertyList(empties), nullptr);
}

TEST(Utf8Test, KeepsWhatIsValidAndReplacesTheRest) {
    const std::string replacement = "\xef\xbf\xbd";
    for (const std::string valid : {"", "plain", "\xc3\xa4", "\xe2\x82\xac", "\xf0\x9f\x99\x82"})
        EXPECT_EQ(validUtf8(valid), valid);
    EXPECT_EQ(validUtf8("a\xff"), "a" + replacement);
    EXPECT_EQ(validUtf8("\xc0\xaf"), replacement + replacement);        // an overlong slash
    EXPECT_EQ(validUtf8("\xed\xa0\x80").substr(0, 3), replacement);     // half a pair
    EXPECT_EQ(validUtf8("\xe2\x82"), replacement + replacement);        // broken off
    EXPECT_EQ(validUtf8("\xf4\x90\x80\x80").substr(0, 3), replacement); // beyond the last character
}

} // namespace
