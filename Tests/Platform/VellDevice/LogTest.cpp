#include "ServiceTest.h"

#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

using namespace VellTest;
using ::testing::HasSubstr;
using ::testing::MatchesRegex;
using ::testing::Not;
using ::testing::internal::CaptureStderr;
using ::testing::internal::GetCapturedStderr;

namespace {

class LogTest : public ServiceTest {
protected:
    ~LogTest() override { VellLogSetOutputFile(nullptr); }
    std::string contents(const std::string& name) const {
        std::ifstream file(folder.path() + "/log/" + name);
        return (std::ostringstream() << file.rdbuf()).str();
    }
    static std::vector<std::string> linesOf(const std::string& text) {
        std::vector<std::string> lines;
        std::istringstream stream(text);
        for (std::string line; std::getline(stream, line);)
            lines.push_back(line);
        return lines;
    }
};

TEST_F(LogTest, LinesHaveTheirFormAndAreAppended) {
    const ScopedVariable level("VELL_LOG_LEVEL", "runtime");
    VellLogSetOutputFile("a_1.log");
    VellLogRuntime("%s\n", "void start()");
    VellLogError("code %d\n", -1020);
    VellLogSetOutputFile("b.log");
    VellLogInfo("elsewhere\n");
    VellLogSetOutputFile("a_1.log");
    VellLogDebug("%s", std::string(5000, 'x').c_str());
    const auto lines = linesOf(contents("a_1.log"));
    ASSERT_EQ(lines.size(), 3U);
    const std::string process = std::to_string(getpid());
    EXPECT_THAT(lines[0],
                MatchesRegex("[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3} RUNTIME \\[" +
                             process + ":[0-9]+\\] void start\\(\\)"));
    EXPECT_THAT(lines[1], HasSubstr(" ERROR ["));
    EXPECT_THAT(lines[1], HasSubstr("] code -1020"));
    EXPECT_THAT(lines[2], HasSubstr(std::string(5000, 'x')));
}

TEST_F(LogTest, LevelIsChosenByTheEnvironmentAndStandardErrorGetsTheSeriousOnes) {
    CaptureStderr();
    VellLogInfo("unimportant\n");
    VellLogWarning("important\n");
    const std::string text = GetCapturedStderr();
    EXPECT_THAT(text, HasSubstr("important"));
    EXPECT_THAT(text, Not(HasSubstr("unimportant")));
    VellLogSetOutputFile("default.log");
    VellLogRuntime("runtime\n");
    VellLogDebug("debug\n");
    EXPECT_EQ(linesOf(contents("default.log")).size(), 1U);
    const ScopedVariable level("VELL_LOG_LEVEL", "Info");
    VellLogSetOutputFile("a.log");
    VellLogDebug("debug\n");
    VellLogInfo("info\n");
    EXPECT_EQ(linesOf(contents("a.log")).size(), 1U);
}

TEST_F(LogTest, TextsOfClientsCannotForgeLines) {
    VellLogSetOutputFile("../../a.log");
    VellLogInfo("name %s\n", "x\n2026-01-01 00:00:00.000 ERROR [1:1] forged");
    EXPECT_EQ(linesOf(contents(".._.._a.log")).size(), 1U);
}

TEST_F(LogTest, LinesOfManyThreadsNeverMixWhileTheFileChanges) {
    VellLogSetOutputFile("a.log");
    std::vector<std::thread> writers;
    for (int t = 0; t < 4; ++t) {
        writers.emplace_back([t] {
            for (int i = 0; i < 500; ++i)
                VellLogInfo("begin %s end\n", std::string(100, static_cast<char>('a' + t)).c_str());
        });
    }
    VellLogSetOutputFile("b.log");
    for (std::thread& writer : writers)
        writer.join();
    const auto lines = linesOf(contents("a.log") + contents("b.log"));
    EXPECT_EQ(lines.size(), 2000U);
    for (const std::string& line : lines)
        ASSERT_THAT(line, MatchesRegex(".*\\] begin (a{100}|b{100}|c{100}|d{100}) end"));
}

TEST_F(LogTest, FullFileIsPutAsideOnce) {
    constexpr std::size_t limit = 4 << 20;
    replaceFile(folder.path() + "/log/a.log", std::string(limit - 10000, 'x') + '\n'); // of a run before
    VellLogSetOutputFile("a.log");
    std::vector<std::thread> writers;
    for (int t = 0; t < 2; ++t) {
        writers.emplace_back([] {
            for (int i = 0; i < 1000; ++i)
                VellLogInfo("%s\n", std::string(5000, 'y').c_str());
        });
    }
    for (std::thread& writer : writers)
        writer.join();
    const std::string aside = contents("a.log.1");
    EXPECT_GE(aside.size(), limit - 50000);
    EXPECT_LT(aside.size(), limit + 50000);
    EXPECT_NE(aside[0], 'x') << "the second file, in the place of the first";
    EXPECT_LT(contents("a.log").size(), limit);
    const std::filesystem::directory_iterator files(folder.path() + "/log");
    EXPECT_EQ(std::distance(begin(files), end(files)), 2);
}

TEST_F(LogTest, OneThatCannotBeWrittenIsReportedOnce) {
    CaptureStderr();
    {
        const ScopedVariable full("VELL_LOG_DIR", "/dev");
        VellLogSetOutputFile("full");
    }
    VellLogInfo("lost\n");
    VellLogInfo("lost\n");
    EXPECT_EQ(linesOf(GetCapturedStderr()).size(), 1U);

    CaptureStderr();
    {
        const ScopedVariable nowhere("VELL_LOG_DIR", "/proc/nowhere/log");
        VellLogSetOutputFile("a.log");
    }
    VellLogError("still told\n");
    const auto lines = linesOf(GetCapturedStderr());
    ASSERT_EQ(lines.size(), 2U);
    EXPECT_THAT(lines[0], HasSubstr("no log file"));
    EXPECT_THAT(lines[1], HasSubstr("still told"));
}

TEST_F(LogTest, BuildInformationNamesPlatformAndBundle) {
    const std::string bundle = folder.path() + "/A.bundle";
    replaceFile(
        bundle + "/Contents/Info.plist",
        "<plist version=\"1.0\"><dict><key>CFBundleIdentifier</key><string>org.example.a</string>"
        "<key>CFBundleVersion</key><string>2.5</string><key>Vendor</key><integer>7</integer></dict></plist>");
    const CFStringRef text =
        CFStringCreateWithCString(kCFAllocatorDefault, bundle.c_str(), kCFStringEncodingUTF8);
    const CFURLRef url = CFURLCreateWithFileSystemPath(kCFAllocatorDefault, text, kCFURLPOSIXPathStyle, 1);
    const CFBundleRef reference = CFBundleCreate(kCFAllocatorDefault, url);
    VellLogSetOutputFile("a.log");
    VellLogBuildInformationForPlatform(nullptr);
    VellLogBuildInformationForPlatform(reference);
    const auto lines = linesOf(contents("a.log"));
    ASSERT_EQ(lines.size(), 2U);
    EXPECT_THAT(lines[0], HasSubstr("VellDevice platform"));
    EXPECT_THAT(lines[1], HasSubstr("org.example.a 2.5"));
    for (const CFTypeRef object : {CFTypeRef(text), CFTypeRef(url), CFTypeRef(reference)})
        CFRelease(object);
}

TEST_F(LogTest, LibraryGivesTheBundlesPropertiesWithTheirTypes) {
    const std::string bundle = folder.path() + "/A.bundle";
    replaceFile(bundle + "/Contents/Info.plist",
                "<plist version=\"1.0\"><dict><key>Name</key><string>Table</string>"
                "<key>Vendor</key><integer>2417</integer></dict></plist>");
    const Owned path(VellStringCreateWithCString(bundle.c_str()));
    const Owned library(VellLibraryCreate(static_cast<VellStringRef>(path.get())));
    const auto reference = static_cast<VellLibraryRef>(library.get());
    const Owned name(VellLibraryCopyPropertyForKey(reference, "Name"));
    const Owned vendor(VellLibraryCopyPropertyForKey(reference, "Vendor"));
    EXPECT_NE(VellCheckedCast(name.get(), "VellStringRef"), nullptr);
    EXPECT_EQ(VellNumberGetIntegerValue(static_cast<VellNumberRef>(vendor.get())), 2417);
    EXPECT_EQ(VellLibraryCopyPropertyForKey(reference, "Missing"), nullptr);
    const Owned nowhere(VellLibraryCreate(constant("/nowhere")));
    EXPECT_EQ(VellLibraryCopyPropertyForKey(static_cast<VellLibraryRef>(nowhere.get()), "Name"), nullptr);
    EXPECT_EQ(VellLibraryCreate(nullptr), nullptr);
}

} // namespace
