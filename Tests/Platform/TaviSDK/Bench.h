// A virtual instrument set up for a test, and charts to put on its table.
#pragma once

#include <Color/ChartLayout.h>
#include <TaviSDK/TaviSDK.h>
#include <TaviSDK/VirtualInstrument.h>

#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

// Starts every test with an instrument that was just switched on, at no time scale, and a folder of its own.
class Bench : public ::testing::Test {
protected:
    using Spectrum = std::array<float, Color::kBands>;

    Bench() {
        std::string name = (std::filesystem::temp_directory_path() / "tavi-test-XXXXXX").string();
        mFolder = ::mkdtemp(name.data());
        TaviSDK::powerCycle();
        mSimulation.timeScale = 0.0;
        mSimulation.identifier = "bench";
        TaviSDK::setSimulation(mSimulation);
    }
    ~Bench() override {
        TaviSDK::setCallHook(nullptr);
        TaviSDK::powerCycle();
        std::filesystem::remove_all(mFolder);
    }

    std::string file(const std::string& name) const { return (mFolder / name).string(); }

    // A chart whose patches all differ, neighbours clearly so: dark and light turn by turn.
    static Color::ChartLayout chart(int rows, int columns, int lastRowColumns, Color::Point topLeft,
                                    Color::Point across, Color::Point down) {
        Color::ChartLayout layout;
        layout.hasSpectra = true;
        layout.rows = rows;
        layout.columns = columns;
        layout.lastRowColumns = lastRowColumns;
        layout.topLeft = topLeft;
        layout.bottomLeft = {topLeft.x + down.x * (rows - 1), topLeft.y + down.y * (rows - 1)};
        layout.bottomRight = {layout.bottomLeft.x + across.x * (columns - 1),
                              layout.bottomLeft.y + across.y * (columns - 1)};
        for (int row = 0; row < rows; ++row) {
            for (int column = layout.firstColumn(row); column < columns; ++column) {
                Color::Patch patch;
                patch.row = row;
                patch.column = column;
                patch.reflectance.fill(((row + column) % 2 == 0 ? 0.15 : 0.45) +
                                       1e-5 * static_cast<double>(row * columns + column));
                layout.patches.push_back(patch);
            }
        }
        return layout;
    }
    static Color::ChartLayout straightChart(int rows, int columns, int lastRowColumns = 0,
                                            double pitch = 10.0) {
        return chart(rows, columns, lastRowColumns, {40.0, 30.0}, {pitch, 0.0}, {0.0, pitch});
    }

    void lay(const Color::ChartLayout& layout) {
        const std::string path = file("chart" + std::to_string(++mCharts) + ".txt");
        std::ofstream out(path);
        out.precision(17);
        out << "CGATS.17\nCHART_ROWS " << layout.rows << "\nCHART_COLUMNS " << layout.columns
            << "\nCHART_LAST_ROW_COLUMNS " << layout.lastRowColumns << "\nCHART_TOP_LEFT " << layout.topLeft.x
            << ' ' << layout.topLeft.y << "\nCHART_BOTTOM_LEFT " << layout.bottomLeft.x << ' '
            << layout.bottomLeft.y << "\nCHART_BOTTOM_RIGHT " << layout.bottomRight.x << ' '
            << layout.bottomRight.y << "\nBEGIN_DATA_FORMAT\nSAMPLE_ID ROW COLUMN";
        for (std::size_t band = 0; band < Color::kBands; ++band) {
            out << " SPECTRAL_NM" << 380 + 10 * band;
        }
        out << "\nEND_DATA_FORMAT\nNUMBER_OF_SETS " << layout.patches.size() << "\nBEGIN_DATA\n";
        for (const Color::Patch& patch : layout.patches) {
            out << "p " << patch.row << ' ' << patch.column;
            for (const double value : patch.reflectance) {
                out << ' ' << value;
            }
            out << '\n';
        }
        out << "END_DATA\n";
        out.close();
        mSimulation.chart = path;
        ASSERT_EQ(TaviSDK::setSimulation(mSimulation), "");
    }

    void apply() { TaviSDK::setSimulation(mSimulation); }

    static void calibrate() {
        ASSERT_EQ(Tavi_SetOption("MeasurementMode", "ScanningReflectance"), 0);
        ASSERT_EQ(Tavi_Calibrate(), 0);
    }
    static std::string option(const char* key) {
        const char* text = Tavi_GetOption(key);
        return text == nullptr ? "(null)" : text;
    }

    static Spectrum sample(int index) {
        Spectrum result{};
        EXPECT_EQ(Tavi_GetSpectrum(result.data(), index), 0);
        return result;
    }
    static Spectrum expected(const Color::ChartLayout& layout, int row, int column) {
        Spectrum result{};
        for (std::size_t band = 0; band < result.size(); ++band) {
            result[band] = static_cast<float>(layout.patchAt(row, column)->reflectance[band]);
        }
        return result;
    }

    std::filesystem::path mFolder;
    TaviSDK::Simulation mSimulation;
    int mCharts = 0;
};
