// Every single call that an operation makes of the SDK fails once: with a status, and with an exception.

#include "SweepBench.h"

#include <gmock/gmock.h>

namespace test {
namespace {

using ::testing::HasSubstr;

constexpr int kStatus = 8; // of a call that fails
constexpr int kCode = 10;  // what a client is told of it
constexpr int kWrongNumberOfSamples = 25;
constexpr int kNoInstrument = 35;
constexpr int kException = 14;

std::optional<int> fail(const Hit&) {
    return kStatus;
}

std::optional<int> breakOff(const Hit&) {
    throw TaviSDK::Exception("cable");
}

// A call whose failure is told. Every other failed call is logged at most, and the answer is 0.
struct Told {
    const char* call; // or its beginning
    int code = kCode;
    int occurrence = 0; // which of them; 0: each
};

int codeFor(const std::vector<Told>& told, const Hit& hit) {
    for (const Told& call : told)
        if (hit.is(call.call) && (call.occurrence == 0 || call.occurrence == hit.occurrence))
            return call.code;
    return 0;
}

// `rows` answers without a failure when `code` is 0; else those that were given before, and one with the
// code.
void expectAnswers(const std::vector<Post>& answers, std::size_t rows, const Hit& hit, int code,
                   const std::string& reason) {
    const std::size_t good = code == 0 ? rows : hit.answered;
    ASSERT_EQ(answers.size(), code == 0 ? good : good + 1);
    for (std::size_t index = 0; index < good; ++index)
        EXPECT_EQ(answers[index].code, 0) << "answer " << index;
    if (code != 0) {
        EXPECT_EQ(answers.back().code, code);
        EXPECT_THAT(answers.back().message, HasSubstr(reason));
        EXPECT_FALSE(answers.back().hasMeasurements);
    }
}

class FaultSweep : public SweepBench {
protected:
    // `failed` and `broken` check what an operation did whose call failed or broke off.
    void sweepFaults(const Operation& operation, const Check& failed, const Check& broken) {
        sweep(operation, "failing", fail, failed);
        if (!HasFailure())
            sweep(operation, "throwing", breakOff, broken);
    }
};

// --- Commands

struct CommandCase {
    const char* label;
    const char* command;
    std::map<std::string, std::string> arguments;
    std::vector<Told> told;
    bool sendsHome = false;
    const char* mode = "ScanningReflectance";
};

void PrintTo(const CommandCase& given, std::ostream* out) {
    *out << given.label;
}

class CommandFaults : public FaultSweep, public ::testing::WithParamInterface<CommandCase> {};

TEST_P(CommandFaults, AnswerOnceWithTheRightCode) {
    const CommandCase& given = GetParam();
    const Operation operation{
        .label = given.label, .command = given.command, .arguments = given.arguments, .prepare = [&] {
            ask("SetMode", {{"Mode", given.mode}});
        }};
    sweepFaults(
        operation,
        [&](const Hit& hit, const std::vector<Post>& answers) {
            expectAnswers(answers, 1, hit, codeFor(given.told, hit), "answers 8");
            if (given.sendsHome)
                expectHeadAtHome();
        },
        [&](const Hit& hit, const std::vector<Post>& answers) {
            expectAnswers(answers, 1, hit, hit.isInAttributePass() ? 0 : kException, "cable");
            if (given.sendsHome)
                expectHeadAtHome();
        });
}

INSTANTIATE_TEST_SUITE_P(
    Every, CommandFaults,
    ::testing::Values(
        CommandCase{"SetMode",
                    "SetMode",
                    {{"Mode", "SingleReflectance"}},
                    {{"Tavi_SetOption MeasurementMode=SingleReflectance"},
                     {"Tavi_SetOption TaviTHoldPosition=no", kCode, 2}}},
        CommandCase{"SetModeScanning",
                    "SetMode",
                    {{"Mode", "ScanningReflectance"}},
                    {{"Tavi_SetOption MeasurementMode=ScanningReflectance"},
                     {"Tavi_SetOption Recognition=yes"},
                     {"Tavi_SetOption TaviTMoveSpeed=400"},
                     {"Tavi_SetOption TaviTHoldPosition=no", kCode, 2}},
                    false,
                    "SingleReflectance"},
        CommandCase{
            "SetOption", "SetAttribute", {{"key", "Beep"}, {"value", "no"}}, {{"Tavi_SetOption Beep=no"}}},
        CommandCase{"LowResolution", "SetAttribute", {{"key", "LowResolutionScan"}, {"value", "no"}}, {}},
        CommandCase{"Move", "SetDevicePosition", {{"x", "10"}, {"y", "10"}}, {{"Tavi_SetPosition"}}},
        CommandCase{"Position", "GetDevicePosition", {}, {{"Tavi_GetPosition"}}},
        CommandCase{"GoHome", "GoHome", {}, {{"Tavi_GoToHomePosition"}}, true},
        CommandCase{"Cancel", "CancelMeasure", {}, {}, true}, CommandCase{"Reset", "__RESET__", {}, {}, true},
        CommandCase{"MeasurePosition",
                    "Measure",
                    {},
                    {{"Tavi_SetOption TaviTIsVisorCoordinate=yes"}, {"Tavi_GetPosition"}},
                    false,
                    "SingleReflectance"}),
    [](const auto& given) { return std::string(given.param.label); });

TEST_F(FaultSweep, Calibration) {
    const std::vector<Told> told{{"Tavi_GetOption TaviTTaviSerialNumber", kNoInstrument, 1},
                                 {"Tavi_SetOption MeasurementMode=ScanningReflectance"},
                                 {"Tavi_SetOption Recognition=yes"},
                                 {"Tavi_SetOption TaviTMoveSpeed=400"},
                                 {"Tavi_SetOption TaviTHoldPosition=no", kCode, 2},
                                 {"Tavi_Calibrate"}};
    const auto expectCalibrated = [&](bool calibrated) {
        EXPECT_EQ(driver->device()->calibrationStatus(), calibrated ? 1 : 0);
        EXPECT_STREQ(driver->device()->mode(), "SingleReflectance");
    };
    sweepFaults(
        Operation{.label = "Calibrate",
                  .command = "Calibrate",
                  .prepare =
                      [&] {
                          ask("ClearCalibration");
                          ask("SetMode", {{"Mode", "SingleReflectance"}});
                      }},
        [&](const Hit& hit, const std::vector<Post>& answers) {
            const int code = codeFor(told, hit);
            expectAnswers(answers, 1, hit, code, "answers 8");
            // A pass that reads no serial number finds no instrument.
            expectCalibrated(code == 0 && !hit.is("Tavi_GetOption TaviTTaviSerialNumber"));
            if (code != 0 && code != kNoInstrument)
                expectHeadAtHome(); // it is not parked elsewhere
        },
        [&](const Hit& hit, const std::vector<Post>& answers) {
            const bool inPass = hit.isInAttributePass() &&
                                !(hit.is("Tavi_GetOption TaviTTaviSerialNumber") && hit.occurrence == 1);
            expectAnswers(answers, 1, hit, inPass ? 0 : kException, "cable");
            expectCalibrated(inPass);
        });
}

// --- Measurements

// What a failed call comes to. Strips are tried again in other ways, and then the row is read by spots.
int codeOfScan(const Hit& hit, int spotsPerPatch) {
    if (hit.is("Tavi_SetOption MeasurementMode=SingleReflectance"))
        return kWrongNumberOfSamples; // there is none: the instrument stays where it reads no spots
    if (hit.spot == 0)
        return 0;
    if (hit.is("Tavi_GetNumberOfAvailableSamples"))
        return kWrongNumberOfSamples;
    if (hit.is("Tavi_SetPosition") || hit.is("Tavi_TriggerMeasurement")) // no sample yet, or that of the
        return (hit.spot - 1) % spotsPerPatch == 0 ? kWrongNumberOfSamples : kCode; // patch's last spot
    return hit.is("Tavi_GetSpectrum") || hit.is("Tavi_GetTriStimulus") ? kCode : 0;
}

class ScanFaults : public FaultSweep, public ::testing::WithParamInterface<ScanCase> {};

TEST_P(ScanFaults, AnswerRowsAndThenTheRightCode) {
    const ScanCase& given = GetParam();
    chart = given.chart;
    place(chart);
    const Operation operation = given.operation();
    const auto expect = [&](const Hit& hit, const std::vector<Post>& answers, int code,
                            const std::string& reason) {
        expectAnswers(answers, given.answers(), hit, code, reason);
        if (given.endsAtHome() || code != 0)
            expectHeadAtHome();
        else
            EXPECT_FALSE(headWasSentHome());
    };
    sweepFaults(
        operation,
        [&](const Hit& hit, const std::vector<Post>& answers) {
            const bool keepsMode = hit.is("Tavi_SetOption MeasurementMode=");
            expect(hit, answers, codeOfScan(hit, std::max(given.spots, 1)), keepsMode ? "" : "answers 8");
        },
        [&](const Hit& hit, const std::vector<Post>& answers) { expect(hit, answers, kException, "cable"); });
}

INSTANTIATE_TEST_SUITE_P(
    Every, ScanFaults,
    ::testing::Values(
        ScanCase{"Strips", {.rows = 2, .columns = 3, .lastRowColumns = 2}},
        ScanCase{"Spots", {.rows = 2, .columns = 2}, -1, 2},
        ScanCase{"StripsThenSpots", {.rows = 2, .columns = 2, .equalNeighbours = true}},
        ScanCase{"FirstRowHandedBack", {.rows = 2, .columns = 2}, -2, 1},
        ScanCase{"FirstRow", {.rows = 3, .columns = 2}, 0},
        ScanCase{"MiddleRow", {.rows = 3, .columns = 2}, 1},
        ScanCase{"LastRow", {.rows = 3, .columns = 3, .lastRowColumns = 2}, 2},
        ScanCase{"MiddleRowStripsThenSpots", {.rows = 3, .columns = 2, .equalNeighbours = true}, 1},
        ScanCase{"LastRowStripsThenSpots", {.rows = 2, .columns = 2, .equalNeighbours = true}, 1}),
    [](const auto& given) { return std::string(given.param.label); });

// --- Without a command

// What clients see of the instrument.
std::map<std::string, std::string> recordOf(BenchDriver& driver) {
    std::map<std::string, std::string> record{{"mode", driver.device()->mode()},
                                              {"serial number", driver.device()->serialNumber()}};
    for (const char* const key : {"IlluminationMode", "LowResolutionScan", "Beep", "TaviProSerialNumber",
                                  "TaviTMoveSpeed", "TaviTScanDelay", "TaviTScanSpeed", "TaviTHoldPosition",
                                  "TaviTIsVisorCoordinate", "IntegrationTime"})
        record[key] = driver.device()->attributeForKey(key);
    return record;
}

TEST_F(FaultSweep, Poll) {
    std::map<std::string, std::string> record;
    const auto expectHealed = [&](bool calibrated) {
        EXPECT_TRUE(posts().empty());
        EXPECT_FALSE(headWasMoved());
        EXPECT_EQ(driver->device()->calibrationStatus(), calibrated ? 1 : 0);
        driver->didPoll();
        EXPECT_EQ(recordOf(*driver), record);
    };
    sweepFaults(
        Operation{.label = "poll",
                  .act = [&] { driver->didPoll(); },
                  .prepare =
                      [&] {
                          driver->didPoll();
                          record = recordOf(*driver);
                      }},
        [&](const Hit& hit, const std::vector<Post>&) {
            expectHealed(!hit.is("Tavi_GetOption TaviTTaviSerialNumber"));
        },
        [&](const Hit&, const std::vector<Post>&) { expectHealed(true); });
}

TEST_F(FaultSweep, Connect) {
    const std::vector<Told> told{{"Tavi_IsTableConnected"}, {"Tavi_GetOption TaviTHalcyDeviceIdentifier"}};
    const auto expectConnected = [&](bool connected) {
        EXPECT_EQ(driver->isConnected(), connected);
        EXPECT_EQ(driver->IsDying(), !connected);
        EXPECT_EQ(driver->isPolling(), connected);
        EXPECT_EQ(driver->exitCode(), connected ? 0 : VellDevice::kExitForRestart);
        if (connected) {
            expectHeadAtHome();
            EXPECT_EQ(driver->device()->calibrationStatus(), 0);
        }
    };
    sweepFaults(
        connecting(),
        [&](const Hit& hit, const std::vector<Post>&) { expectConnected(codeFor(told, hit) == 0); },
        [&](const Hit& hit, const std::vector<Post>&) {
            // Before the pass the same options are read for the record.
            const bool inPass =
                hit.isInAttributePass() && !hit.is("Tavi_GetOption TaviTHalcyDeviceIdentifier") &&
                (hit.occurrence == 2 || (!hit.is("Tavi_GetOption TaviTSerialNumber") &&
                                         !hit.is("Tavi_GetOption AvailableMeasurementModes")));
            expectConnected(inPass);
        });
}

TEST_F(FaultSweep, Disconnect) {
    const auto expectEnded = [&](const Hit&, const std::vector<Post>&) {
        EXPECT_TRUE(driver->IsDying());
        EXPECT_EQ(driver->exitCode(), 0);
        expectEmptyRecord();
    };
    sweepFaults(Operation{.label = "disconnect", .act = [&] { removeHardware(); }}, expectEnded, expectEnded);
}

} // namespace
} // namespace test
