#include "ServiceTest.h"

#include <Base/FileDescriptor.h>
#include <Base/FolderEvents.h>
#include <CoreFoundation/Clock.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

using namespace VellTest;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::UnorderedElementsAre;

namespace {

std::atomic<int> notifiersTaken{0};
std::atomic<bool> notifiersAreShort{false};

} // namespace

// In the place of the system's: every user has a limited number of them.
extern "C" int inotify_init1(int flags) {
    if (notifiersAreShort) {
        errno = EMFILE;
        return -1;
    }
    ++notifiersTaken;
    return static_cast<int>(syscall(SYS_inotify_init1, flags));
}

namespace {

std::string hardware(const std::string& path, int product = 2, const std::string& siblings = "",
                     const std::string& deviceClass = "Scanner") {
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\"><dict>"
           "<key>Path</key><string>" +
           path +
           "</string><key>VendorID</key><integer>1</integer>"
           "<key>ProductID</key><integer>" +
           std::to_string(product) + "</integer><key>DeviceClass</key><string>" + deviceClass +
           "</string><key>Siblings</key><array>" + siblings + "</array></dict></plist>";
}

constexpr const char* kHead =
    "<dict><key>VendorID</key><integer>2417</integer><key>ProductID</key><integer>8192</integer></dict>";

class HardwareTest : public ServiceTest {
protected:
    HardwareTest() { watch(manager()); }

    VellHardwareManagerRef manager() const { return static_cast<VellHardwareManagerRef>(mManager.get()); }
    void watch(VellHardwareManagerRef observed) {
        VellHardwareManagerRegisterMatchCallback(observed, matched, this);
        VellHardwareManagerRegisterRemovalCallback(observed, removed, this);
    }
    std::string file(const std::string& name) const { return folder.hardwareFolder() + "/" + name; }
    bool becomes(const std::vector<std::string>& expected) {
        return runUntil([&] { return events == expected; }, std::chrono::seconds(5));
    }

    std::vector<std::string> events;
    bool closesInCallback = false;
    Owned last; // device

private:
    void note(const char* sign, VellHardwareManagerRef from, VellHardwareDeviceRef device) {
        const Owned path(VellHardwareDeviceCopyPath(device));
        events.push_back(sign + textOf(static_cast<VellStringRef>(path.get())));
        last.reset(VellRetain(device));
        if (closesInCallback)
            VellHardwareManagerClose(from);
    }
    static void matched(VellHardwareManagerRef from, VellHardwareDeviceRef device, const void* context) {
        const_cast<HardwareTest*>(static_cast<const HardwareTest*>(context))->note("+", from, device);
    }
    static void removed(VellHardwareManagerRef from, VellHardwareDeviceRef device, const void* context) {
        const_cast<HardwareTest*>(static_cast<const HardwareTest*>(context))->note("-", from, device);
    }
    Owned mManager{VellHardwareManagerCreate()};
};

TEST_F(HardwareTest, FilesThatComeAndGoAreAttachesAndRemovals) {
    // Whoever opened it would wait for a writer that never comes.
    ASSERT_EQ(mkfifo((folder.path() + "/pipe").c_str(), 0600), 0);
    std::filesystem::create_directories(folder.hardwareFolder());
    std::filesystem::create_symlink(folder.path() + "/pipe", file("0.plist"));
    replaceFile(file("a.plist"), hardware("usb:a"));
    VellHardwareManagerOpen(manager());
    EXPECT_THAT(events, IsEmpty()); // by the run loop only
    ASSERT_TRUE(becomes({"+usb:a"}));
    replaceFile(file("b.plist"), hardware("usb:b"));
    ASSERT_TRUE(becomes({"+usb:a", "+usb:b"}));
    std::filesystem::remove(file("a.plist"));
    ASSERT_TRUE(becomes({"+usb:a", "+usb:b", "-usb:a"}));
    replaceFile(file("b.plist"), hardware("usb:c")); // another device under the name
    ASSERT_TRUE(becomes({"+usb:a", "+usb:b", "-usb:a", "-usb:b", "+usb:c"}));
    const Owned path(VellHardwareDeviceCopyFilePath(static_cast<VellHardwareDeviceRef>(last.get())));
    EXPECT_EQ(textOf(static_cast<VellStringRef>(path.get())), file("b.plist"));
}

TEST_F(HardwareTest, DeviceThatWasAwayForAMomentWasAway) {
    replaceFile(file("a.plist"), hardware("usb:a"));
    VellHardwareManagerOpen(manager());
    ASSERT_TRUE(becomes({"+usb:a"}));
    std::filesystem::remove(file("a.plist"));
    replaceFile(file("a.plist"), hardware("usb:a")); // before the loop has looked
    ASSERT_TRUE(becomes({"+usb:a", "-usb:a", "+usb:a"}));
    std::filesystem::remove_all(folder.hardwareFolder());
    std::filesystem::create_directory(folder.hardwareFolder());
    replaceFile(file("a.plist"), hardware("usb:a"));
    EXPECT_TRUE(becomes({"+usb:a", "-usb:a", "+usb:a", "-usb:a", "+usb:a"}));
}

TEST_F(HardwareTest, OfTwoFilesForOneDeviceTheFirstCountsAndTheOtherTakesOver) {
    replaceFile(file("b.plist"), hardware("usb:a"));
    replaceFile(file("c.plist"), hardware("USB:A")); // paths are compared without regard to letter case
    VellHardwareManagerOpen(manager());
    const auto lastFile = [this] {
        const Owned path(VellHardwareDeviceCopyFilePath(static_cast<VellHardwareDeviceRef>(last.get())));
        return textOf(static_cast<VellStringRef>(path.get()));
    };
    ASSERT_TRUE(becomes({"+usb:a"}));
    EXPECT_EQ(lastFile(), file("b.plist"));
    std::filesystem::remove(file("b.plist"));
    ASSERT_TRUE(becomes({"+usb:a", "-usb:a", "+USB:A"}));
    EXPECT_EQ(lastFile(), file("c.plist"));
    replaceFile(file("a.plist"), hardware("usb:a"));
    ASSERT_TRUE(becomes({"+usb:a", "-usb:a", "+USB:A", "-USB:A", "+usb:a"}));
    EXPECT_EQ(lastFile(), file("a.plist"));
    replaceFile(file("a.plist"), hardware("usb:b")); // another device under the name
    events.clear();
    ASSERT_TRUE(becomes({"-usb:a", "+usb:b", "+USB:A"}));
    std::filesystem::remove(file("a.plist"));
    std::filesystem::remove(file("c.plist"));
    EXPECT_TRUE(becomes({"-usb:a", "+usb:b", "+USB:A", "-usb:b", "-USB:A"}));
}

TEST_F(HardwareTest, FolderIsMadePrivateAndMadeAgain) {
    VellHardwareManagerOpen(manager());
    const auto mode = std::filesystem::status(folder.hardwareFolder()).permissions();
    EXPECT_EQ(mode, std::filesystem::perms::owner_all);
    replaceFile(file("a.plist"), hardware("usb:a"));
    ASSERT_TRUE(becomes({"+usb:a"}));
    std::filesystem::remove_all(folder.hardwareFolder());
    ASSERT_TRUE(becomes({"+usb:a", "-usb:a"}));
    replaceFile(file("a.plist"), hardware("usb:a"));
    EXPECT_TRUE(becomes({"+usb:a", "-usb:a", "+usb:a"}));
}

// Then the kernel does not tell of its end.
TEST_F(HardwareTest, FolderThatIsOpenSomewhereIsMadeAgainToo) {
    CoreFoundation::VirtualClock clock;
    VellHardwareManagerOpen(manager());
    replaceFile(file("a.plist"), hardware("usb:a"));
    ASSERT_TRUE(becomes({"+usb:a"}));
    const Base::FileDescriptor held(open(folder.hardwareFolder().c_str(), O_RDONLY | O_DIRECTORY));
    std::filesystem::remove_all(folder.hardwareFolder());
    ASSERT_TRUE(becomes({"+usb:a", "-usb:a"}));
    clock.advance(2.1);
    ASSERT_TRUE(runUntil([&] { return std::filesystem::exists(folder.hardwareFolder()); }));
    replaceFile(file("a.plist"), hardware("usb:a"));
    EXPECT_TRUE(becomes({"+usb:a", "-usb:a", "+usb:a"}));
}

TEST_F(HardwareTest, ChangeInPlaceIsNoEventAndIsSeenWhenAsked) {
    replaceFile(file("a.plist"), hardware("usb:a", 2, kHead));
    VellHardwareManagerOpen(manager());
    ASSERT_TRUE(becomes({"+usb:a"}));
    const auto device = static_cast<VellHardwareDeviceRef>(last.get());
    const auto hasHead = [&] {
        const Owned sibling(VellHardwareDeviceCopyFirstSiblingWithInfo(device, 0x971, 0x2000));
        return sibling != nullptr;
    };
    EXPECT_TRUE(hasHead());
    replaceFile(file("a.plist"), hardware("usb:a"));
    EXPECT_FALSE(hasHead()); // at once, on any thread
    replaceFile(file("a.plist"), hardware("usb:a", 2, kHead));
    std::thread([&] { EXPECT_TRUE(hasHead()); }).join();
    // A file that is half written is as it was.
    std::ofstream(file("a.plist")) << hardware("usb:a").substr(0, 60);
    runUntil([] { return false; }, std::chrono::milliseconds(30));
    EXPECT_TRUE(hasHead());
    EXPECT_THAT(events, ElementsAre("+usb:a"));
}

TEST_F(HardwareTest, CriteriaChooseAndWhatTheyLeaveOutMatches) {
    replaceFile(file("a.plist"), hardware("usb:a", 2));
    replaceFile(file("b.plist"), hardware("usb:b", 3));
    replaceFile(file("c.plist"), hardware("usb:c", 3, "", "Printer"));
    replaceFile(file("broken.plist"), "not a property list");
    replaceFile(file("nameless.plist"), hardware(""));
    const auto matching = [&](bool product, bool deviceClass) {
        events.clear();
        const Owned other(VellHardwareManagerCreate());
        const auto observed = static_cast<VellHardwareManagerRef>(other.get());
        const Owned criteria(VellDictionaryCreate());
        const auto dictionary = static_cast<VellDictionaryRef>(criteria.get());
        const Owned three(VellNumberCreateWithInteger(3));
        if (product)
            VellDictionarySetValueForKey(dictionary, kVellHardwareProductID, three.get());
        if (deviceClass)
            VellDictionarySetValueForKey(dictionary, kVellHardwareDeviceClass, constant("Scanner"));
        watch(observed);
        VellHardwareManagerSetDeviceMatchingCriteria(observed, dictionary);
        VellHardwareManagerOpen(observed);
        runSomePasses();
        VellHardwareManagerClose(observed);
        runSomePasses();
        return events;
    };
    EXPECT_THAT(matching(false, false), ElementsAre("+usb:a", "+usb:b", "+usb:c"));
    EXPECT_THAT(matching(true, false), ElementsAre("+usb:b", "+usb:c"));
    EXPECT_THAT(matching(true, true), ElementsAre("+usb:b"));
}

TEST_F(HardwareTest, ClosingEndsDeliveryFromAnywhere) {
    replaceFile(file("a.plist"), hardware("usb:a"));
    replaceFile(file("b.plist"), hardware("usb:b"));
    closesInCallback = true;
    VellHardwareManagerOpen(manager());
    runSomePasses();
    EXPECT_EQ(events.size(), 1U);
    closesInCallback = false;
    VellHardwareManagerOpen(manager()); // anew: everything is reported again
    ASSERT_TRUE(runUntil([&] { return events.size() == 3; }));
    std::thread([&] { VellHardwareManagerClose(manager()); }).join();
    std::filesystem::remove(file("a.plist"));
    runUntil([] { return false; }, std::chrono::milliseconds(30));
    EXPECT_EQ(events.size(), 3U);
}

TEST_F(HardwareTest, MayBeReleasedElsewhereWithDeliveriesQueued) {
    replaceFile(file("a.plist"), hardware("usb:a"));
    const VellHardwareManagerRef other = VellHardwareManagerCreate();
    watch(other);
    VellHardwareManagerOpen(other); // the match waits for the loop
    std::thread([&] { VellRelease(other); }).join();
    runSomePasses();
    EXPECT_THAT(events, IsEmpty());
}

TEST_F(HardwareTest, WatchesOfOneProcessShareANotifierAndStillSeeEverything) {
    notifiersTaken = 0;
    const Owned other(VellHardwareManagerCreate());
    const auto second = static_cast<VellHardwareManagerRef>(other.get());
    watch(second);
    VellHardwareManagerOpen(manager());
    VellHardwareManagerOpen(second);
    replaceFile(file("a.plist"), hardware("usb:a"));
    ASSERT_TRUE(becomes({"+usb:a", "+usb:a"}));
    // What another thread takes from the notifier it puts by for these.
    std::thread([&] {
        Base::FolderEvents third;
        ASSERT_TRUE(third.watch(folder.hardwareFolder()));
        std::filesystem::remove(file("a.plist"));
        replaceFile(file("a.plist"), hardware("usb:a"));
        const auto changes = third.take();
        EXPECT_TRUE(changes.touched.contains("a.plist") && changes.left.contains("a.plist"));
    }).join();
    events.clear();
    ASSERT_TRUE(runUntil([&] { return events.size() == 4; }));
    EXPECT_THAT(events, UnorderedElementsAre("-usb:a", "+usb:a", "-usb:a", "+usb:a"));
    VellHardwareManagerClose(second); // the first one's watch of the same folder stays
    replaceFile(file("b.plist"), hardware("usb:b"));
    events.clear();
    EXPECT_TRUE(becomes({"+usb:b"}));
    EXPECT_EQ(notifiersTaken, 1);
}

TEST_F(HardwareTest, WithoutANotifierTheFolderIsLookedAtEverySecond) {
    VellLogSetOutputFile("short");
    notifiersAreShort = true;
    replaceFile(file("a.plist"), hardware("usb:a"));
    VellHardwareManagerOpen(manager());
    ASSERT_TRUE(becomes({"+usb:a"}));
    replaceFile(file("b.plist"), hardware("usb:b"));
    ASSERT_TRUE(becomes({"+usb:a", "+usb:b"}));
    std::filesystem::remove(file("a.plist"));
    notifiersAreShort = false; // from the next look on it is told again
    ASSERT_TRUE(becomes({"+usb:a", "+usb:b", "-usb:a"}));
    std::stringstream log;
    log << std::ifstream(folder.path() + "/log/short").rdbuf();
    VellLogSetOutputFile(nullptr);
    const std::string said = "is looked at once a second";
    EXPECT_NE(log.str().find(said), std::string::npos) << log.str();
    EXPECT_EQ(log.str().find(said), log.str().rfind(said)) << log.str();
    EXPECT_EQ(log.str().find("WARNING"), std::string::npos) << log.str();
}

} // namespace
