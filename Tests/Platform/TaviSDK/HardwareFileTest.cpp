#include "Bench.h"

#include <plist/plist.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <memory>
#include <thread>

namespace {

using namespace std::chrono_literals;

std::atomic<int> presses{0};

void onPress(Tavi_DeviceMessage, const char*) {
    ++presses;
}

// The instrument as another program sets it up: through the file that $TAVI_TABLE names.
class HardwareFileTest : public Bench {
protected:
    ~HardwareFileTest() override { ::unsetenv("TAVI_TABLE"); }

    std::string device(const std::string& simulation, bool hasSpectrophotometer = true) const {
        return std::string(
                   "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\"><dict>"
                   "<key>Path</key><string>/table/7</string><key>VendorID</key><integer>2417</integer>"
                   "<key>Siblings</key><array>") +
               (hasSpectrophotometer ? "<dict><key>VendorID</key><integer>2417</integer><key>ProductID</key>"
                                       "<integer>8192</integer></dict>"
                                     : "<dict><key>VendorID</key><integer>2417</integer></dict>") +
               "</array><key>Simulation</key><dict><key>TimeScale</key><integer>0</integer>" + simulation +
               "</dict></dict></plist>\n";
    }
    void write(const std::string& text) {
        std::filesystem::create_directories(path().parent_path());
        std::ofstream(path().string() + ".new", std::ios::binary) << text;
        std::filesystem::rename(path().string() + ".new", path());
    }
    std::filesystem::path path() const { return mFolder / "hardware" / "table.plist"; }

    void switchOn() {
        ::setenv("TAVI_TABLE", path().c_str(), 1);
        TaviSDK::powerCycle();
    }

    template <typename Condition>
    static bool comesTrue(const Condition& condition) {
        for (const auto end = std::chrono::steady_clock::now() + 5s; std::chrono::steady_clock::now() < end;
             std::this_thread::sleep_for(1ms)) {
            if (condition()) {
                return true;
            }
        }
        return false;
    }
};

TEST_F(HardwareFileTest, isReadBeforeTheFirstCallAndFollowedAfterwards) {
    const Color::ChartLayout layout = straightChart(1, 3);
    lay(layout);
    std::filesystem::create_directories(path().parent_path());
    std::filesystem::copy_file(mSimulation.chart, path().parent_path() / "chart.txt");
    write(device("<key>Chart</key><string>chart.txt</string><key>SerialNumber</key><string>SN 5</string>"));
    switchOn();
    EXPECT_EQ(Tavi_IsTableConnected(), 0);
    EXPECT_EQ(option("TaviTHalcyDeviceIdentifier"), "/table/7");
    EXPECT_EQ(option("TaviTSerialNumber"), "SN 5");
    EXPECT_EQ(TaviSDK::simulation().timeScale, 0.0);
    calibrate();
    ASSERT_EQ(Tavi_Scan(40, 30, 60, 30), 0);
    ASSERT_EQ(Tavi_GetNumberOfAvailableSamples(), 3);
    EXPECT_EQ(sample(1), expected(layout, 0, 1));

    // Lifted off, put back.
    write(device("", false));
    EXPECT_TRUE(comesTrue([] { return Tavi_IsTableConnected() == 100; }));
    write(device("<key>Identifier</key><string>other</string>"));
    EXPECT_TRUE(comesTrue([] { return Tavi_IsTableConnected() == 0; }));
    EXPECT_EQ(option("TaviTHalcyDeviceIdentifier"), "other");

    // Gone and back, with its folder too.
    std::filesystem::remove_all(path().parent_path());
    EXPECT_TRUE(comesTrue([] { return Tavi_IsTableConnected() == 1; }));
    write(device(""));
    EXPECT_TRUE(comesTrue([] { return Tavi_IsTableConnected() == 0; }));
    write(device("<key>Table</key><false/>"));
    EXPECT_TRUE(comesTrue([] { return Tavi_IsTableConnected() == 1; }));
}

TEST_F(HardwareFileTest, whatCannotBeReadWholeChangesNothing) {
    write(device("<key>SerialNumber</key><string>A</string>"));
    switchOn();
    for (const std::string& text : {std::string(), std::string("bplist00garbage"), std::string("<plist>"),
                                    device("").substr(0, 150), std::string("\0\1\2", 3)}) {
        write(text);
        std::this_thread::sleep_for(10ms);
        EXPECT_EQ(option("TaviTSerialNumber"), "A");
    }
    // A few hundred bytes whose shared parts would unfold to millions of texts.
    std::string doubling("bplist00");
    std::string offsets;
    const auto add = [&](const std::string& object) {
        offsets += static_cast<char>(doubling.size());
        doubling += object;
    };
    add("\xd3\1\3\4\2\5\7");
    add("\x54Path");
    add("\x51p");
    add("\x5aSimulation");
    add("\x51x");
    add("\xd1\6\2");
    add("\x5cSerialNumber");
    for (char next = 8; next < 29; ++next)
        add(std::string("\xa2") + next + next);
    add("\x51y");
    const auto table = static_cast<char>(doubling.size());
    doubling += offsets + std::string(6, '\0') + "\1\1" + std::string(7, '\0') +
                static_cast<char>(offsets.size()) + std::string(15, '\0') + table;
    write(doubling);
    std::this_thread::sleep_for(10ms);
    EXPECT_EQ(option("TaviTSerialNumber"), "A");
    // Binary property lists are as good as text; values of the wrong type count as absent.
    plist_t root = nullptr;
    const std::string text = device("<key>SerialNumber</key><string>B</string><key>Noise</key><array/>"
                                    "<key>Presses</key><real>2.5</real><key>Chart</key><integer>1</integer>");
    plist_from_memory(text.data(), static_cast<std::uint32_t>(text.size()), &root);
    char* binary = nullptr;
    std::uint32_t length = 0;
    plist_to_bin(root, &binary, &length);
    write(std::string(binary, length));
    std::free(binary);
    plist_free(root);
    EXPECT_TRUE(comesTrue([] { return option("TaviTSerialNumber") == "B"; }));
    EXPECT_EQ(TaviSDK::simulation().presses, 2);
    EXPECT_EQ(TaviSDK::simulation().noise, 0.0);
}

TEST_F(HardwareFileTest, onlyPressesThatComeWhileSomebodyListensAreReported) {
    presses = 0;
    write(device("<key>Presses</key><integer>4</integer>"));
    switchOn();
    Tavi_RegisterDeviceMessageHandler(onPress);
    write(device("<key>Presses</key><integer>5</integer>"));
    EXPECT_TRUE(comesTrue([] { return presses == 1; }));
    std::filesystem::remove(path());
    EXPECT_TRUE(comesTrue([] { return Tavi_IsTableConnected() == 1; }));
    write(device("<key>Presses</key><integer>5</integer>"));
    EXPECT_TRUE(comesTrue([] { return Tavi_IsTableConnected() == 0; }));
    write(device("<key>Presses</key><integer>6</integer>"));
    EXPECT_TRUE(comesTrue([] { return presses == 2; }));
    std::this_thread::sleep_for(10ms);
    EXPECT_EQ(presses, 2);
}

TEST_F(HardwareFileTest, faultsAreCountedFromTheChangeOfTheirSetting) {
    write(device("<key>Fault</key><string>Calibrate:2:6</string>"));
    switchOn();
    EXPECT_EQ(Tavi_Calibrate(), 0);
    write(device("<key>Fault</key><string>Calibrate:2:6</string><key>SerialNumber</key><string>C</string>"));
    ASSERT_TRUE(comesTrue([] { return option("TaviTSerialNumber") == "C"; }));
    EXPECT_EQ(Tavi_Calibrate(), 6);
    EXPECT_EQ(Tavi_Calibrate(), 0);
}

} // namespace
