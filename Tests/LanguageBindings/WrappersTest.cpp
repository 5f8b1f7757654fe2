#include "DeviceCenter.h"
#include "Number.h"
#include "Response.h"

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <map>
#include <memory>

namespace {

// References that wrappers took and have not given back.
std::map<void*, int> gHeld;
bool gCounting = false;

} // namespace

extern "C" VellObjectRef VellRetain(VellObjectRef object) {
    static auto* const real = reinterpret_cast<decltype(VellRetain)*>(dlsym(RTLD_NEXT, "VellRetain"));
    if (gCounting && object != nullptr)
        ++gHeld[object];
    return real(object);
}

extern "C" void VellRelease(VellObjectRef object) {
    static auto* const real = reinterpret_cast<decltype(VellRelease)*>(dlsym(RTLD_NEXT, "VellRelease"));
    if (gCounting && object != nullptr)
        --gHeld[object];
    real(object);
}

namespace test {
namespace {

using namespace VellDevice;

// Watches one handle: the sum of what was retained and released.
class Balance {
public:
    explicit Balance(void* handle) : mHandle(handle) {
        gHeld.clear();
        gCounting = true;
    }
    ~Balance() { gCounting = false; }
    int held() const { return gHeld[mHandle]; }

private:
    void* mHandle;
};

TEST(Wrappers, GiveBackExactlyWhatTheyHold) {
    const VellStringRef handle = VellStringCreateWithCString("text");
    const VellStringRef other = VellStringCreateWithCString("other");
    {
        const Balance balance(handle);
        {
            Object lent(handle, false);
            EXPECT_EQ(balance.held(), 1);
            const Object copy(lent);
            EXPECT_EQ(balance.held(), 2);
            Object assigned(other, false);
            assigned = lent;
            EXPECT_EQ(balance.held(), 3);
            assigned = *&assigned;
            EXPECT_EQ(balance.held(), 3);
            assigned = Object(nullptr, false);
            EXPECT_EQ(balance.held(), 2);
        }
        EXPECT_EQ(balance.held(), 0);
        VellRetain(handle);
        {
            Object adopting(handle, true); // the reference just taken is its own now
            EXPECT_EQ(balance.held(), 2);
        }
        EXPECT_EQ(balance.held(), 0);
    }
    VellRelease(handle);
    VellRelease(other);
}

TEST(Wrappers, OutParametersAndCopies) {
    Command command("Measure");
    command.setArgumentForKey("7", "Rows");
    const MutableResponse response(command);
    const std::unique_ptr<Command> copy(command.copy());
    EXPECT_NE(copy->objectPointer(), command.objectPointer());
    EXPECT_STREQ(copy->argumentForKey("rows"), "7");
    copy->setArgumentForKey("8", "Rows");
    EXPECT_STREQ(command.argumentForKey("Rows"), "7");

    Command answered(nullptr, false);
    response.command(answered);
    EXPECT_STREQ(answered.name(), "Measure");
    EXPECT_STREQ(Response(nullptr, false).message(), "");
    Response(nullptr, false).command(answered);
    EXPECT_EQ(answered.objectPointer(), nullptr);
    EXPECT_STREQ(answered.name(), "");
    EXPECT_STREQ(answered.argumentForKey("x"), "");
    MeasurementSet set(false);
    response.measurementSet(set);
    EXPECT_EQ(set.objectPointer(), nullptr);
    EXPECT_EQ(set.numberOfMeasurements(), 0U);
}

TEST(Wrappers, DeviceNamesOfCommands) {
    Command command("Status");
    EXPECT_STREQ(command.deviceName(), "");
    command.setArgumentForKey("Type", "DeviceType");
    EXPECT_STREQ(command.deviceName(), "Type");
    command.setArgumentForKey("", "Device");
    EXPECT_STREQ(command.deviceName(), "Type");
    command.setDeviceName("Name");
    EXPECT_STREQ(command.deviceName(), "Name");
    EXPECT_STREQ(
        textOf(VellDeviceCommandGetDeviceName(static_cast<VellDeviceCommandRef>(command.objectPointer()))),
        "Name");
    EXPECT_EQ(MutableResponse(command).sourceDeviceName(), "Name");
}

TEST(Wrappers, Data) {
    char bytes[] = "abc";
    std::unique_ptr<VellDevice::Data> data(Data::createDataWithBytes(bytes, 3));
    ASSERT_NE(data, nullptr);
    data->appendBytes("de", 2);
    EXPECT_EQ(std::string(static_cast<char*>(data->bytes()), static_cast<std::size_t>(data->length())),
              "abcde");
    EXPECT_EQ(std::unique_ptr<VellDevice::Data>(Data::createDataWithBytes(bytes, -1)), nullptr);
    EXPECT_EQ(Data("/does/not/exist").length(), 0);
    EXPECT_EQ(Data::mappedDataWithFilename("/does/not/exist").objectPointer(), nullptr);
}

TEST(Wrappers, ColorsKeepNumbersAndOrder) {
    ColorRepresentation color;
    const std::vector<double> numbers{0.1, -1e-300, 1e300, 1.0 / 3, 0};
    color.setValues(numbers);
    std::vector<double> read{42};
    color.values(read);
    EXPECT_EQ(read, (std::vector<double>{42, 0.1, -1e-300, 1e300, 1.0 / 3, 0}));
    const float floats[] = {0.1F, 2.5F};
    color.setValues(floats, 2);
    read.clear();
    color.values(read);
    EXPECT_EQ(read, (std::vector<double>{static_cast<double>(0.1F), 2.5}));
    color.setValues(floats, 0);
    read.clear();
    color.values(read);
    EXPECT_TRUE(read.empty());

    color.setColorSpace(ColorSpaceLab);
    color.setAttributeForKey("1", "b");
    color.setAttributeForKey("2", "a");
    EXPECT_EQ(color.numberOfAttributes(), 2U);
    EXPECT_STREQ(color.attributeNameAtIndex(0), "b");
    EXPECT_STREQ(color.attributeNameAtIndex(7), "");
    EXPECT_STREQ(color.attributeForKey("c"), "");

    Measurement measurement;
    measurement.addColorRepresentation(color);
    MutableMeasurementSet set;
    set.addMeasurement(measurement);
    Measurement found;
    set.measurementAtIndex(0, found);
    ColorRepresentation lab;
    found.colorRepsentationForColorSpace("Lab", lab);
    EXPECT_STREQ(lab.attributeForKey("a"), "2");
    found.colorRepsentationForColorSpace("XYZ", lab);
    EXPECT_EQ(lab.objectPointer(), nullptr);
}

TEST(Wrappers, Records) {
    MutableDevice record;
    const auto handle = static_cast<VellDeviceRef>(record.objectPointer());
    EXPECT_EQ(VellDeviceGetIsProxy(handle), 0);
    EXPECT_EQ(VellDeviceGetEnabled(handle) + VellDeviceGetAvailable(handle) + VellDeviceGetConnected(handle),
              3);
    record.setLockHolder("77");
    EXPECT_STREQ(record.lockHolder(), "77");
    EXPECT_TRUE(record.isLocked());
    record.setLockHolder("");
    EXPECT_STREQ(record.lockHolder(), "");
    EXPECT_FALSE(record.isLocked());
    record.setModes({"A", "B"});
    std::vector<std::string> modes{"before"};
    record.modes(modes);
    EXPECT_EQ(modes, (std::vector<std::string>{"before", "A", "B"}));
    record.setAttributeForKey("value", "key");
    EXPECT_STREQ(record.attributeForKey("key"), "value");
    record.clearAttributes();
    EXPECT_STREQ(record.attributeForKey("key"), "");
    record.clearForDeparture();
    EXPECT_EQ(VellDeviceGetAvailable(handle) + VellDeviceGetConnected(handle), 0);
}

class DeviceEvents : public IDeviceObserver {
public:
    void deviceEvent1(Device*) override { seen += '1'; }
    void deviceEvent2(Device*) override { seen += '2'; }
    void deviceEvent3(Device*) override { seen += '3'; }
    std::string seen;
};

TEST(Wrappers, DeviceCallbackKnowsThreeEventsAndKnownDevices) {
    MutableDevice record;
    record.setName("a device that the service does not know");
    DeviceEvents events;
    const auto handle = static_cast<VellDeviceRef>(record.objectPointer());
    __VellDeviceCenterDeviceCallback(static_cast<IDeviceObserver*>(&events), handle, 1);
    __VellDeviceCenterDeviceCallback(static_cast<IDeviceObserver*>(&events), nullptr, 1);
    EXPECT_EQ(events.seen, "");
    EXPECT_EQ(DeviceCenter::sharedDeviceCenter()->deviceByName("nobody"), nullptr);
}

} // namespace
} // namespace test
