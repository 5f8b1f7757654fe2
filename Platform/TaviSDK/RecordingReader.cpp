// Reading recordings: strictly, as what is played back must be what was recorded.
#include "Recording.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <limits>
#include <memory>

namespace TaviSDK {

namespace {

struct Damage {
    std::string reason;
};

// One line, read from its beginning to its end. Throws Damage.
class LineReader {
public:
    explicit LineReader(std::string_view text) : mText(text) {}

    bool skip(std::string_view literal) {
        if (!mText.substr(mAt).starts_with(literal)) {
            return false;
        }
        mAt += literal.size();
        return true;
    }

    void expect(std::string_view literal) {
        if (!skip(literal)) {
            throw Damage{"there should be " + std::string(literal) + " at column " + std::to_string(mAt + 1)};
        }
    }

    template <typename Number>
    Number number() {
        Number value{};
        const auto [end, error] = std::from_chars(mText.data() + mAt, mText.data() + mText.size(), value);
        if (error != std::errc{}) {
            throw Damage{"there should be a number at column " + std::to_string(mAt + 1)};
        }
        mAt = static_cast<std::size_t>(end - mText.data());
        return value;
    }

    double seconds() {
        const double value = number<double>();
        constexpr double kLongest = 1e8; // three years
        if (!(value >= 0.0 && value <= kLongest)) {
            throw Damage{"impossible seconds before column " + std::to_string(mAt + 1)};
        }
        return value;
    }

    float single() {
        if (skip("\"nan\"")) {
            return std::numeric_limits<float>::quiet_NaN();
        }
        if (skip("\"inf\"")) {
            return std::numeric_limits<float>::infinity();
        }
        if (skip("\"-inf\"")) {
            return -std::numeric_limits<float>::infinity();
        }
        const float value = number<float>();
        if (!std::isfinite(value)) {
            throw Damage{"there should be a number before column " + std::to_string(mAt + 1)};
        }
        return value;
    }

    std::string text() {
        expect("\"");
        std::string result;
        while (!skip("\"")) {
            if (mAt == mText.size() || static_cast<unsigned char>(mText[mAt]) < 0x20) {
                throw Damage{"a text without its end at column " + std::to_string(mAt + 1)};
            }
            if (skip("\\u")) {
                result += escapedByte();
            } else {
                if (skip("\\") && !mText.substr(mAt).starts_with('"') &&
                    !mText.substr(mAt).starts_with('\\')) {
                    throw Damage{"an unknown escape at column " + std::to_string(mAt + 1)};
                }
                result += mText[mAt++];
            }
        }
        return result;
    }

    std::optional<std::string> textOrNull() { return skip("null") ? std::nullopt : std::optional(text()); }

    std::size_t at() const { return mAt; }
    std::string_view since(std::size_t begin) const { return mText.substr(begin, mAt - begin); }
    void end() const {
        if (mAt != mText.size()) {
            throw Damage{"the line should end at column " + std::to_string(mAt + 1)};
        }
    }

private:
    // Control characters, and bytes that are no UTF-8.
    char escapedByte() {
        unsigned unit = 0;
        const char* const begin = mText.data() + mAt;
        const char* const limit = begin + std::min<std::size_t>(4, mText.size() - mAt);
        const auto [end, error] = std::from_chars(begin, limit, unit, 16);
        const bool isByte = (unit >= 1 && unit < 0x80) || (unit >= 0xdc80 && unit <= 0xdcff);
        if (error != std::errc{} || end != begin + 4 || !isByte) {
            throw Damage{"an unknown escape at column " + std::to_string(mAt + 1)};
        }
        mAt += 4;
        return static_cast<char>(unit & 0xffU);
    }

    std::string_view mText;
    std::size_t mAt = 0;
};

// What stands before the sum, after a look at the sum.
std::string_view unsealed(std::string_view line) {
    constexpr std::size_t kSealLength = std::string_view(R"(,"sum":"0123456789abcdef"})").size();
    if (line.size() < kSealLength) {
        throw Damage{"no line of a recording"};
    }
    const std::string_view content = line.substr(0, line.size() - kSealLength);
    std::string expected(content);
    seal(expected);
    if (expected != line) {
        throw Damage{"the line was changed: its sum is another"};
    }
    return content;
}

void readHeader(std::string_view line, Recording& recording) {
    if (!line.starts_with("{\"recording\":1,")) {
        throw Damage{"a recording of another version"};
    }
    LineReader reader(unsealed(line.substr(0, line.find_last_not_of(' ') + 1)));
    reader.expect("{\"recording\":1,\"date\":");
    recording.date = reader.text();
    reader.expect(",\"table\":");
    recording.table = reader.textOrNull();
    reader.expect(",\"spectrophotometer\":");
    recording.spectrophotometer = reader.textOrNull();
    reader.end();
}

void readArguments(LineReader& reader, RecordedEvent& event) {
    const std::size_t begin = reader.at();
    for (std::size_t index = 0; index < event.call->arguments.size(); ++index) {
        if (index > 0) {
            reader.expect(",");
        }
        switch (event.call->arguments[index]) {
        case 'f':
            reader.single();
            break;
        case 'i':
            reader.number<int>();
            break;
        default:
            reader.textOrNull();
        }
    }
    event.arguments = reader.since(begin);
}

void readOutcome(LineReader& reader, RecordedEvent& event) {
    if (reader.skip(",\"exception\":")) {
        event.exception = reader.text();
    } else if (event.call->outcome == CallForm::Outcome::Text) {
        reader.expect(",\"text\":");
        event.text = reader.textOrNull();
    } else if (event.call->outcome == CallForm::Outcome::Status) {
        reader.expect(",\"status\":");
        event.status = reader.number<int>();
        if (event.status == 0 && event.call->values > 0) {
            reader.expect(",\"values\":[");
            for (std::size_t index = 0; index < event.call->values; ++index) {
                reader.expect(index > 0 ? "," : "");
                event.values.push_back(reader.single());
            }
            reader.expect("]");
        }
    }
}

// Nothing for the line that ends the recording.
std::optional<RecordedEvent> readEvent(std::string_view line, long number) {
    LineReader reader(unsealed(line));
    reader.expect("{\"n\":");
    const long found = reader.number<long>();
    if (found != number) {
        throw Damage{found > number
                         ? "lines are missing before this one: its number is " + std::to_string(found) +
                               ", not " + std::to_string(number)
                         : "a line too many: number " + std::to_string(found) + " was there before"};
    }
    if (reader.skip(",\"end\":true")) {
        reader.end();
        return std::nullopt;
    }
    RecordedEvent event;
    reader.expect(",\"thread\":");
    event.thread = reader.number<int>();
    reader.expect(",\"at\":");
    event.at = reader.seconds();
    if (reader.skip(",\"message\":")) {
        event.status = reader.number<int>();
        reader.expect(",\"text\":");
        event.text = reader.textOrNull();
    } else {
        reader.expect(",\"took\":");
        event.took = reader.seconds();
        reader.expect(",\"call\":");
        const std::string name = reader.text();
        event.call = findCallForm(name);
        if (event.call == nullptr) {
            throw Damage{"there is no call " + name};
        }
        reader.expect(",\"arguments\":[");
        readArguments(reader, event);
        reader.expect("]");
        readOutcome(reader, event);
    }
    reader.end();
    return event;
}

// The lines in turn.
class Lines {
public:
    explicit Lines(std::string_view text) : mRest(text) {}

    bool isAtEnd() const { return mRest.empty(); }
    long number() const { return mNumber; }
    std::string_view next() {
        ++mNumber;
        const std::size_t end = mRest.find('\n');
        if (end == std::string_view::npos) {
            throw Damage{mRest.empty() ? "the end is missing: lines were lost" : "the line is cut off"};
        }
        const std::string_view line = mRest.substr(0, end);
        mRest.remove_prefix(end + 1);
        return line;
    }

private:
    std::string_view mRest;
    long mNumber = 0;
};

} // namespace

Recording parseRecording(std::string_view text, const std::string& name) {
    if (!text.starts_with("{\"recording\":")) {
        throw RecordingError(name + ":1: not a recording");
    }
    Recording recording;
    Lines lines(text);
    try {
        readHeader(lines.next(), recording);
        for (;;) {
            const std::string_view line = lines.next();
            std::optional<RecordedEvent> event = readEvent(line, lines.number() - 1);
            if (!event) {
                break;
            }
            recording.events.push_back(std::move(*event));
        }
        if (!lines.isAtEnd()) {
            lines.next();
            throw Damage{"there is something behind the end"};
        }
    } catch (const Damage& damage) {
        throw RecordingError(name + ":" + std::to_string(lines.number()) + ": " + damage.reason);
    }
    return recording;
}

Recording readRecording(const std::string& file) {
    const std::unique_ptr<std::FILE, int (*)(std::FILE*)> stream(std::fopen(file.c_str(), "rbe"),
                                                                 std::fclose);
    if (!stream) {
        throw RecordingError(file + ": " + std::strerror(errno));
    }
    std::string text;
    std::array<char, 65536> block;
    while (const std::size_t got = std::fread(block.data(), 1, block.size(), stream.get())) {
        text.append(block.data(), got);
    }
    if (std::ferror(stream.get())) {
        throw RecordingError(file + ": " + std::strerror(errno));
    }
    return parseRecording(text, file);
}

} // namespace TaviSDK
