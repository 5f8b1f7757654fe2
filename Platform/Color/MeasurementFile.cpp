#include <Color/CgatsReader.h>
#include <Color/CgatsText.h>
#include <Color/Colorimetry.h>
#include <Color/MeasurementFile.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace Color {

namespace {

constexpr std::string_view kBegin = "BEGIN_DATA\n";
constexpr std::string_view kTail = "END_DATA\n";
// The field of the NUMBER_OF_SETS line, wide enough for any count, so that the line can be rewritten in
// place.
constexpr std::size_t kCountWidth = 10;

const char* nameOf(MeasurementCondition condition) {
    return condition == MeasurementCondition::M0 ? "M0" : "M2";
}

// Up to NUMBER_OF_SETS.
std::string headerText(const ChartLayout& layout, const MeasurementHeader& header) {
    std::string text = "CGATS.17\n";
    appendKeyword(text, "ORIGINATOR", layout.originator);
    appendKeyword(text, "DESCRIPTOR", layout.descriptor);
    appendKeyword(text, "ILLUMINATION_NAME", "D50");
    appendKeyword(text, "OBSERVER_ANGLE", "2");
    appendKeyword(text, "KEYWORD", "MEASUREMENT_CONDITION");
    appendKeyword(text, "MEASUREMENT_CONDITION", nameOf(header.condition));
    for (const auto& [keyword, value] :
         {std::pair("CHART_ROWS", layout.rows), std::pair("CHART_COLUMNS", layout.columns),
          std::pair("CHART_LAST_ROW_COLUMNS", layout.lastRowColumns)}) {
        appendKeyword(text, "KEYWORD", keyword);
        appendKeyword(text, keyword, std::to_string(value));
    }
    appendKeyword(text, "KEYWORD", "SPOT_INDEX");
    const std::size_t fields = 7 + layout.fieldNames.size() + kBands + (header.hasXyz ? 3 : 0);
    text +=
        "NUMBER_OF_FIELDS " + std::to_string(fields) + "\nBEGIN_DATA_FORMAT\nSAMPLE_ID ROW COLUMN SPOT_INDEX";
    for (const std::string& name : layout.fieldNames) {
        text += ' ';
        appendValue(text, {name, false});
    }
    text += " LAB_L LAB_A LAB_B";
    for (std::size_t band = 0; band < kBands; ++band) {
        text += " SPECTRAL_NM" + std::to_string(kFirstWavelength + kWavelengthStep * static_cast<int>(band));
    }
    text += header.hasXyz ? " XYZ_X XYZ_Y XYZ_Z" : "";
    return text + "\nEND_DATA_FORMAT\n";
}

std::string countLine(std::size_t sets) {
    std::string count = std::to_string(sets);
    count.resize(std::max(count.size(), kCountWidth), ' ');
    return "NUMBER_OF_SETS " + count + "\n";
}

void appendReading(std::string& text, const Reading& reading, const ChartLayout& layout, bool hasXyz) {
    const auto add = [&text](auto number) {
        text += ' ';
        appendNumber(text, number);
    };
    const Patch* const patch = layout.patchAt(reading.row, reading.column);
    appendQuoted(text, patch != nullptr ? std::string_view(patch->sampleId) : std::string_view());
    add(reading.row);
    add(reading.column);
    add(reading.spotIndex);
    for (std::size_t index = 0; index < layout.fieldNames.size(); ++index) {
        text += ' ';
        appendValue(text, patch != nullptr ? patch->values[index] : Value());
    }
    for (const float value : reading.lab) {
        add(value);
    }
    for (const float value : reading.spectrum) {
        add(value);
    }
    if (hasXyz) {
        const XYZ xyz = xyzFromSpectrum(std::span<const float, kBands>(reading.spectrum));
        add(xyz.x);
        add(xyz.y);
        add(xyz.z);
    }
    text += '\n';
}

} // namespace

std::string measurementText(const ChartLayout& layout, const MeasurementHeader& header,
                            std::span<const Reading> readings) {
    std::string text = headerText(layout, header) + countLine(readings.size());
    text += kBegin;
    for (const Reading& reading : readings) {
        appendReading(text, reading, layout, header.hasXyz);
    }
    return text.append(kTail);
}

MeasurementFile::MeasurementFile(std::string path, const ChartLayout& layout, const MeasurementHeader& header)
    : mPath(std::move(path)),
      mLayout(layout),
      mHeader(header),
      mDescriptor(::open(mPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666)) {
    if (mDescriptor < 0) {
        throw CgatsError(mPath, 0, std::string("cannot be written: ") + std::strerror(errno));
    }
    // The destructor does not run when the constructor throws.
    try {
        const std::string text = measurementText(layout, header, {});
        mTailOffset = text.size() - kTail.size();
        mCountOffset = mTailOffset - kBegin.size() - countLine(0).size();
        write(text, 0);
    } catch (...) {
        struct stat status {};
        if (::fstat(mDescriptor, &status) == 0 && S_ISREG(status.st_mode)) {
            ::unlink(mPath.c_str());
        }
        ::close(mDescriptor);
        throw;
    }
}

MeasurementFile::MeasurementFile(std::string path, const ChartLayout& layout, const MeasurementHeader& header,
                                 std::span<const Reading> soFar)
    : mPath(std::move(path)),
      mLayout(layout),
      mHeader(header),
      mDescriptor(::open(mPath.c_str(), O_WRONLY | O_CLOEXEC)),
      mCountOffset(headerText(layout, header).size()),
      mTailOffset(measurementText(layout, header, soFar).size() - kTail.size()),
      mCount(soFar.size()) {
    if (mDescriptor < 0) {
        throw CgatsError(mPath, 0, std::string("cannot be written: ") + std::strerror(errno));
    }
}

MeasurementFile::~MeasurementFile() {
    ::close(mDescriptor);
}

void MeasurementFile::sync() {
    // Not every kind of file has a disk.
    if (::fsync(mDescriptor) != 0 && errno != EINVAL && errno != EROFS) {
        throw CgatsError(mPath, 0, std::string("cannot be written: ") + std::strerror(errno));
    }
}

void MeasurementFile::add(std::span<const Reading> readings) {
    std::string text;
    for (const Reading& reading : readings) {
        appendReading(text, reading, mLayout, mHeader.hasXyz);
    }
    const std::size_t added = text.size();
    text += kTail;
    const std::size_t countBefore = mCount;
    const std::size_t tailBefore = mTailOffset;
    try {
        write(text, mTailOffset);
        mCount += readings.size();
        mTailOffset += added;
        write(countLine(mCount), mCountOffset);
    } catch (const CgatsError&) {
        mCount = countBefore;
        mTailOffset = tailBefore;
        restore();
        throw;
    }
}

void MeasurementFile::restore() noexcept {
    try {
        // All of it lies where the file has had bytes before, so that a full disk takes it, too.
        write(kTail, mTailOffset);
        write(countLine(mCount), mCountOffset);
        [[maybe_unused]] const int result =
            ::ftruncate(mDescriptor, static_cast<off_t>(mTailOffset + kTail.size()));
    } catch (const CgatsError&) {
        // Nothing more can be done for a file that does not take even that.
    }
}

void MeasurementFile::write(std::string_view text, std::size_t offset) {
    while (!text.empty()) {
        const ssize_t written = ::pwrite(mDescriptor, text.data(), text.size(), static_cast<off_t>(offset));
        if (written < 0) {
            if (errno == EINTR) {
                continue;
            }
            throw CgatsError(mPath, 0, std::string("cannot be written: ") + std::strerror(errno));
        }
        text.remove_prefix(static_cast<std::size_t>(written));
        offset += static_cast<std::size_t>(written);
    }
}

namespace {

// Takes the sets of a measurement file.
class ReadingReader {
public:
    explicit ReadingReader(CgatsReader& reader)
        : mReader(reader),
          mIdField(reader.field("SAMPLE_ID")),
          mRowField(reader.optionalField("ROW")),
          mColumnField(reader.optionalField("COLUMN")),
          mSpotField(reader.optionalField("SPOT_INDEX")),
          mLabFields(
              {reader.optionalField("LAB_L"), reader.optionalField("LAB_A"), reader.optionalField("LAB_B")}),
          mBandFields(reader.optionalSpectralFields()),
          mOtherFields(reader.otherFields()) {
        if (!hasLab() && !mBandFields) {
            reader.fail(0, "has neither the fields LAB_L, LAB_A and LAB_B nor spectra from 380 to 730 nm");
        }
    }

    bool hasCells() const { return mRowField && mColumnField; }
    bool hasSpectra() const { return mBandFields.has_value(); }
    std::vector<std::string> otherNames() const { return mReader.namesOf(mOtherFields); }

    // The set that was read last.
    Reading read(const std::vector<std::string>& set) {
        Reading reading;
        reading.sampleId = set[mIdField];
        reading.row = hasCells() ? cellNumber(set[*mRowField]) : 0;
        reading.column = hasCells() ? cellNumber(set[*mColumnField]) : mCount++;
        reading.spotIndex = mSpotField ? cellNumber(set[*mSpotField]) : 0;
        for (std::size_t band = 0; mBandFields && band < kBands; ++band) {
            reading.spectrum[band] = mReader.singleNumber(set[(*mBandFields)[band]]);
        }
        if (hasLab()) {
            for (std::size_t i = 0; i < mLabFields.size(); ++i) {
                reading.lab[i] = mReader.singleNumber(set[*mLabFields[i]]);
            }
        } else {
            const Lab lab = labFromSpectrum(std::span<const float, kBands>(reading.spectrum));
            reading.lab = {static_cast<float>(lab.l), static_cast<float>(lab.a), static_cast<float>(lab.b)};
        }
        reading.values = mReader.valuesOf(mOtherFields);
        return reading;
    }

private:
    bool hasLab() const { return mLabFields[0] && mLabFields[1] && mLabFields[2]; }

    int cellNumber(const std::string& text) const {
        const int number = mReader.integerField(text);
        if (number < 0) {
            mReader.fail("no cell has the number " + text);
        }
        return number;
    }

    CgatsReader& mReader;
    std::size_t mIdField;
    std::optional<std::size_t> mRowField;
    std::optional<std::size_t> mColumnField;
    std::optional<std::size_t> mSpotField;
    std::array<std::optional<std::size_t>, 3> mLabFields;
    std::optional<std::array<std::size_t, kBands>> mBandFields;
    std::vector<std::size_t> mOtherFields;
    int mCount = 0;
};

// Where the row of `first` ends, when all of its patches are there; else `first`. `spots` of 0: as many for
// each as the row's first patch has.
std::size_t endOfWholeRow(std::span<const Reading> readings, std::size_t first, const Grid& grid, int spots) {
    const int row = readings[first].row;
    const auto isHere = [&](std::size_t index, int column, int spot) {
        return index < readings.size() && readings[index].row == row && readings[index].column == column &&
               readings[index].spotIndex == spot;
    };
    std::size_t at = first;
    for (int column = grid.firstColumn(row); column < grid.columns; ++column) {
        int spot = 0;
        while ((spots == 0 || spot < spots) && isHere(at, column, spot)) {
            ++spot;
            ++at;
        }
        if (spot == 0 || (spots != 0 && spot < spots)) {
            return first;
        }
        spots = spot;
    }
    return at;
}

void keepWholeRows(std::vector<Reading>& readings, const Grid& grid, int spots) {
    std::size_t end = 0;
    while (end < readings.size()) {
        const std::size_t next = endOfWholeRow(readings, end, grid, spots);
        if (next == end) {
            break;
        }
        end = next;
    }
    readings.resize(end);
}

// Compares line by line. False: the text ends before the header does. Throws for the first other line.
bool beginsWith(std::string_view text, std::string_view header, const std::string& path) {
    for (int line = 1; !header.empty(); ++line) {
        const std::size_t length = header.find('\n') + 1;
        const std::string_view wanted = header.substr(0, length);
        const std::size_t end = text.find('\n');
        if (end == text.npos && wanted.starts_with(text)) {
            return false;
        }
        const std::string_view found = text.substr(0, end == text.npos ? end : end + 1);
        if (found != wanted) {
            throw CgatsError(path, line,
                             "is not of this scan, where the line is " +
                                 excerpt(wanted.substr(0, length - 1)) + " and not " +
                                 excerpt(found.substr(0, end)));
        }
        text.remove_prefix(length);
        header.remove_prefix(length);
    }
    return true;
}

void checkPatch(const Reading& reading, const ChartLayout& layout, const std::string& path, int line) {
    const Patch* const patch = layout.patchAt(reading.row, reading.column);
    bool isSame = patch != nullptr && patch->sampleId == reading.sampleId;
    for (std::size_t index = 0; isSame && index < patch->values.size(); ++index) {
        isSame = patch->values[index].text == reading.values[index].text;
    }
    if (!isSame) {
        throw CgatsError(path, line,
                         "is not of this scan, whose patch at row " + std::to_string(reading.row) +
                             ", column " + std::to_string(reading.column) + " is another one");
    }
}

std::optional<Grid> optionalGrid(const CgatsReader& reader) {
    return reader.optional("CHART_ROWS") != nullptr ? placementPartsOf(reader).grid : std::nullopt;
}

} // namespace

Measurements parseMeasurements(std::string_view text, const std::string& name) {
    CgatsReader reader(text, name, CgatsReader::Extent::Interrupted);
    ReadingReader sets(reader);
    Measurements result;
    result.condition = reader.optionalText("MEASUREMENT_CONDITION");
    result.originator = reader.optionalText("ORIGINATOR");
    result.descriptor = reader.optionalText("DESCRIPTOR");
    result.grid = optionalGrid(reader);
    result.hasCells = sets.hasCells();
    result.hasSpectra = sets.hasSpectra();
    result.fieldNames = sets.otherNames();
    while (const std::vector<std::string>* set = reader.nextSet()) {
        result.readings.push_back(sets.read(*set));
    }
    const std::string count = std::to_string(result.readings.size());
    if (!reader.isAtEnd()) {
        result.damage = "is cut short after " + count + " sets";
    } else if (reader.numberOfSets() && *reader.numberOfSets() != std::ssize(result.readings)) {
        result.damage = "was interrupted: NUMBER_OF_SETS is " + std::to_string(*reader.numberOfSets()) +
                        ", but there are " + count + " sets";
    }
    if (!result.damage.empty() && result.grid && result.hasCells) {
        keepWholeRows(result.readings, *result.grid, 0);
    }
    return result;
}

Measurements readMeasurements(const std::string& path) {
    return parseMeasurements(readWholeFile(path), path);
}

std::vector<Reading> recoverReadings(const std::string& path, const ChartLayout& layout,
                                     const MeasurementHeader& header, int spots) {
    const std::string text = readWholeFile(path);
    const std::string wanted = headerText(layout, header);
    if (!beginsWith(text, wanted, path) || text.find(kBegin, wanted.size()) == text.npos) {
        return {};
    }
    std::vector<Reading> readings;
    CgatsReader reader(text, path, CgatsReader::Extent::Interrupted);
    ReadingReader sets(reader);
    for (;;) {
        try {
            const std::vector<std::string>* const set = reader.nextSet();
            if (set == nullptr) {
                break;
            }
            readings.push_back(sets.read(*set));
        } catch (const CgatsError&) {
            break; // what the disk made of the line that was under way
        }
        checkPatch(readings.back(), layout, path, reader.line());
    }
    keepWholeRows(readings, layout, spots);
    return readings;
}

} // namespace Color
