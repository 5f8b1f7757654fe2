#include "Bench.h"

#include <TaviSDK/Player.h>
#include <TaviSDK/Recording.h>

#include <chrono>
#include <iterator>
#include <limits>
#include <sstream>

namespace {

using namespace TaviSDK;

std::string contentsOf(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

// A whole session, which an exception of the instrument ended.
std::string session() {
    return contentsOf(RECORDINGS "/exception.jsonl");
}

RecordedEvent call(const char* name, const std::string& arguments) {
    RecordedEvent event;
    event.call = findCallForm(name);
    event.arguments = arguments;
    return event;
}

// Why the text is refused; "" when it is not.
std::string problemOf(const std::vector<std::string>& lines) {
    std::string text;
    for (const std::string& line : lines) {
        text += line + "\n";
    }
    try {
        parseRecording(text, "it");
    } catch (const RecordingError& error) {
        return error.what();
    }
    return "";
}

// What the first call is told that is not as recorded, when somebody asks for these events; "" when all are.
std::string problemOf(const Recording& recording, const std::vector<RecordedEvent>& asked) {
    Player player(recording, "it");
    std::string problem;
    for (const RecordedEvent& event : asked) {
        if (event.call != nullptr) {
            const Player::Answer answer = player.answer(event.call->name, event.arguments);
            EXPECT_EQ(answer.event == nullptr, !answer.problem.empty());
            EXPECT_EQ(answer.isFirstProblem, problem.empty() && !answer.problem.empty());
            EXPECT_TRUE(problem.empty() || answer.problem == problem) << "it goes on failing";
            problem = answer.problem;
        }
    }
    return problem;
}

TEST(RecordingTest, everyLineThatIsMissingDoubledOrChangedIsTold) {
    std::vector<std::string> lines;
    std::istringstream text(session());
    for (std::string line; std::getline(text, line);) {
        lines.push_back(line);
    }
    ASSERT_GT(lines.size(), 100U);
    ASSERT_EQ(problemOf(lines), "");
    for (std::size_t index = 0; index < lines.size(); ++index) {
        const auto at = [&](std::size_t line) { return "it:" + std::to_string(line + 1) + ": "; };
        const auto place = static_cast<std::ptrdiff_t>(index);
        std::vector<std::string> edited = lines;
        edited.erase(edited.begin() + place);
        EXPECT_TRUE(problemOf(edited).starts_with(at(index))) << problemOf(edited);
        edited = lines;
        edited.insert(edited.begin() + place, lines[index]);
        EXPECT_TRUE(problemOf(edited).starts_with(at(index + 1))) << problemOf(edited);
        edited = lines;
        edited[index][index * 7 % edited[index].find("}")] ^= 1;
        EXPECT_TRUE(problemOf(edited).starts_with(at(index))) << problemOf(edited);
    }
    const std::string whole = session();
    for (std::size_t length = 0; length < whole.size(); length += 97) {
        EXPECT_THROW(parseRecording(std::string_view(whole).substr(0, length), "it"), RecordingError);
    }
}

TEST(RecordingTest, nothingIsLostOnTheWayThroughTheFile) {
    constexpr float kInfinite = std::numeric_limits<float>::infinity();
    Recording recording;
    recording.date = "2026-11-25T09:13:25Z";
    recording.spectrophotometer = "";
    RecordedEvent event = call("Tavi_GetTriStimulus", "-7");
    event.thread = 3;
    event.at = 1.5;
    event.took = 0.25;
    event.values = {0.1F, std::numeric_limits<float>::denorm_min(), -kInfinite};
    recording.events.push_back(event);
    for (const std::optional<std::string>& text :
         {std::optional<std::string>(), std::optional<std::string>(""),
          std::optional<std::string>("\"\\ \x01\n\x7f \xc3\xa4 \xff\xc3 \xed\xa0\x80 \xf0\x9f\x8e\xa8")}) {
        event = call("Tavi_GetOption", "");
        appendText(event.arguments, text ? text->c_str() : nullptr);
        event.text = text;
        recording.events.push_back(event);
    }
    event = call("Tavi_SetPosition", "\"nan\",-0");
    event.exception = "broke";
    recording.events.push_back(event);
    event = RecordedEvent();
    event.status = 4;
    recording.events.push_back(event);

    const std::string text = formatRecording(recording);
    const Recording read = parseRecording(text, "it");
    EXPECT_EQ(formatRecording(read), text);
    EXPECT_EQ(read.table, std::nullopt);
    EXPECT_EQ(read.spectrophotometer, "");
    ASSERT_EQ(read.events.size(), recording.events.size());
    for (std::size_t index = 0; index < read.events.size(); ++index) {
        const RecordedEvent& was = recording.events[index];
        const RecordedEvent& is = read.events[index];
        EXPECT_EQ(is.shown(), was.shown());
        EXPECT_EQ(is.text, was.text);
        EXPECT_EQ(is.values, was.values);
        EXPECT_EQ(is.exception, was.exception);
        EXPECT_EQ(is.status, was.status);
        EXPECT_EQ(is.at + is.took, was.at + was.took);
    }
}

TEST(PlayerTest, whoAsksForAnotherChangeIsToldTheLine) {
    const Recording recording = parseRecording(session(), "it");
    const std::vector<RecordedEvent>& events = recording.events;
    ASSERT_EQ(problemOf(recording, events), "");
    std::vector<std::size_t> changes;
    for (std::size_t index = 0; index < events.size(); ++index) {
        if (events[index].changes()) {
            changes.push_back(index);
        }
    }
    ASSERT_GT(changes.size(), 30U);
    for (std::size_t number = 0; number + 1 < changes.size(); ++number) {
        const auto place = static_cast<std::ptrdiff_t>(changes[number]);
        const RecordedEvent& event = events[changes[number]];
        const std::string line = "it:" + std::to_string(changes[number] + 2) + ": ";
        std::vector<RecordedEvent> asked = events;
        asked[changes[number]].arguments += ",1";
        EXPECT_EQ(problemOf(recording, asked),
                  line + "expected " + event.shown() + ", and " + asked[changes[number]].shown() + " came");
        asked = events;
        asked.insert(asked.begin() + place, event); // the same change twice
        EXPECT_NE(problemOf(recording, asked), "") << line;
        if (events[changes[number + 1]].shown() != event.shown()) {
            asked = events;
            asked.erase(asked.begin() + place);
            const std::string problem = problemOf(recording, asked);
            EXPECT_TRUE(problem.starts_with("it:")) << line << problem;
        }
    }
    std::vector<RecordedEvent> longer = events;
    longer.push_back(call("Tavi_Calibrate", ""));
    EXPECT_EQ(problemOf(recording, longer), "it:" + std::to_string(events.size() + 2) +
                                                ": the recording ends here, and Tavi_Calibrate() came");
}

TEST(PlayerTest, readsMayComeMoreOrLessOften) {
    const Recording recording = parseRecording(session(), "it");
    Player without(recording, "it");
    Player often(recording, "it");
    for (const RecordedEvent& event : recording.events) {
        if (event.changes()) {
            EXPECT_NE(without.answer(event.call->name, event.arguments).event, nullptr);
            EXPECT_NE(often.answer(event.call->name, event.arguments).event, nullptr);
        } else if (event.call != nullptr) {
            // The polling pass, at any place.
            EXPECT_EQ(often.answer("Tavi_IsTableConnected", "").event->status, 0);
            EXPECT_EQ(often.answer("Tavi_GetOption", "\"TaviTSerialNumber\"").event->text, recording.table);
        }
    }
    // A reading that was never taken is not made up.
    EXPECT_NE(often.answer("Tavi_GetSpectrum", "99").problem, "");
}

class ReplayTest : public Bench {
protected:
    void replay(const Recording& recording, double timeScale = 0.0) {
        std::ofstream(file("session.jsonl")) << formatRecording(recording);
        mSimulation.recording = file("session.jsonl");
        mSimulation.timeScale = timeScale;
        ASSERT_EQ(TaviSDK::setSimulation(mSimulation), "");
    }
};

TEST_F(ReplayTest, theInstrumentAnswersAsItDid) {
    Recording recording;
    RecordedEvent event = call("Tavi_SetPosition", "1,2.5");
    event.took = 0.2;
    event.status = 9;
    recording.events.push_back(event);
    event = call("Tavi_GetPosition", "");
    event.values = {3.0F, 4.25F};
    recording.events.push_back(event);
    event = call("Tavi_GetOption", "\"Beep\"");
    recording.events.push_back(event);
    event = call("Tavi_Calibrate", "");
    event.exception = "it broke";
    recording.events.push_back(event);
    event = call("Tavi_GoToHomePosition", "");
    recording.events.push_back(event);
    replay(recording, 0.5);

    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(Tavi_SetPosition(1.0F, 2.5F), 9);
    const auto took = std::chrono::steady_clock::now() - begin;
    EXPECT_GE(took, std::chrono::milliseconds(100));
    float x = 0.0F;
    float y = 0.0F;
    EXPECT_EQ(Tavi_GetPosition(&x, &y), 0);
    EXPECT_EQ(x, 3.0F);
    EXPECT_EQ(y, 4.25F);
    EXPECT_EQ(Tavi_GetOption("Beep"), nullptr);
    try {
        Tavi_Calibrate();
        ADD_FAILURE() << "no exception";
    } catch (const TaviSDK::Exception& exception) {
        EXPECT_STREQ(exception.what(), "it broke");
    }
    const std::string problem =
        file("session.jsonl") + ":6: expected Tavi_GoToHomePosition(), and Tavi_Scan(1,2,3,4) came";
    EXPECT_NE(Tavi_Scan(1, 2, 3, 4), 0);
    EXPECT_EQ(option("LastError"), problem);
    EXPECT_NE(Tavi_GoToHomePosition(), 0); // nothing works any more
    EXPECT_EQ(option("LastError"), problem);

    // A damaged file: no table rather than another one.
    std::ofstream(file("session.jsonl"), std::ios::app) << "more\n";
    EXPECT_NE(TaviSDK::setSimulation(mSimulation).find(":8: there is something behind the end"),
              std::string::npos);
    EXPECT_NE(Tavi_IsTableConnected(), 0);
}

} // namespace
