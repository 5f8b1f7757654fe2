// Recordings that somebody sends in: read, written again, and played to whoever asks as it was recorded.
#include "Fuzzing.h"

#include <TaviSDK/Player.h>
#include <TaviSDK/Recording.h>

#include <string>
#include <string_view>

using namespace TaviSDK;

namespace {

// No mutation finds a line's sum: lines without one get theirs here.
std::string sealed(std::string_view text) {
    std::string result;
    while (!text.empty()) {
        const std::size_t end = text.find('\n');
        std::string line(text.substr(0, end));
        if (line.find(",\"sum\":") == line.npos)
            seal(line);
        result += line + (end == text.npos ? "" : "\n");
        text.remove_prefix(end == text.npos ? text.size() : end + 1);
    }
    return result;
}

void play(const Recording& recording) {
    Player player(recording, "fuzz");
    for (const RecordedEvent& event : recording.events) {
        if (event.call == nullptr)
            continue;
        const Player::Answer answer = player.answer(event.call->name, event.arguments);
        fuzzing::require(answer.event != nullptr, "what was recorded is played");
        fuzzing::require(answer.event->shown() == event.shown() && answer.event->text == event.text &&
                             answer.event->status == event.status &&
                             answer.event->exception == event.exception,
                         "it is answered as it was");
    }
}

void read(const std::string& text) {
    try {
        const Recording recording = parseRecording(text, "fuzz");
        const std::string written = formatRecording(recording);
        fuzzing::require(formatRecording(parseRecording(written, "fuzz")) == written,
                         "what was written reads back the same");
        play(recording);
    } catch (const RecordingError& refusal) {
        fuzzing::require(std::string_view(refusal.what()).starts_with("fuzz:"), "a refusal names its line");
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    const std::string text(reinterpret_cast<const char*>(bytes), size);
    read(text);
    read(sealed(text));
    return 0;
}
