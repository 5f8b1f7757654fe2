#include "ServiceTest.h"

#include <atomic>
#include <thread>

using namespace VellTest;
using ::testing::ElementsAre;

namespace {

class RecordTest : public ServiceTest {
protected:
    VellDeviceRef device() const { return static_cast<VellDeviceRef>(mDevice.get()); }

private:
    Owned mDevice{VellDeviceCreate()};
};

TEST_F(RecordTest, KeepsWhatItIsTold) {
    EXPECT_EQ(VellDeviceGetConnected(device()), 0);
    VellDeviceSetConnected(device(), 7);
    EXPECT_EQ(VellDeviceGetConnected(device()), 1);
    EXPECT_EQ(VellDeviceGetIsLocked(device()), 0);
    VellDeviceSetLockHolder(device(), constant("12"));
    EXPECT_EQ(VellDeviceGetIsLocked(device()), 1);
    VellDeviceSetLockHolder(device(), nullptr);
    EXPECT_EQ(VellDeviceGetIsLocked(device()), 0);
    EXPECT_EQ(VellDeviceGetLockHolder(device()), nullptr);

    VellDeviceSetAttributeForKey(device(), constant("b"), constant("1"));
    VellDeviceSetAttributeForKey(device(), constant("DisplayName"), constant("The table"));
    VellDeviceSetAttributeForKey(device(), constant("b"), constant("2"));
    EXPECT_EQ(VellDeviceGetAttributeCount(device()), 2);
    EXPECT_EQ(VellDeviceGetAttributeNameAtIndex(device(), 0), constant("b"));
    EXPECT_EQ(VellDeviceGetAttributeForKeyAsString(device(), constant("b")), constant("2"));
    EXPECT_EQ(textOf(VellDeviceGetDisplayName(device())), "The table");
    VellDeviceClearAttributes(device());
    EXPECT_EQ(VellDeviceGetAttributeCount(device()), 0);
    EXPECT_EQ(VellDeviceGetDisplayName(device()), nullptr);
}

TEST_F(RecordTest, ModesAreACopyAndMayBeEmpty) {
    const Owned modes(VellArrayCreate());
    const auto array = static_cast<VellArrayRef>(modes.get());
    VellDeviceSetModes(device(), array);
    EXPECT_EQ(VellArrayGetCount(VellDeviceGetModes(device())), 0);
    VellArrayAppendValue(array, constant("ScanningReflectance"));
    EXPECT_EQ(VellArrayGetCount(VellDeviceGetModes(device())), 0);
    VellDeviceSetModes(device(), array);
    EXPECT_EQ(VellArrayGetCount(VellDeviceGetModes(device())), 1);
}

TEST_F(RecordTest, LentTextOutlivesItsReplacementWhileSomethingIsOnTheStack) {
    static VellDeviceRef record = nullptr;
    record = device();
    static bool checked = false;
    checked = false;
    VellDeviceSetMode(device(), constant("unused"));
    const Owned first(VellStringCreateWithCString("first"));
    VellDeviceSetMode(device(), static_cast<VellStringRef>(first.get()));
    const auto handler = [](void*, VellDeviceCommandRef) {
        const char* lent = VellStringGetCString(VellDeviceGetMode(record));
        std::thread([] {
            const Owned second(VellStringCreateWithCString("second"));
            VellDeviceSetMode(record, static_cast<VellStringRef>(second.get()));
            VellDeviceClearAttributes(record);
        }).join();
        runSomePasses();
        EXPECT_STREQ(lent, "first");
        checked = true;
    };
    VellDeviceCenterRegisterCommandObserver(center(), nullptr, nullptr, handler, 1);
    VellRelease(VellDeviceSendStatusCommand(device()));
    ASSERT_TRUE(runUntil([] { return checked; }));
    EXPECT_EQ(textOf(VellDeviceGetMode(device())), "second");
}

TEST_F(RecordTest, IsForAnyThread) {
    std::atomic<bool> done{false};
    std::thread writer([&] {
        for (int i = 0; i < 2000; ++i) {
            const Owned value(VellStringCreateWithDouble(i));
            VellDeviceSetAttributeForKey(device(), constant("x"), static_cast<VellStringRef>(value.get()));
            VellDeviceSetSerialNumber(device(), static_cast<VellStringRef>(value.get()));
            if (i % 7 == 0)
                VellDeviceClearAttributes(device());
            VellDevicePostStatus(device());
        }
        done = true;
    });
    // The center's thread reads what is lent, and frees what was replaced, between its passes.
    while (!done) {
        for (VellStringRef lent : {VellDeviceGetSerialNumber(device()),
                                   VellDeviceGetAttributeForKeyAsString(device(), constant("x"))})
            EXPECT_GE(VellStringGetDoubleValue(lent), 0);
        pass();
    }
    writer.join();
    EXPECT_EQ(textOf(VellDeviceGetSerialNumber(device())), "1999");
}

} // namespace
