// What is in a recording of a session with the instrument.
#include "Commands.h"
#include "Errors.h"
#include "RecordingFile.h"

#include <algorithm>
#include <cstdio>
#include <map>

namespace tablectl {

namespace {

using TaviSDK::RecordedEvent;
using TaviSDK::Recording;

constexpr std::size_t kLongestCalls = 5;

struct CallTimes {
    long count = 0;
    double total = 0;
    double longest = 0;
};

struct Summary {
    double duration = 0;
    std::map<std::string, CallTimes> calls; // by name
    int rows = 0;                           // strips one after the other on the same line are one row's
    int attempts = 0;
    int messages = 0;
    std::vector<std::size_t> failures; // indices of events
    std::vector<std::size_t> exceptions;
    std::vector<std::size_t> longest;
};

// The result of this call is a count.
bool isFailure(const RecordedEvent& event) {
    return event.status != 0 && event.call->name != "Tavi_GetNumberOfAvailableSamples";
}

// The strip's ends whichever way it runs.
std::string lineOf(const RecordedEvent& scan) {
    const std::string& text = scan.arguments;
    const std::size_t middle = text.find(',', text.find(',') + 1);
    const std::string from = text.substr(0, middle);
    const std::string to = text.substr(middle + 1);
    return std::min(from, to) + " " + std::max(from, to);
}

Summary summaryOf(const Recording& recording) {
    Summary summary;
    std::string lineBefore;
    for (std::size_t index = 0; index < recording.events.size(); ++index) {
        const RecordedEvent& event = recording.events[index];
        summary.duration = std::max(summary.duration, event.at + event.took);
        if (!event.call) {
            summary.messages++;
            continue;
        }
        CallTimes& times = summary.calls[std::string(event.call->name)];
        times.count++;
        times.total += event.took;
        times.longest = std::max(times.longest, event.took);
        summary.longest.push_back(index);
        if (event.exception)
            summary.exceptions.push_back(index);
        else if (isFailure(event))
            summary.failures.push_back(index);
        if (event.call->name == "Tavi_Scan") {
            const std::string line = lineOf(event);
            summary.attempts++;
            summary.rows += line != lineBefore ? 1 : 0;
            lineBefore = line;
        }
    }
    std::stable_sort(summary.longest.begin(), summary.longest.end(), [&](std::size_t one, std::size_t other) {
        return recording.events[one].took > recording.events[other].took;
    });
    summary.longest.resize(std::min(summary.longest.size(), kLongestCalls));
    return summary;
}

std::string seconds(double value) {
    char text[64];
    std::snprintf(text, sizeof text, "%.6f s", value);
    return text;
}

// "line 12: Tavi_Calibrate(): status 6, 0.000012 s"
std::string described(const Recording& recording, std::size_t index) {
    const RecordedEvent& event = recording.events[index];
    std::string text = "line " + std::to_string(index + 2) + ": " + event.shown();
    if (event.exception)
        text += ": exception \"" + *event.exception + "\"";
    else if (isFailure(event))
        text += ": status " + std::to_string(event.status);
    return text + ", " + seconds(event.took);
}

void showText(Output& output, const Recording& recording, const Summary& summary) {
    output.line("Date: " + recording.date);
    output.line("Table: " + recording.table.value_or("unknown"));
    output.line("Spectrophotometer: " + recording.spectrophotometer.value_or("unknown"));
    output.line("Duration: " + seconds(summary.duration));
    output.line("Rows: " + std::to_string(summary.rows) + ", in " + std::to_string(summary.attempts) +
                " attempts");
    output.line("Messages: " + std::to_string(summary.messages));
    const auto list = [&](const std::string& title, const std::vector<std::size_t>& events) {
        output.line(title + ": " + (events.empty() ? "none" : std::to_string(events.size())));
        for (const std::size_t index : events)
            output.line("  " + described(recording, index));
    };
    list("Failures", summary.failures);
    list("Exceptions", summary.exceptions);
    list("Longest calls", summary.longest);
    output.line("Calls:");
    for (const auto& [name, times] : summary.calls)
        output.line("  " + name + ": " + std::to_string(times.count) + ", together " + seconds(times.total) +
                    ", longest " + seconds(times.longest));
}

void showJson(Output& output, const Recording& recording, const Summary& summary) {
    Json calls;
    for (const auto& [name, times] : summary.calls)
        calls.addRaw(
            name,
            Json().add("count", times.count).add("total", times.total).add("longest", times.longest).text());
    const auto list = [&](const std::vector<std::size_t>& events) {
        std::string array;
        for (const std::size_t index : events) {
            const RecordedEvent& event = recording.events[index];
            Json object;
            object.add("line", static_cast<long>(index) + 2).add("call", event.shown());
            if (event.exception)
                object.add("exception", *event.exception);
            else if (event.call->outcome == TaviSDK::CallForm::Outcome::Status)
                object.add("status", event.status);
            array += (array.empty() ? "" : ",") + object.add("took", event.took).text();
        }
        return "[" + array + "]";
    };
    Json json;
    json.add("date", recording.date);
    if (recording.table)
        json.add("table", *recording.table);
    if (recording.spectrophotometer)
        json.add("spectrophotometer", *recording.spectrophotometer);
    json.add("duration", summary.duration)
        .add("rows", summary.rows)
        .add("attempts", summary.attempts)
        .add("messages", summary.messages)
        .addRaw("failures", list(summary.failures))
        .addRaw("exceptions", list(summary.exceptions))
        .addRaw("longest", list(summary.longest))
        .addRaw("calls", calls.text());
    output.object(json);
}

void replaceAll(std::string& text, const std::string& what, const std::string& by) {
    for (std::size_t at = text.find(what); at != text.npos; at = text.find(what, at + by.size()))
        text.replace(at, what.size(), by);
}

// The recording without this serial number, wherever it stands, in the table's name for itself too.
void hide(Recording& recording, std::optional<std::string>& serialNumber, const std::string& by) {
    if (!serialNumber || serialNumber->empty())
        return;
    const std::string hidden = *serialNumber;
    std::string escaped;
    TaviSDK::appendText(escaped, hidden);
    escaped = escaped.substr(1, escaped.size() - 2);
    serialNumber = by;
    for (RecordedEvent& event : recording.events) {
        replaceAll(event.arguments, escaped, by);
        for (std::optional<std::string>* text : {&event.text, &event.exception}) {
            if (*text)
                replaceAll(**text, hidden, by);
        }
    }
}

} // namespace

Recording readRecordingFile(const std::string& file) {
    try {
        return TaviSDK::readRecording(file);
    } catch (const TaviSDK::RecordingError& error) {
        throw UsageFailure(error.what());
    }
}

std::string recordedPath(const Recording& recording) {
    for (const RecordedEvent& event : recording.events) {
        if (event.call && event.arguments == "\"TaviTHalcyDeviceIdentifier\"" && event.text)
            return *event.text;
    }
    return "";
}

void commands::recording(Context& context, const std::string& file, bool anonymous) {
    Recording recording = readRecordingFile(file);
    if (anonymous) {
        hide(recording, recording.table, "anonymous-table");
        hide(recording, recording.spectrophotometer, "anonymous-spectrophotometer");
        context.output.write(TaviSDK::formatRecording(recording));
    } else if (context.output.isJson()) {
        showJson(context.output, recording, summaryOf(recording));
    } else {
        showText(context.output, recording, summaryOf(recording));
    }
}

} // namespace tablectl
