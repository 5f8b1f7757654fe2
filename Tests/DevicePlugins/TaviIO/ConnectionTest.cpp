#include "DriverBench.h"

#include <gmock/gmock.h>

namespace test {
namespace {

using ::testing::ElementsAre;

class Connection : public DriverBench {};

std::vector<std::string> modesOf(BenchDriver& driver) {
    std::vector<std::string> modes;
    driver.device()->modes(modes);
    return modes;
}

TEST_F(Connection, FillsTheRecord) {
    connect();
    VellDevice::MutableDevice& record = *driver->device();
    EXPECT_THAT(modesOf(*driver), ElementsAre("ScanningReflectance", "SingleReflectance"));
    EXPECT_STREQ(record.mode(), "SingleReflectance");
    EXPECT_EQ(record.calibrationStatus(), 0);
    EXPECT_FALSE(record.softwareMeasurementAvailable());
    EXPECT_STREQ(record.serialNumber(), TaviSDK::simulation().serialNumber.c_str());
    EXPECT_STREQ(record.attributeForKey("DevicePath"), kDevicePath);
    EXPECT_STREQ(record.attributeForKey("AutoCalibratesOnButtonPress"), "false");
    EXPECT_STREQ(record.attributeForKey("IntegrationTime"), Tavi_GetOption("IntegrationTime"));
    EXPECT_STRNE(record.attributeForKey("TaviProSerialNumber"), "");
    EXPECT_STREQ(record.serviceVersion(), "7.8.9");
    EXPECT_TRUE(scratch.logged("mUsedSDKDeviceName: TaviTTaviTable1\n"));
}

TEST_F(Connection, GoesOnWithoutSpectrophotometer) {
    TaviSDK::Simulation simulation = TaviSDK::simulation();
    simulation.spectrophotometer = false;
    TaviSDK::setSimulation(simulation);
    connect(false);
    EXPECT_TRUE(modesOf(*driver).empty());
    EXPECT_EQ(ask("Calibrate").code, 35);
    EXPECT_EQ(ask("SetMode", {{"Mode", "SingleReflectance"}}).code, 35);
    EXPECT_EQ(ask("SetDevicePosition", {{"x", "20"}, {"y", "30"}}).code, 0);
    EXPECT_EQ(ask("GetDevicePosition").message, "20.000000,30.000000");
}

TEST_F(Connection, FailsForATableThatIsNotOurs) {
    TaviSDK::Simulation simulation = TaviSDK::simulation();
    simulation.identifier = std::string(kDevicePath) + "2"; // longer than our path
    TaviSDK::setSimulation(simulation);
    EXPECT_EQ(driver->connect(), VellDevice::kConnectFailed);
    simulation.identifier = "ioservice:/virtual"; // the beginning, in other letters
    TaviSDK::setSimulation(simulation);
    EXPECT_EQ(driver->connect(), VellDevice::kConnected);
    simulation.table = false;
    TaviSDK::setSimulation(simulation);
    EXPECT_EQ(driver->connect(), VellDevice::kConnectFailed);
}

TEST_F(Connection, ExceptionsDoNotEscape) {
    for (const char* const call : {"Tavi_SetOption", "Tavi_IsTableConnected", "Tavi_GoToHomePosition",
                                   "Tavi_RegisterDeviceMessageHandler"}) {
        calls.interfere([&](int, const TaviSDK::Call& made) -> std::optional<int> {
            if (made.name == call)
                throw TaviSDK::Exception("cable");
            return std::nullopt;
        });
        EXPECT_EQ(driver->connect(), VellDevice::kConnectFailed) << call;
        EXPECT_TRUE(driver->disconnect()) << call;
    }
    EXPECT_TRUE(scratch.logged("TaviIO::connect - Caught exception coming from TaviIO SDK\n"));
}

TEST_F(Connection, DisconnectEmptiesTheRecord) {
    makeReady();
    EXPECT_TRUE(driver->disconnect());
    EXPECT_STREQ(driver->device()->serialNumber(), "");
    EXPECT_STREQ(driver->device()->attributeForKey("Beep"), "");
    EXPECT_EQ(driver->device()->calibrationStatus(), 0);
    EXPECT_FALSE(driver->isPolling());
    EXPECT_TRUE(modesOf(*driver).empty());
}

TEST_F(Connection, SecondMatchLeavesAConnectedDeviceAlone) {
    makeReady();
    const VellHardwareDeviceRef hardware = driver->mHardwareDevice;
    driver->hardwareWasMatched(hardware);
    EXPECT_TRUE(calls.take().empty());
    EXPECT_EQ(driver->device()->calibrationStatus(), 1);
    EXPECT_EQ(driver->mHardwareDevice, hardware);
}

TEST_F(Connection, DyingPluginsIgnoreHardware) {
    ASSERT_TRUE(driver->TestAndSetDying());
    scratch.write(scratch.hardware() / "table.plist", hardwareFile(kDevicePath));
    driver->startWithoutRunLoop();
    passUntil([&] { return scratch.logged("[DevicePlugin::didAttach] - "); });
    EXPECT_EQ(driver->mHardwareDevice, nullptr);
    EXPECT_FALSE(scratch.logged("Trying to open mutex"));
    EXPECT_FALSE(driver->isPolling());
}

TEST(ErrorMapping, CoversEverySdkCode) {
    BenchDriver driver(nullptr, nullptr);
    const std::map<int, int> table{{0, 0},   {1, 3},    {2, 1},    {3, 11},   {4, 14},   {5, 24},
                                   {6, 16},  {7, 25},   {8, 10},   {9, 27},   {10, 9},   {11, 14},
                                   {12, 26}, {100, 35}, {101, 36}, {102, 37}, {103, 38}, {104, 39},
                                   {13, 14}, {99, 14},  {105, 14}, {-1, 14}};
    for (const auto& [sdk, error] : table)
        EXPECT_EQ(driver.sdkError2Error(sdk), error) << sdk;
}

TEST(DeviceInfo, DisturbsNoLivingDevice) {
    const auto before = _thisIOProDevice;
    { const BenchDriver driver(nullptr, nullptr); }
    EXPECT_EQ(_thisIOProDevice, before);
}

} // namespace
} // namespace test
