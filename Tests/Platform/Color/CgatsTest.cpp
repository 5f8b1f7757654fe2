#include <Color/MeasurementFile.h>

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <csignal>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <random>

namespace {

using Color::CgatsError;
using Color::ChartLayout;
using Color::MeasurementCondition;
using Color::Reading;

std::string bandNames() {
    std::string names;
    for (int wavelength = 380; wavelength <= 730; wavelength += 10) {
        names += " SPECTRAL_NM" + std::to_string(wavelength);
    }
    return names;
}

std::string spectrum(const std::string& value) {
    std::string text;
    for (std::size_t i = 0; i < Color::kBands; ++i) {
        text += " " + value;
    }
    return text;
}

// A chart of two rows and three columns whose last row holds the two rightmost patches.
std::string smallChart() {
    return "CGATS.17\n"
           "CHART_ROWS \"2\"\n"
           "CHART_COLUMNS 3\n"
           "CHART_LAST_ROW_COLUMNS \"2\"\n"
           "CHART_TOP_LEFT \"10 20\"\n"
           "CHART_BOTTOM_LEFT \"10 30.5\"\n"
           "CHART_BOTTOM_RIGHT \"30 30.5\"\n"
           "BEGIN_DATA_FORMAT\nSAMPLE_ID ROW COLUMN" +
           bandNames() +
           "\nEND_DATA_FORMAT\nNUMBER_OF_SETS 5\nBEGIN_DATA\n"
           "a 0 0" +
           spectrum("0.1") + "\nb 0 1" + spectrum("0.2") + "\nc 0 2" + spectrum("0.3") + "\nd 1 1" +
           spectrum("0.4") + "\ne 1 2" + spectrum("0.5") + "\nEND_DATA\n";
}

std::string replaced(std::string text, const std::string& what, const std::string& by) {
    const std::size_t at = text.find(what);
    EXPECT_NE(at, text.npos) << what;
    return text.replace(at, what.size(), by);
}

class TemporaryFolder {
public:
    TemporaryFolder() {
        std::string name = (std::filesystem::temp_directory_path() / "color-test-XXXXXX").string();
        mPath = ::mkdtemp(name.data());
    }
    ~TemporaryFolder() { std::filesystem::remove_all(mPath); }
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;
    std::string file(const std::string& name) const { return (mPath / name).string(); }

private:
    std::filesystem::path mPath;
};

TEST(ChartLayoutTest, shortLastRowHoldsTheRightmostColumns) {
    const ChartLayout layout = Color::parseChartLayout(smallChart(), "small.txt");
    EXPECT_EQ(layout.patches.size(), 5U);
    EXPECT_EQ(layout.bottomLeft.y, 30.5);
    EXPECT_EQ(layout.patchAt(0, 2)->sampleId, "c");
    EXPECT_EQ(layout.patchAt(1, 0), nullptr);
    EXPECT_EQ(layout.patchAt(1, 1)->sampleId, "d");
    EXPECT_EQ(layout.patchAt(1, 2)->reflectance[35], 0.5);
    EXPECT_EQ(layout.patchAt(1, 3), nullptr);
    EXPECT_EQ(layout.patchAt(2, 1), nullptr);
    EXPECT_EQ(layout.patchAt(-1, 0), nullptr);
}

TEST(ChartLayoutTest, readsWhatOtherProgramsWrite) {
    // Fields in another order and more of them, comments, tabs, carriage returns, quotes, unknown keywords.
    std::string text =
        "\xEF\xBB\xBF# made elsewhere\r\nCGATS.17\r\n"
        "KEYWORD \"NOBODY_KNOWS\"\r\nNOBODY_KNOWS \"a \"\"b\"\" # c\"\r\n"
        "DESCRIPTOR \"one # patch\" # really\r\n"
        "CHART_ROWS 1\r\nCHART_COLUMNS 1\r\nCHART_LAST_ROW_COLUMNS 0\r\n"
        "CHART_TOP_LEFT \"1e1 +20\"\r\nCHART_BOTTOM_LEFT 10\t20\r\nCHART_BOTTOM_RIGHT \"10  20\"\r\n"
        "NUMBER_OF_FIELDS 41\r\nNUMBER_OF_SETS 1\r\nBEGIN_DATA_FORMAT\r\nCOLUMN\tROW\r\nCMYK_C LAB_L" +
        bandNames() + " SAMPLE_ID\r\nEND_DATA_FORMAT\r\n\r\nBEGIN_DATA\r\n0\t0\t055.0\t7" + spectrum("+.25") +
        " \"say \"\"hi\"\" #1\"  # last\r\nEND_DATA\r\nBEGIN_DATA\r\nmore";
    const ChartLayout layout = Color::parseChartLayout(text, "other.txt");
    EXPECT_EQ(layout.descriptor, "one # patch");
    EXPECT_EQ(layout.topLeft.x, 10.0);
    EXPECT_EQ(layout.topLeft.y, 20.0);
    EXPECT_EQ(layout.patchAt(0, 0)->sampleId, "say \"hi\" #1");
    EXPECT_EQ(layout.patchAt(0, 0)->reflectance[0], 0.25);
    EXPECT_EQ(layout.fieldNames, std::vector<std::string>{"CMYK_C"});
    EXPECT_EQ(layout.patchAt(0, 0)->values, std::vector<Color::Value>({{"055.0", false}}));
    ASSERT_EQ(layout.notes.size(), 1U);
    EXPECT_NE(layout.notes[0].find("line 22"), std::string::npos) << layout.notes[0];
}

// A target as its generator wrote it, without place or spectra.
std::string target(const std::string& firstLine, const std::string& fields, const std::string& sets,
                   int count) {
    return firstLine + "ORIGINATOR \"a generator\"\nBEGIN_DATA_FORMAT\n" + fields +
           "\nEND_DATA_FORMAT\nNUMBER_OF_SETS " + std::to_string(count) + "\nBEGIN_DATA\n" + sets +
           "END_DATA\n";
}

// The same patch, on any line, in any spelling.
TEST(ChartLayoutTest, takesTargetsAsTheyCome) {
    const std::string fields = "SAMPLE_ID RGB_R";
    const std::string sets = "1 0.50\n2 1\n";
    std::string bands;
    std::string names[4];
    for (int wavelength = 380; wavelength <= 730; wavelength += 10) {
        names[0] += " NM" + std::to_string(wavelength);
        names[1] += " SPECTRAL_" + std::to_string(wavelength);
        names[2] += " R_" + std::to_string(wavelength) + "nm";
        names[3] += " spectral_nm" + std::to_string(wavelength);
        bands += " 0.5";
    }
    struct Form {
        std::string text;
        std::string name = "target.txt";
        bool hasSpectra = false;
        std::size_t notes = 0;
    };
    std::vector<Form> forms;
    for (const char* const line :
         {"CGATS.5\n", "CGATS.17\n", "ISO28178\n", "IT8.7/2\n", "IT8.7/4\n", "CTI1\n", "CTI3   \n",
          "A Vendor's target, 2 patches\n", "", "\n\n# by hand\n"}) {
        forms.push_back({target(line, fields, sets, 2)});
    }
    forms.push_back({target("CTI1\n", "SampleID\tRGB_R", "1\t0.50\r\n2\t1\r\n", 2)});
    for (const std::string& name : names) {
        forms.push_back(
            {target("", fields + name, "1 0.50" + bands + "\n2 1" + bands + "\n", 2), "t.txt", true});
    }
    // Percent; then bands that are too few.
    forms.push_back(
        {target("", fields + names[0], "1 0.50" + spectrum("50") + "\n2 1" + spectrum("50") + "\n", 2),
         "t.txt", true, 1});
    forms.push_back({target("", fields + " NM400 NM410", "1 0.50 1 1\n2 1 1 1\n", 2), "t.txt", false, 1});
    // Tables without sets before, and another one behind.
    forms.push_back({target("CTI1\n", "SAMPLE_ID", "", 0) + target("CTI1\n", fields, sets, 2) +
                         target("CTI1\n", "INDEX", "7\n", 1),
                     "t.txt", false, 1});
    forms.push_back({"IT8.7/4,,\nBEGIN_DATA_FORMAT,,\nSAMPLE_ID,RGB_R,SAMPLE_NAME\nEND_DATA_FORMAT\n"
                     "NUMBER_OF_SETS,2\nBEGIN_DATA,,\n1, 0.50,deep blue\n2,1,\nEND_DATA\n",
                     "target.csv"});
    forms.push_back({"SAMPLE_ID,RGB_R\r\n1,0.50\r\n\"2\",1\r\n", "target.CSV"});
    const Color::PlacementParts placement{Color::Grid{2, 3, 1}, Color::Corners{{0, 0}, {0, 10}, {20, 10}}};
    Color::PlacementParts given = placement;
    given.grid = Color::Grid{1, 2, 0};
    for (const Form& form : forms) {
        SCOPED_TRACE(form.text.substr(0, 300));
        const ChartLayout layout = Color::parseChartLayout(form.text, form.name, given);
        ASSERT_EQ(layout.patches.size(), 2U);
        EXPECT_EQ(layout.patchAt(0, 0)->sampleId, "1");
        EXPECT_EQ(layout.patchAt(0, 1)->sampleId, "2");
        EXPECT_EQ(layout.fieldNames[0], "RGB_R");
        EXPECT_EQ(layout.patchAt(0, 0)->values[0].text, "0.50");
        EXPECT_EQ(layout.hasSpectra, form.hasSpectra);
        EXPECT_EQ(layout.patchAt(0, 0)->reflectance[0], form.hasSpectra ? 0.5 : 0.0);
        EXPECT_EQ(layout.notes.size(), form.notes);
    }
    // Sets fill the grid, whose short last row is on the right.
    const std::string four = target("", "SAMPLE_ID", "1\n2\n3\n4\n", 4);
    EXPECT_EQ(Color::parseChartLayout(four, "t.txt", placement).patchAt(1, 2)->sampleId, "4");
    for (const auto& [text, name, reason] :
         {std::tuple(four, "t.txt", "2 patches, but NUMBER_OF_SETS is 4"),
          std::tuple(std::string("SAMPLE_ID,RGB_R\n1,2\n"), "t.txt", "holds no table"),
          std::tuple(std::string("SAMPLE_ID,RGB_R\n1,2\n3,4,5\n"), "t.csv", "t.csv:3: the set has 3 fields"),
          std::tuple(std::string("\xFF\xFE"
                                 "C"),
                     "t.txt", "UTF-16"),
          std::tuple(std::string(), "t.txt", "is empty"),
          std::tuple(std::string("\0\1\2\3", 4), "t.txt", "t.txt:1: the line holds a control character")}) {
        try {
            Color::parseChartLayout(text, name, given);
            ADD_FAILURE() << reason;
        } catch (const CgatsError& error) {
            EXPECT_NE(std::string(error.what()).find(reason), std::string::npos) << error.what();
        }
    }
}

TEST(PlacementTest, isReadFromItsFileAndFromEveryLayout) {
    const TemporaryFolder folder;
    std::ofstream(folder.file("chart.txt")) << smallChart();
    Color::Placement placement = Color::readPlacement(folder.file("chart.txt"));
    EXPECT_EQ(placement.lastRowColumns, 2);
    placement.topLeft = {1.0 / 3, 20.5};
    std::ofstream(folder.file("placed.txt")) << Color::placementText(placement, "the \"small\" one");
    const Color::Placement read = Color::readPlacement(folder.file("placed.txt"));
    EXPECT_EQ(static_cast<Color::Grid>(read), static_cast<Color::Grid>(placement));
    EXPECT_EQ(read.topLeft.x, 1.0 / 3);
    const ChartLayout moved = Color::readChartLayout(folder.file("chart.txt"), {placement, placement});
    EXPECT_EQ(moved.topLeft.y, 20.5);
    EXPECT_NE(problemOf(Color::Placement{placement, {{0, 0}, {10, 10}, {20, 20}}}), "");
}

struct Mistake {
    const char* what;
    const char* by;
    int line;
    const char* reason;
};

TEST(ChartLayoutTest, namesFileLineAndReasonOfWhatMakesNoSense) {
    const Mistake mistakes[] = {
        {"CHART_ROWS \"2\"\n", "", 0, "keyword CHART_ROWS is missing"},
        {"CHART_BOTTOM_LEFT \"10 30.5\"\n", "", 0, "keyword CHART_BOTTOM_LEFT is missing"},
        {"CHART_ROWS \"2\"", "CHART_ROWS \"0\"", 2, "at least 1"},
        {"CHART_COLUMNS 3", "CHART_COLUMNS -3", 3, "at least 1"},
        {"CHART_COLUMNS 3", "CHART_COLUMNS three", 3, "no whole number"},
        {"CHART_COLUMNS 3", "CHART_COLUMNS 3\nCHART_COLUMNS 4", 4, "twice"},
        {"CHART_ROWS \"2\"", "CHART_ROWS \"2000000000\"", 11, "the grid has"},
        {"SAMPLE_ID ROW", "SAMPLE_ID LINE", 0, "field ROW is missing"},
        {"SPECTRAL_NM390", "NM380", 0, "two fields for 380 nm"},
        {"LAST_ROW_COLUMNS \"2\"", "LAST_ROW_COLUMNS \"4\"", 4, "between 0 and"},
        {"\"10 20\"", "\"10\"", 5, "two numbers"},
        {"\"10 20\"", "\"10 inf\"", 5, "two finite numbers"},
        {"\"10 20\"", "\"10 20", 5, "not closed"},
        {"BOTTOM_RIGHT \"30 30.5\"", "BOTTOM_RIGHT \"10 50\"", 7, "one line"},
        {"BOTTOM_RIGHT \"30 30.5\"", "BOTTOM_RIGHT \"10 30.5\"", 7, "one point"},
        {"SETS 5", "SETS 6", 11, "5 patches"},
        {"SAMPLE_ID", "SAMPLE_NAME", 0, "field SAMPLE_ID is missing"},
        {"SPECTRAL_NM380", "ROW", 9, "given twice"},
        {"\na 0 0", "\na 0", 13, "fields instead of"},
        {"\na 0 0", "\na 0 3", 13, "no patch at row 0, column 3"},
        {"\nd 1 1", "\nd 1 0", 16, "no patch at row 1, column 0"},
        {"\nb 0 1", "\nb 0 0", 14, "second patch at row 0, column 0"},
        {"\na 0 0 0.1", "\na 0 0 nan", 13, "no finite number"},
        {"\na 0 0 0.1", "\na 0 0 0,1", 13, "no finite number"},
        {"\na 0 0 0.1", "\na 0 0 1e999", 13, "no finite number"},
        {"\na 0 0 0.1", "\na 0 0 1e30", 13, "no reflectance"},
        {"END_DATA\n", "", 0, "without END_DATA"},
        {"\nEND_DATA_FORMAT", "", 8, "no END_DATA_FORMAT"},
        {"\ne 1 2", "\nEND_DATA\ne 1 2", 17, "there are 4 sets"},
        {"\nEND_DATA\n", "\nf 1 2\nEND_DATA\n", 18, "fields instead of"},
    };
    for (const Mistake& mistake : mistakes) {
        try {
            std::string text = smallChart();
            // The end of the data, not that of the format.
            const std::string what = mistake.what;
            if (what.ends_with("END_DATA\n")) {
                text.replace(text.rfind(what), what.size(), mistake.by);
            } else {
                text = replaced(text, what, mistake.by);
            }
            Color::parseChartLayout(text, "bad.txt");
            ADD_FAILURE() << "taken: " << mistake.by;
        } catch (const CgatsError& error) {
            EXPECT_EQ(error.file(), "bad.txt");
            EXPECT_EQ(error.line(), mistake.line) << error.what();
            EXPECT_NE(error.reason().find(mistake.reason), std::string::npos) << error.what();
        }
    }
    EXPECT_THROW(Color::readChartLayout("/nonexistent/chart.txt"), CgatsError);
    EXPECT_THROW(Color::readChartLayout("/"), CgatsError);
    EXPECT_THROW(Color::parseChartLayout(std::string(100'000, 'x'), "long.txt"), CgatsError);
}

// Bytes that are wrong in any place give an error or a chart that is whole, never anything else.
TEST(ChartLayoutTest, survivesDamage) {
    const std::string good = smallChart();
    std::mt19937 random(7);
    int refused = 0;
    for (int round = 0; round < 3000; ++round) {
        std::string text = good;
        for (unsigned change = random() % 4 + 1; change > 0; --change) {
            const std::size_t at = random() % text.size();
            switch (random() % 3) {
            case 0:
                text[at] = static_cast<char>(random());
                break;
            case 1:
                text.erase(at, random() % 40);
                break;
            default:
                text.insert(at, good.substr(random() % good.size(), random() % 60));
            }
        }
        try {
            const ChartLayout layout = Color::parseChartLayout(text, "damaged.txt");
            for (int row = 0; row < layout.rows; ++row) {
                for (int column = layout.firstColumn(row); column < layout.columns; ++column) {
                    ASSERT_EQ(layout.patchAt(row, column)->column, column);
                    ASSERT_EQ(layout.patchAt(row, column)->row, row);
                }
            }
        } catch (const CgatsError&) {
            ++refused;
        }
    }
    EXPECT_GT(refused, 1000);
}

Reading reading(int row, int column, int spot, std::mt19937& random) {
    Reading result;
    result.row = row;
    result.column = column;
    result.spotIndex = spot;
    // Any float there is, as long as it is finite.
    const auto anyFloat = [&random] {
        for (;;) {
            const float value = std::bit_cast<float>(static_cast<std::uint32_t>(random()));
            if (std::isfinite(value)) {
                return value;
            }
        }
    };
    std::generate(result.lab.begin(), result.lab.end(), anyFloat);
    std::generate(result.spectrum.begin(), result.spectrum.end(), anyFloat);
    return result;
}

TEST(MeasurementFileTest, isWholeAfterEveryRowAndLosesNoBit) {
    const TemporaryFolder folder;
    ChartLayout layout = Color::parseChartLayout(smallChart(), "small.txt");
    layout.patches[4].sampleId = "the \"last\" one";
    layout.fieldNames = {"SAMPLE_NAME", "CMYK_C"};
    for (Color::Patch& patch : layout.patches) {
        patch.values = {{"a \"b\" #", true}, {"007.50", false}};
    }
    std::mt19937 random(1);
    Color::MeasurementFile file(folder.file("out.txt"), layout,
                                Color::MeasurementHeader{MeasurementCondition::M2});
    std::vector<Reading> written;
    EXPECT_TRUE(Color::readMeasurements(folder.file("out.txt")).readings.empty());
    for (int row = 0; row < 2; ++row) {
        std::vector<Reading> line;
        for (int column = layout.firstColumn(row); column < layout.columns; ++column) {
            line.push_back(reading(row, column, 0, random));
            line.push_back(reading(row, column, 1, random));
        }
        file.add(line);
        written.insert(written.end(), line.begin(), line.end());

        const Color::Measurements read = Color::readMeasurements(folder.file("out.txt"));
        EXPECT_EQ(read.condition, "M2");
        EXPECT_EQ(read.damage, "");
        ASSERT_EQ(read.readings.size(), written.size());
        for (std::size_t i = 0; i < written.size(); ++i) {
            EXPECT_EQ(read.readings[i].sampleId, layout.patchAt(written[i].row, written[i].column)->sampleId);
            EXPECT_EQ(read.readings[i].row, written[i].row);
            EXPECT_EQ(read.readings[i].column, written[i].column);
            EXPECT_EQ(read.readings[i].spotIndex, written[i].spotIndex);
            EXPECT_EQ(read.readings[i].lab, written[i].lab);
            EXPECT_EQ(read.readings[i].spectrum, written[i].spectrum);
            EXPECT_EQ(read.readings[i].values, layout.patches[0].values);
        }
    }
    EXPECT_EQ(file.count(), written.size());
}

TEST(MeasurementFileTest, aRowThatFindsNoRoomLeavesTheRowsBefore) {
    const TemporaryFolder folder;
    const std::string path = folder.file("out.txt");
    const ChartLayout layout = Color::parseChartLayout(smallChart(), "small.txt");
    std::mt19937 random(2);
    Color::MeasurementFile file(path, layout, Color::MeasurementHeader());
    file.add(std::array{reading(0, 0, 0, random)});

    // A limit on the size of files stands for a full disk.
    rlimit unlimited{};
    ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &unlimited), 0);
    rlimit limited = unlimited;
    limited.rlim_cur = std::filesystem::file_size(path) + 100;
    const auto before = std::signal(SIGXFSZ, SIG_IGN);
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &limited), 0);
    EXPECT_THROW(file.add(std::array{reading(0, 1, 0, random)}), CgatsError);
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &unlimited), 0);
    std::signal(SIGXFSZ, before);

    EXPECT_EQ(Color::readMeasurements(path).readings.size(), 1U);
    EXPECT_LE(std::filesystem::file_size(path), limited.rlim_cur - 100);
    file.add(std::array{reading(0, 2, 0, random)});
    EXPECT_EQ(Color::readMeasurements(path).readings.back().column, 2);
}

// A file that was cut off anywhere goes back to its whole rows, and grows to what it would have been.
TEST(MeasurementFileTest, goesOnAfterEveryByte) {
    const TemporaryFolder folder;
    const std::string path = folder.file("out.txt");
    const ChartLayout layout = Color::parseChartLayout(smallChart(), "small.txt");
    const Color::MeasurementHeader header;
    std::mt19937 random(3);
    std::vector<Reading> readings;
    for (int row = 0; row < 2; ++row) {
        for (int column = layout.firstColumn(row); column < layout.columns; ++column) {
            readings.push_back(reading(row, column, 0, random));
            readings.push_back(reading(row, column, 1, random));
        }
    }
    const std::string whole = measurementText(layout, header, readings);
    const std::string oneRow = measurementText(layout, header, std::span(readings).first(6));
    // Killed between the row and the count: the count is one row behind.
    const std::string torn = replaced(whole, "SETS 10", "SETS 6 ");
    std::vector<std::string> states = {whole, torn, whole.substr(0, 3000) + std::string(500, '\0')};
    for (std::size_t length = 0; length<whole.size(); length += length + 40> whole.size() ? 1 : 61) {
        states.push_back(whole.substr(0, length));
    }
    std::size_t kept[3] = {};
    for (const std::string& state : states) {
        std::ofstream(path, std::ios::binary) << state;
        const std::vector<Reading> found = Color::recoverReadings(path, layout, header, 2);
        ASSERT_TRUE(found.empty() || found.size() == 6 || found.size() == 10) << found.size();
        ++kept[found.size() / 5];
        std::ofstream(path, std::ios::binary) << measurementText(layout, header, found);
        Color::MeasurementFile file(path, layout, header, found);
        file.add(std::span(readings).subspan(found.size()));
        std::ifstream stream(path, std::ios::binary);
        ASSERT_EQ(std::string(std::istreambuf_iterator<char>(stream), {}), whole) << state.size();
        if (state != whole && state.size() != whole.size() - 1) {
            try {
                EXPECT_NE(Color::parseMeasurements(state, "torn.txt").damage, "") << state.size();
            } catch (const CgatsError&) {
                // Told from a good one.
            }
        }
    }
    EXPECT_GT(kept[1], 30U);
    EXPECT_GT(kept[2], 1U);
    EXPECT_EQ(Color::parseMeasurements(torn, "torn.txt").readings.size(), 10U);
    // Another scan's file.
    for (const auto& [what, by, line] :
         {std::tuple("M0", "M2", 7), std::tuple("\"a\" 0 0", "\"b\" 0 0", 21)}) {
        std::ofstream(path, std::ios::binary) << replaced(whole, what, by);
        try {
            Color::recoverReadings(path, layout, header, 2);
            ADD_FAILURE() << by;
        } catch (const CgatsError& error) {
            EXPECT_EQ(error.line(), line) << error.what();
        }
    }
}

TEST(MeasurementFileTest, reportsWhatCannotBeWritten) {
    const TemporaryFolder folder;
    const ChartLayout layout = Color::parseChartLayout(smallChart(), "small.txt");
    EXPECT_THROW(Color::MeasurementFile(folder.file("no/such/out.txt"), layout, Color::MeasurementHeader()),
                 CgatsError);
    EXPECT_THROW(Color::MeasurementFile("/dev/full", layout, Color::MeasurementHeader()), CgatsError);
}

} // namespace
