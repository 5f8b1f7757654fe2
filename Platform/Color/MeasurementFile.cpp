#include <Color/CgatsReader.h>
#include <Color/MeasurementFile.h>

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace Color {

namespace {

constexpr std::string_view kTail = "END_DATA\n";
// The field of the NUMBER_OF_SETS line, wide enough for any count, so that the line can be rewritten in
// place.
constexpr std::size_t kCountWidth = 10;

std::string header(const ChartLayout& layout, MeasurementCondition condition) {
    std::string text = "CGATS.17\n";
    appendKeyword(text, "ORIGINATOR", layout.originator);
    appendKeyword(text, "DESCRIPTOR", layout.descriptor);
    appendKeyword(text, "ILLUMINATION_NAME", "D50");
    appendKeyword(text, "OBSERVER_ANGLE", "2");
    appendKeyword(text, "KEYWORD", "MEASUREMENT_CONDITION");
    appendKeyword(text, "MEASUREMENT_CONDITION", condition == MeasurementCondition::M0 ? "M0" : "M2");
    appendKeyword(text, "KEYWORD", "SPOT_INDEX");
    text += "NUMBER_OF_FIELDS " + std::to_string(7 + layout.fieldNames.size() + kBands) +
            "\nBEGIN_DATA_FORMAT\nSAMPLE_ID ROW COLUMN SPOT_INDEX";
    for (const std::string& name : layout.fieldNames) {
        text += ' ';
        appendValue(text, {name, false});
    }
    text += " LAB_L LAB_A LAB_B";
    for (std::size_t band = 0; band < kBands; ++band) {
        text += " SPECTRAL_NM" + std::to_string(kFirstWavelength + kWavelengthStep * static_cast<int>(band));
    }
    return text + "\nEND_DATA_FORMAT\n";
}

void appendReading(std::string& text, const Reading& reading, const ChartLayout& layout) {
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
    text += '\n';
}

} // namespace

MeasurementFile::MeasurementFile(std::string path, const ChartLayout& layout, MeasurementCondition condition)
    : mPath(std::move(path)),
      mLayout(layout),
      mDescriptor(::open(mPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666)) {
    if (mDescriptor < 0) {
        throw CgatsError(mPath, 0, std::string("cannot be written: ") + std::strerror(errno));
    }
    // The destructor does not run when the constructor throws.
    try {
        std::string text = header(layout, condition);
        mCountOffset = text.size();
        text += countLine();
        text += "BEGIN_DATA\n";
        mTailOffset = text.size();
        text += kTail;
        write(text, 0);
    } catch (...) {
        ::close(mDescriptor);
        throw;
    }
}

MeasurementFile::~MeasurementFile() {
    ::close(mDescriptor);
}

std::string MeasurementFile::countLine() const {
    std::string count = std::to_string(mCount);
    count.resize(std::max(count.size(), kCountWidth), ' ');
    return "NUMBER_OF_SETS " + count + "\n";
}

void MeasurementFile::add(std::span<const Reading> readings) {
    std::string text;
    for (const Reading& reading : readings) {
        appendReading(text, reading, mLayout);
    }
    const std::size_t added = text.size();
    text += kTail;
    const std::size_t countBefore = mCount;
    const std::size_t tailBefore = mTailOffset;
    try {
        write(text, mTailOffset);
        mCount += readings.size();
        mTailOffset += added;
        write(countLine(), mCountOffset);
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
        write(countLine(), mCountOffset);
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

Measurements parseMeasurements(std::string_view text, const std::string& name) {
    CgatsReader reader(text, name);
    Measurements result;
    const CgatsReader::Keyword& condition = reader.required("MEASUREMENT_CONDITION");
    if (condition.value != "M0" && condition.value != "M2") {
        reader.fail(condition.line, "MEASUREMENT_CONDITION must be M0 or M2");
    }
    result.condition = condition.value == "M0" ? MeasurementCondition::M0 : MeasurementCondition::M2;

    result.originator = reader.optionalText("ORIGINATOR");
    result.descriptor = reader.optionalText("DESCRIPTOR");
    const std::vector<std::size_t> otherFields = reader.otherFields();
    result.fieldNames = reader.namesOf(otherFields);
    const std::size_t idField = reader.field("SAMPLE_ID");
    const std::size_t rowField = reader.field("ROW");
    const std::size_t columnField = reader.field("COLUMN");
    const std::size_t spotField = reader.field("SPOT_INDEX");
    const std::array<std::size_t, 3> labFields{reader.field("LAB_L"), reader.field("LAB_A"),
                                               reader.field("LAB_B")};
    const std::array<std::size_t, kBands> bandFields = reader.spectralFields();
    while (const std::vector<std::string>* set = reader.nextSet()) {
        Reading& reading = result.readings.emplace_back();
        reading.sampleId = (*set)[idField];
        reading.row = reader.integerField((*set)[rowField]);
        reading.column = reader.integerField((*set)[columnField]);
        reading.spotIndex = reader.integerField((*set)[spotField]);
        for (std::size_t i = 0; i < labFields.size(); ++i) {
            reading.lab[i] = reader.singleNumber((*set)[labFields[i]]);
        }
        for (std::size_t band = 0; band < kBands; ++band) {
            reading.spectrum[band] = reader.singleNumber((*set)[bandFields[band]]);
        }
        reading.values = reader.valuesOf(otherFields);
    }
    return result;
}

Measurements readMeasurements(const std::string& path) {
    return parseMeasurements(readWholeFile(path), path);
}

} // namespace Color
