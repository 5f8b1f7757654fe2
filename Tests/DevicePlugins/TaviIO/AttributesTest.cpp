#include "DriverBench.h"

#include <gmock/gmock.h>

namespace test {
namespace {

class Attributes : public DriverBench {
protected:
    const char* attribute(const char* key) { return driver->device()->attributeForKey(key); }
    int countInLog(const std::string& line) {
        const std::string log = scratch.log();
        int count = 0;
        for (auto at = log.find(line); at != std::string::npos; at = log.find(line, at + 1))
            ++count;
        return count;
    }
};

TEST_F(Attributes, AnIdlePassChangesNothing) {
    makeReady();
    driver->didPoll();
    clearPosts();
    for (int poll = 0; poll < 3; ++poll)
        EXPECT_FALSE(driver->updateAttributes());
    driver->didPoll();
    EXPECT_EQ(statusPosts(), 0);
}

TEST_F(Attributes, SetAttributeWritesOptionsAndPublishesWhatTheInstrumentMadeOfThem) {
    makeReady();
    EXPECT_EQ(ask("SetAttribute", {{"key", "Beep"}, {"value", "NO"}}).code, 0);
    EXPECT_STREQ(Tavi_GetOption("Beep"), "no");
    EXPECT_STREQ(attribute("Beep"), "no");
    EXPECT_EQ(ask("SetAttribute", {{"Key", "TaviTMoveSpeed"}, {"Value", "250"}}).code, 0)
        << "other letter case";
    EXPECT_STREQ(attribute("TaviTMoveSpeed"), Tavi_GetOption("TaviTMoveSpeed"));

    const Post unknown = ask("SetAttribute", {{"key", "NoSuchOption"}, {"value", "1"}});
    EXPECT_NE(unknown.code, 0);
    EXPECT_EQ(unknown.message, Tavi_GetOption("LastError"));
    EXPECT_NE(unknown.message, "");
}

TEST_F(Attributes, LowResolutionIsTheDriversOwn) {
    makeReady();
    EXPECT_EQ(ask("SetAttribute", {{"key", "LowResolutionScan"}, {"value", "Yes"}}).code, 0);
    EXPECT_STREQ(attribute("LowResolutionScan"), "yes");
    EXPECT_STREQ(Tavi_GetOption("RECOGNITION_LOWEST_LIMIT"), "2.0");
    EXPECT_EQ(ask("SetAttribute", {{"key", "LowResolutionScan"}, {"value", "true"}}).code, 0);
    EXPECT_STREQ(attribute("LowResolutionScan"), "no");
    EXPECT_STREQ(Tavi_GetOption("RECOGNITION_LOWEST_LIMIT"), "0.2");
    for (const std::string& call : calls.take())
        EXPECT_EQ(call.find("LowResolutionScan"), std::string::npos) << call;
}

TEST_F(Attributes, IlluminationFollowsTheFilter) {
    makeReady();
    std::string mode;
    for (const auto& [filter, expected] : {std::pair{"1", "1"}, std::pair{"0", "0"}}) {
        ASSERT_EQ(Tavi_SetOption("PhysicalFilter", filter), 0);
        driver->didPoll();
        EXPECT_STREQ(attribute("IlluminationMode"), expected);
    }
    driver->setTaviIsConnected(false);
    driver->getIlluminationMode(mode);
    EXPECT_EQ(mode, "1");
}

TEST_F(Attributes, InstrumentLiftedOffAndPutBack) {
    makeReady();
    liftSpectrophotometer(true);
    EXPECT_STREQ(driver->device()->mode(), "");
    EXPECT_STREQ(driver->device()->serialNumber(), "");
    EXPECT_STREQ(attribute("TaviProSerialNumber"), "");
    EXPECT_STREQ(attribute("TaviTScanSpeed"), "");
    EXPECT_STREQ(attribute("IntegrationTime"), "0");
    EXPECT_EQ(driver->device()->calibrationStatus(), 0);
    EXPECT_EQ(ask("Calibrate").code, 35);
    EXPECT_EQ(ask("SetMode", {{"Mode", "ScanningReflectance"}}).code, 35);
    EXPECT_EQ(ask("SetDevicePosition", {{"x", "10"}, {"y", "10"}}).code, 0);
    EXPECT_TRUE(driver->updateAttributes()) << "every pass counts as a change while there is no instrument";
    EXPECT_EQ(countInLog("RESETTING TaviT NOW\n"), 1);

    liftSpectrophotometer(false);
    EXPECT_STRNE(driver->device()->mode(), "");
    EXPECT_STRNE(attribute("TaviProSerialNumber"), "");
    EXPECT_EQ(driver->device()->calibrationStatus(), 0) << "it has to be calibrated again";
    driver->didPoll();
    EXPECT_FALSE(driver->updateAttributes());
    expectCleanScan();
}

TEST_F(Attributes, ExceptionsCountAsNoChange) {
    makeReady();
    calls.interfere([](int, const TaviSDK::Call& call) -> std::optional<int> {
        if (call.arguments == "TaviTScanDelay")
            throw TaviSDK::Exception("cable");
        return std::nullopt;
    });
    EXPECT_FALSE(driver->updateAttributes());
    EXPECT_EQ(countInLog("[TaviIO::updateAttributes] - TaviSDK exception\n"), 1);
    calls.interfere({});
    EXPECT_EQ(ask("GoHome").code, 0) << "the SDK lock is free";
}

TEST_F(Attributes, ModeOfTheRecordGoesToTheInstrument) {
    makeReady();
    ASSERT_EQ(Tavi_SetOption("MeasurementMode", "SingleReflectance"), 0); // as a spot read last row leaves it
    EXPECT_TRUE(driver->updateAttributes());
    EXPECT_STREQ(Tavi_GetOption("MeasurementMode"), "ScanningReflectance");
    driver->device()->setMode("");
    EXPECT_TRUE(driver->updateAttributes());
    EXPECT_STREQ(driver->device()->mode(), "ScanningReflectance");
}

TEST_F(Attributes, CalibrationFailuresLeaveNothingBehind) {
    makeReady();
    std::vector<std::string> modes;
    driver->device()->modes(modes);
    calls.interfere([](int, const TaviSDK::Call& call) -> std::optional<int> {
        return call.name == "Tavi_Calibrate" ? std::optional<int>(6) : std::nullopt;
    });
    EXPECT_EQ(ask("Calibrate").code, 16);
    EXPECT_EQ(driver->device()->calibrationStatus(), 0);
    for (const std::string& call : calls.take())
        EXPECT_NE(call, "Tavi_SetPosition 100,150") << "no parking after a failure";

    for (const char* const broken : {"Tavi_GoToHomePosition", "Tavi_Calibrate", "Tavi_SetPosition"}) {
        calls.interfere([&](int, const TaviSDK::Call& call) -> std::optional<int> {
            if (call.name == broken)
                throw TaviSDK::Exception("cable");
            return std::nullopt;
        });
        EXPECT_EQ(ask("Calibrate").code, 14) << broken;
        EXPECT_NE(driver->device()->calibrationStatus(), -1) << broken;
        std::vector<std::string> after;
        driver->device()->modes(after);
        EXPECT_EQ(after, modes) << broken;
        EXPECT_STREQ(driver->device()->mode(), "ScanningReflectance");
        EXPECT_TRUE(driver->isPolling()) << broken;
    }
    expectCleanScan();
}

} // namespace
} // namespace test
