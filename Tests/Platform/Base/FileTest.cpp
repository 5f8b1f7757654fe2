#include <Base/File.h>
#include <Base/FolderEvents.h>
#include <Base/Number.h>

#include <gmock/gmock.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>

using ::testing::UnorderedElementsAre;

namespace {

class FolderTest : public ::testing::Test {
protected:
    FolderTest() : folder((std::filesystem::temp_directory_path() / "base-XXXXXX").string()) {
        if (!mkdtemp(folder.data()))
            throw std::runtime_error("no folder");
    }
    ~FolderTest() override { std::filesystem::remove_all(folder); }
    std::string path(const std::string& name) const { return folder + "/" + name; }
    void write(const std::string& name, const std::string& text) const { std::ofstream(path(name)) << text; }

    std::string folder;
};

TEST_F(FolderTest, FilesAreReadWholeOrNotAtAll) {
    const std::string text(100000, 'x');
    write("file", text);
    EXPECT_EQ(Base::readFile(path("file"), text.size()).bytes, text);
    EXPECT_TRUE(Base::readFile(path("file"), text.size() - 1).isTooLarge());
    EXPECT_EQ(Base::readFile("/proc/self/status", 1 << 20).bytes.substr(0, 5), "Name:"); // of no known size
    EXPECT_TRUE(Base::readFile(path("none"), 1).isMissing());
    EXPECT_TRUE(Base::readFile(folder, 1).isFolder());
    // Nobody ever writes to this one: to wait for it would be for ever.
    ASSERT_EQ(mkfifo(path("pipe").c_str(), 0600), 0);
    std::filesystem::create_symlink("pipe", path("link"));
    EXPECT_EQ(Base::readFile(path("link"), 1).error, std::errc::invalid_argument);
}

TEST_F(FolderTest, EventsTellNamesOverflowAndTheEnd) {
    Base::FolderEvents events;
    ASSERT_TRUE(events.watch(folder));
    write("a", "1");
    write("b", "1");
    std::filesystem::remove(path("b"));
    Base::FolderEvents::Changes changes = events.take();
    EXPECT_THAT(changes.touched, UnorderedElementsAre("a", "b"));
    EXPECT_THAT(changes.left, UnorderedElementsAre("b"));
    EXPECT_FALSE(changes.isOverflown || changes.isFolderGone);

    long limit = 0;
    std::ifstream("/proc/sys/fs/inotify/max_queued_events") >> limit;
    for (long i = 0; i < limit; ++i) // two events each
        std::filesystem::rename(path(i % 2 == 0 ? "a" : "b"), path(i % 2 == 0 ? "b" : "a"));
    EXPECT_TRUE(events.take().isOverflown);

    std::filesystem::remove_all(folder);
    EXPECT_TRUE(events.take().isFolderGone);
    EXPECT_FALSE(events.isWatching());
}

TEST(NumberTest, IsTheWholeTextOrNothing) {
    EXPECT_EQ(Base::parseNumber<int>("+5"), 5);
    EXPECT_EQ(Base::parseFinite<double>("-1.5e3"), -1500);
    for (const char* text : {"", "+", "+-5", " 5", "5 ", "5x", "2147483648"})
        EXPECT_EQ(Base::parseNumber<int>(text), std::nullopt) << text;
    for (const char* text : {"inf", "nan", "1e999"})
        EXPECT_EQ(Base::parseFinite<double>(text), std::nullopt) << text;
    EXPECT_EQ(Base::saturated(1e30), INT64_MAX);
    EXPECT_EQ(Base::saturated(-1e30), INT64_MIN);
}

} // namespace
