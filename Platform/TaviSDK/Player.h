#pragma once

#include "Recording.h"

#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace TaviSDK {

// Plays a recording back: says what each call is answered with, and which messages come meanwhile.
//
// Calls that change the instrument must come in the recorded order with the recorded arguments; the last one
// that came is the place where the playing is. A call that only reads is answered as it was at this place,
// repeatedly in the recorded order; one that was not made there gets the answer that holds at this place, as
// far as the recording tells. Readings hold at their own place only. After a call that is not as recorded
// every call fails. Any thread may call.
class Player {
public:
    Player(Recording recording, std::string name);

    struct Message {
        int message = 0;
        std::string text;
    };
    // What comes of one call.
    struct Answer {
        std::shared_ptr<const RecordedEvent> event; // null: the call fails, and `problem` says why
        std::string problem;
        bool isFirstProblem = false;
        // Another thread goes on after this call, which had its time to come in while the call lasted.
        bool handsOver = false;
        std::vector<std::pair<double, Message>> during; // with the seconds into the call at which they come
        std::vector<Message> after;
    };
    // `arguments` as they would be recorded.
    Answer answer(std::string_view call, const std::string& arguments);

private:
    using Index = std::size_t;

    Answer change(const CallForm& form, const std::string& arguments);
    Answer read(const CallForm& form, const std::string& arguments);
    Answer fail(Index expected, const std::string& shown);
    std::shared_ptr<const RecordedEvent> event(Index index) const;
    Index nextChange(Index from) const;
    std::optional<Index> stateAt(const std::vector<Index>& reads, const RecordedEvent& asked) const;
    void takeMessages(std::optional<Index> read, Answer& answer);

    const std::shared_ptr<const Recording> mRecording; // whose events the answers keep alive
    const std::string mName;
    std::map<std::string, std::vector<Index>> mReads; // where each reading call was made, by what it shows

    std::mutex mMutex;                     // guards everything below
    Index mPlace = 0;                      // behind the change that came last
    Index mNext = 0;                       // the change to come; the number of events at the end
    Index mMessages = 0;                   // messages before it have been delivered
    std::map<std::string, Index> mRepeats; // how often each reading call came at this place
    std::string mProblem;
};

} // namespace TaviSDK
