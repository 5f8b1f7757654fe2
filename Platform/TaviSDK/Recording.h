// Recordings: what was asked of an instrument, and what it answered, one JSON object a line.
//
//   {"recording":1,"date":"2026-11-25T08:59:00Z","table":"TT-1","spectrophotometer":null,"sum":"..."}
//   {"n":1,"thread":1,"at":0.000021,"took":0.000004,"call":"Tavi_SetOption","arguments":["Beep","yes"],
//    "status":0,"sum":"..."}                                      (on one line)
//   {"n":2,"thread":2,"at":1.500000,"message":0,"text":"The button was pressed.","sum":"..."}
//   {"n":3,"end":true,"sum":"..."}
//
// A call's outcome is "status" (with "values" when it is 0 and the call fills an array), "text" (null, too),
// "exception", or nothing for a call without a result. Lines are in the order in which calls ended; seconds
// count from the first call. Members are in this order and without blanks, so that calls compare as text; the
// header alone may end with blanks. Floats have the shortest form that reads back to the same float; those
// that JSON has no numbers for are the texts "nan", "inf" and "-inf". A byte that is no UTF-8 is written as
// the lone surrogate \udc00 + byte. "sum" is a hash of what stands before it on the line:
// FNV-1a of 64 bits, taken in little-endian words of 8 bytes, the last of which zeros fill up.
//
// Functions may be called from any thread.
#pragma once

#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace TaviSDK {

// What the interface says of one of the SDK's calls.
struct CallForm {
    enum class Outcome { Status, Text, Nothing };

    std::string_view name;
    std::string_view arguments; // one character each: t text or null, f float, i whole number
    Outcome outcome = Outcome::Status;
    std::size_t values = 0; // that it fills when its status is 0
    bool changes = false;   // the instrument; others only read
};
// Null for a name that is none of the SDK's.
const CallForm* findCallForm(std::string_view name);

// One line below the header: a call, or a message of the device.
struct RecordedEvent {
    const CallForm* call = nullptr; // null: a message
    int thread = 0;                 // counted from 1, in the order in which they came
    double at = 0.0;                // seconds since the start
    double took = 0.0;              // seconds
    std::string arguments;          // as they stand between the brackets
    int status = 0;                 // or the message
    std::optional<std::string> text;
    std::vector<float> values;
    std::optional<std::string> exception;

    bool changes() const { return call != nullptr && call->changes; }
    // "Tavi_SetOption("Beep","yes")"
    std::string shown() const;
};

struct Recording {
    std::string date;                 // UTC
    std::optional<std::string> table; // serial numbers, once they were read
    std::optional<std::string> spectrophotometer;
    std::vector<RecordedEvent> events; // the event i stands on line i + 2
};

// A file that is no recording, or a damaged one; the text has file, line and reason.
class RecordingError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// Both throw RecordingError; `name` stands in its text.
Recording readRecording(const std::string& file);
Recording parseRecording(std::string_view text, const std::string& name);

// The whole file.
std::string formatRecording(const Recording& recording);
// Single lines, without their ends; two of them append to what stands there. The header has room for serial
// numbers that come later: its length is the same then, unless they are very long.
std::string formatHeader(const Recording& recording);
void appendEvent(std::string& line, long number, const RecordedEvent& event);
void appendEnd(std::string& line, long number);

// Appends one argument or value as it stands in a recording.
void appendText(std::string& json, const char* text); // null, too
void appendText(std::string& json, std::string_view text);
void appendNumber(std::string& json, float number);
void appendNumber(std::string& json, int number);
// Appends the sum, which ends the line.
void seal(std::string& line, std::size_t begin = 0);

} // namespace TaviSDK
