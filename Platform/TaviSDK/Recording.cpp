#include "Recording.h"

#include <algorithm>
#include <array>
#include <bit>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstring>

namespace TaviSDK {

namespace {

constexpr std::size_t kHeaderLength = 255;

using Outcome = CallForm::Outcome;
constexpr std::array<CallForm, 13> kForms = {{
    {"Tavi_SetOption", "tt", Outcome::Status, 0, true},
    {"Tavi_GetOption", "t", Outcome::Text, 0, false},
    {"Tavi_IsTableConnected", "", Outcome::Status, 0, false},
    {"Tavi_GoToHomePosition", "", Outcome::Status, 0, true},
    {"Tavi_SetPosition", "ff", Outcome::Status, 0, true},
    {"Tavi_GetPosition", "", Outcome::Status, 2, false},
    {"Tavi_Calibrate", "", Outcome::Status, 0, true},
    {"Tavi_TriggerMeasurement", "", Outcome::Status, 0, true},
    {"Tavi_Scan", "ffff", Outcome::Status, 0, true},
    {"Tavi_GetNumberOfAvailableSamples", "", Outcome::Status, 0, false},
    {"Tavi_GetSpectrum", "i", Outcome::Status, 36, false},
    {"Tavi_GetTriStimulus", "i", Outcome::Status, 3, false},
    {"Tavi_RegisterDeviceMessageHandler", "t", Outcome::Nothing, 0, true},
}};

template <typename Number>
void appendDigits(std::string& json, Number number) {
    std::array<char, 32> digits;
    const auto [end, error] = std::to_chars(digits.data(), digits.data() + digits.size(), number);
    json.append(digits.data(), end);
}

// To the microsecond; of whole numbers, as it is done for each call that is recorded.
void appendSeconds(std::string& json, double seconds) {
    constexpr long long kSecond = 1000000;
    const long long microseconds = std::llround(seconds * static_cast<double>(kSecond));
    appendDigits(json, microseconds / kSecond);
    json += '.';
    const std::size_t begin = json.size();
    appendDigits(json, kSecond + microseconds % kSecond);
    json.erase(begin, 1);
}

void appendEscape(std::string& json, unsigned unit) {
    constexpr const char* kDigits = "0123456789abcdef";
    json += "\\u";
    for (const unsigned shift : {12U, 8U, 4U, 0U}) {
        json += kDigits[(unit >> shift) & 0xfU];
    }
}

// How many bytes the UTF-8 character at the beginning of text has; 0 when there is none.
std::size_t characterLength(std::string_view text) {
    const auto byte = [&](std::size_t index) { return static_cast<unsigned char>(text[index]); };
    const unsigned first = byte(0);
    const std::size_t length = first < 0x80                    ? 1
                               : first >= 0xc2 && first < 0xe0 ? 2
                               : first >= 0xe0 && first < 0xf0 ? 3
                               : first >= 0xf0 && first < 0xf5 ? 4
                                                               : 0;
    if (length == 0 || length > text.size()) {
        return 0;
    }
    for (std::size_t index = 1; index < length; ++index) {
        if ((byte(index) & 0xc0U) != 0x80) {
            return 0;
        }
    }
    // Overlong forms, surrogates, and what lies beyond the last character.
    const bool isWrong = (first == 0xe0 && byte(1) < 0xa0) || (first == 0xed && byte(1) >= 0xa0) ||
                         (first == 0xf0 && byte(1) < 0x90) || (first == 0xf4 && byte(1) >= 0x90);
    return isWrong ? 0 : length;
}

} // namespace

const CallForm* findCallForm(std::string_view name) {
    const auto found =
        std::find_if(kForms.begin(), kForms.end(), [&](const CallForm& form) { return form.name == name; });
    return found == kForms.end() ? nullptr : &*found;
}

std::string RecordedEvent::shown() const {
    return call == nullptr ? "message " + std::to_string(status)
                           : std::string(call->name) + "(" + arguments + ")";
}

void appendText(std::string& json, const char* text) {
    if (text == nullptr) {
        json += "null";
    } else {
        appendText(json, std::string_view(text));
    }
}

void appendText(std::string& json, std::string_view text) {
    json += '"';
    while (!text.empty()) {
        const auto first = static_cast<unsigned char>(text.front());
        const std::size_t length = characterLength(text);
        if (length == 0) {
            appendEscape(json, 0xdc00U + first);
        } else if (first < 0x20 || first == 0x7f) {
            appendEscape(json, first);
        } else {
            if (first == '"' || first == '\\') {
                json += '\\';
            }
            json += text.substr(0, length);
        }
        text.remove_prefix(std::max<std::size_t>(length, 1));
    }
    json += '"';
}

void appendNumber(std::string& json, float number) {
    if (std::isfinite(number)) {
        appendDigits(json, number);
    } else {
        json += std::isnan(number) ? "\"nan\"" : number > 0.0F ? "\"inf\"" : "\"-inf\"";
    }
}

void appendNumber(std::string& json, int number) {
    appendDigits(json, number);
}

void seal(std::string& line, std::size_t begin) {
    static_assert(std::endian::native == std::endian::little, "words are those of the file's format");
    std::uint64_t sum = 0xcbf29ce484222325U;
    for (std::size_t at = begin; at < line.size(); at += sizeof sum) {
        std::uint64_t word = 0;
        std::memcpy(&word, line.data() + at, std::min(sizeof word, line.size() - at));
        sum = (sum ^ word) * 0x100000001b3U; // each step is one to one: no word can change unnoticed
    }
    std::array<char, 17> digits;
    for (std::size_t index = 16; index-- > 0; sum >>= 4) {
        digits[index] = "0123456789abcdef"[sum & 0xfU];
    }
    line += ",\"sum\":\"";
    line.append(digits.data(), 16);
    line += "\"}";
}

std::string formatHeader(const Recording& recording) {
    std::string line = "{\"recording\":1,\"date\":";
    appendText(line, recording.date);
    line += ",\"table\":";
    appendText(line, recording.table ? recording.table->c_str() : nullptr);
    line += ",\"spectrophotometer\":";
    appendText(line, recording.spectrophotometer ? recording.spectrophotometer->c_str() : nullptr);
    seal(line);
    line.resize(std::max(line.size(), kHeaderLength), ' ');
    return line;
}

void appendEvent(std::string& line, long number, const RecordedEvent& event) {
    const std::size_t begin = line.size();
    line += "{\"n\":";
    appendDigits(line, number);
    line += ",\"thread\":";
    appendNumber(line, event.thread);
    line += ",\"at\":";
    appendSeconds(line, event.at);
    if (event.call == nullptr) {
        line += ",\"message\":";
        appendNumber(line, event.status);
        line += ",\"text\":";
        appendText(line, event.text ? event.text->c_str() : nullptr);
        seal(line, begin);
        return;
    }
    line += ",\"took\":";
    appendSeconds(line, event.took);
    line += ",\"call\":\"";
    line += event.call->name;
    line += "\",\"arguments\":[";
    line += event.arguments;
    line += ']';
    if (event.exception) {
        line += ",\"exception\":";
        appendText(line, *event.exception);
    } else if (event.call->outcome == Outcome::Text) {
        line += ",\"text\":";
        appendText(line, event.text ? event.text->c_str() : nullptr);
    } else if (event.call->outcome == Outcome::Status) {
        line += ",\"status\":";
        appendNumber(line, event.status);
        if (!event.values.empty()) {
            line += ",\"values\":";
            char before = '[';
            for (const float value : event.values) {
                line += before;
                appendNumber(line, value);
                before = ',';
            }
            line += ']';
        }
    }
    seal(line, begin);
}

void appendEnd(std::string& line, long number) {
    const std::size_t begin = line.size();
    line += "{\"n\":";
    appendDigits(line, number);
    line += ",\"end\":true";
    seal(line, begin);
}

std::string formatRecording(const Recording& recording) {
    std::string text = formatHeader(recording) + "\n";
    long number = 0;
    for (const RecordedEvent& event : recording.events) {
        appendEvent(text, ++number, event);
        text += '\n';
    }
    appendEnd(text, number + 1);
    return text + "\n";
}

} // namespace TaviSDK
