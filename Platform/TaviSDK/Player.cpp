#include "Player.h"

#include <algorithm>

namespace TaviSDK {

namespace {

// What a reading call reads stays until the next reading of the instrument.
bool readsSamples(const CallForm& form) {
    return form.name == "Tavi_GetNumberOfAvailableSamples" || form.name == "Tavi_GetSpectrum" ||
           form.name == "Tavi_GetTriStimulus";
}

bool mayChange(const RecordedEvent& change, const RecordedEvent& asked) {
    if (change.call->name != "Tavi_SetOption") {
        return asked.call->name == "Tavi_GetPosition";
    }
    return change.arguments.starts_with(asked.arguments + ",") || change.arguments.starts_with("\"Reset\",");
}

} // namespace

Player::Player(Recording recording, std::string name)
    : mRecording(std::make_shared<const Recording>(std::move(recording))), mName(std::move(name)) {
    for (Index index = 0; index < mRecording->events.size(); ++index) {
        const RecordedEvent& event = mRecording->events[index];
        if (event.call != nullptr && !event.call->changes) {
            mReads[event.shown()].push_back(index);
        }
    }
    mNext = nextChange(0);
}

std::shared_ptr<const RecordedEvent> Player::event(Index index) const {
    return {mRecording, &mRecording->events[index]};
}

Player::Index Player::nextChange(Index from) const {
    const auto begin = mRecording->events.begin();
    const auto found = std::find_if(begin + static_cast<std::ptrdiff_t>(from), mRecording->events.end(),
                                    [](const RecordedEvent& event) { return event.changes(); });
    return static_cast<Index>(found - begin);
}

Player::Answer Player::answer(std::string_view call, const std::string& arguments) {
    const CallForm& form = *findCallForm(call);
    const std::lock_guard lock(mMutex);
    if (!mProblem.empty()) {
        Answer failed;
        failed.problem = mProblem;
        return failed;
    }
    return form.changes ? change(form, arguments) : read(form, arguments);
}

Player::Answer Player::fail(Index expected, const std::string& shown) {
    const std::vector<RecordedEvent>& events = mRecording->events;
    const std::string line = mName + ":" + std::to_string(expected + 2) + ": ";
    mProblem = expected == events.size()
                   ? line + "the recording ends here, and " + shown + " came"
                   : line + "expected " + events[expected].shown() + ", and " + shown + " came";
    Answer answer;
    answer.problem = mProblem;
    answer.isFirstProblem = true;
    return answer;
}

Player::Answer Player::change(const CallForm& form, const std::string& arguments) {
    const std::vector<RecordedEvent>& events = mRecording->events;
    RecordedEvent asked;
    asked.call = &form;
    asked.arguments = arguments;
    if (mNext == events.size() || events[mNext].call != &form || events[mNext].arguments != arguments) {
        return fail(mNext, asked.shown());
    }
    Answer answer;
    const RecordedEvent& recorded = events[mNext];
    answer.event = event(mNext);
    for (; mMessages < mNext; ++mMessages) {
        const RecordedEvent& message = events[mMessages];
        if (message.call == nullptr) {
            answer.during.emplace_back(std::clamp(message.at - recorded.at, 0.0, recorded.took),
                                       Message{message.status, message.text.value_or("")});
        }
    }
    mPlace = mNext + 1;
    mMessages = mPlace;
    mNext = nextChange(mPlace);
    mRepeats.clear();
    answer.handsOver = mNext < events.size() && events[mNext].thread != recorded.thread;
    takeMessages(std::nullopt, answer);
    return answer;
}

// The messages that come next: after the reading call that was answered, or after the change.
void Player::takeMessages(std::optional<Index> read, Answer& answer) {
    const std::vector<RecordedEvent>& events = mRecording->events;
    const double until = mNext < events.size() ? events[mNext].at : events.empty() ? 0.0 : events.back().at;
    Index index = mMessages;
    while (index < mNext && (events[index].call != nullptr) && (read && index <= *read)) {
        ++index;
    }
    for (; index < mNext && events[index].call == nullptr && events[index].at <= until; ++index) {
        answer.after.push_back({events[index].status, events[index].text.value_or("")});
        mMessages = index + 1;
    }
}

Player::Answer Player::read(const CallForm& form, const std::string& arguments) {
    RecordedEvent asked;
    asked.call = &form;
    asked.arguments = arguments;
    const std::string shown = asked.shown();
    const auto found = mReads.find(shown);
    if (found == mReads.end()) {
        return fail(mNext, shown);
    }
    const std::vector<Index>& reads = found->second;
    const auto begin = std::lower_bound(reads.begin(), reads.end(), mPlace);
    const auto end = std::lower_bound(begin, reads.end(), mNext);
    Answer answer;
    if (begin != end) {
        const Index repeat = mRepeats[shown]++;
        const Index last = static_cast<Index>(end - begin) - 1;
        const Index chosen = *(begin + static_cast<std::ptrdiff_t>(std::min(repeat, last)));
        answer.event = event(chosen);
        takeMessages(chosen, answer);
        return answer;
    }
    const std::optional<Index> known = readsSamples(form) ? std::nullopt : stateAt(reads, asked);
    if (!known) {
        return fail(mNext, shown);
    }
    answer.event = event(*known);
    return answer;
}

// The answer before this place, unless a change since then concerns it and there is one behind this place.
std::optional<Player::Index> Player::stateAt(const std::vector<Index>& reads,
                                             const RecordedEvent& asked) const {
    const std::vector<RecordedEvent>& events = mRecording->events;
    const auto after = std::lower_bound(reads.begin(), reads.end(), mPlace);
    if (after == reads.begin()) {
        return *after;
    }
    const Index before = *(after - 1);
    const auto isConcerned = [&](const RecordedEvent& event) {
        return event.changes() && mayChange(event, asked);
    };
    const bool isStale = std::any_of(events.begin() + static_cast<std::ptrdiff_t>(before),
                                     events.begin() + static_cast<std::ptrdiff_t>(mPlace), isConcerned);
    return isStale && after != reads.end() ? *after : before;
}

} // namespace TaviSDK
