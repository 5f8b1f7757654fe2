// A library that stands in front of the SDK's own and records what goes through: it exports the SDK's
// functions, hands each call on to the next library that has them, and writes it to $TAVI_RECORDING.
//
// It is preloaded into a process (LD_PRELOAD) that knows nothing of it, with any SDK behind it. Any thread
// may call, several at once, too.
#include "Recording.h"
#pragma GCC visibility push(default) // its functions are all that this library exports
#include "TaviSDK.h"
#pragma GCC visibility pop

#include <dlfcn.h>
#include <fcntl.h>
#include <link.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <mutex>
#include <type_traits>

namespace TaviSDK {

namespace {

using Clock = std::chrono::steady_clock;

// --- The SDK behind

// The SDK is not among the libraries that follow this one when the plug-in, which brings it, was loaded for
// itself: then it is looked for in everything that is loaded.
void* findInLoadedLibraries(const char* name, const void* own) {
    std::vector<std::string> libraries;
    dl_iterate_phdr(
        [](dl_phdr_info* info, std::size_t, void* names) {
            static_cast<std::vector<std::string>*>(names)->emplace_back(info->dlpi_name);
            return 0;
        },
        &libraries);
    for (const std::string& library : libraries) {
        void* const handle = library.empty() ? nullptr : dlopen(library.c_str(), RTLD_LAZY | RTLD_NOLOAD);
        void* const function = handle != nullptr ? dlsym(handle, name) : nullptr;
        if (handle != nullptr) {
            dlclose(handle);
        }
        if (function != nullptr && function != own) {
            return function;
        }
    }
    return nullptr;
}

template <typename Function>
Function* behind(const char* name, Function* own) {
    void* const self = reinterpret_cast<void*>(own);
    void* function = dlsym(RTLD_NEXT, name);
    if (function == nullptr || function == self) {
        function = findInLoadedLibraries(name, self);
    }
    if (function == nullptr) {
        std::fprintf(stderr, "TaviRecorder: there is no SDK with %s in this process\n", name);
        std::abort();
    }
    return reinterpret_cast<Function*>(function);
}

// --- The file

// The recording's file. Each line is written in one piece together with the line that ends the recording,
// which the next one replaces: whenever the process is killed, the file is whole. One thread at a time.
class RecordingFile {
public:
    // A recording that is there already stays: the new one's name gets a number.
    bool open(const std::string& name) {
        mName = name;
        for (int number = 2; !openNew() && errno == EEXIST && number < 10000; ++number) {
            mName = name + "." + std::to_string(number);
        }
        if (mDescriptor < 0) {
            fail();
            return false;
        }
        std::array<char, 32> date;
        const std::time_t now = std::time(nullptr);
        std::tm parts{};
        std::strftime(date.data(), date.size(), "%Y-%m-%dT%H:%M:%SZ", gmtime_r(&now, &parts));
        mAbout.date = date.data();
        mLine = formatHeader(mAbout) + "\n";
        mHeaderLength = mLine.size();
        return putLine();
    }

    bool add(const RecordedEvent& event) {
        mLine.clear();
        appendEvent(mLine, mNumber, event);
        mLine += '\n';
        return putLine();
    }

    // A serial number, once it is known, goes into the header, as long as that has room for it.
    void learn(std::optional<std::string> Recording::*which, const std::string& serialNumber) {
        Recording about = mAbout;
        about.*which = serialNumber;
        const std::string header = formatHeader(about) + "\n";
        if (about.*which != mAbout.*which && header.size() == mHeaderLength && put(header, 0)) {
            mAbout = about;
        }
    }

private:
    bool openNew() {
        mDescriptor = ::open(mName.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
        return mDescriptor >= 0;
    }

    // The header, or the event with the number mNumber, in mLine.
    bool putLine() {
        const std::size_t length = mLine.size();
        const long next = mNumber + (mEnd == 0 ? 0 : 1);
        appendEnd(mLine, next);
        mLine += '\n';
        if (!put(mLine, mEnd)) {
            fail();
            // What is there stays readable.
            if (::ftruncate(mDescriptor, mEnd) == 0 && mEnd > 0) {
                mLine.clear();
                appendEnd(mLine, mNumber);
                put(mLine + "\n", mEnd);
            }
            return false;
        }
        mNumber = next;
        mEnd += static_cast<off_t>(length);
        return true;
    }

    bool put(std::string_view text, off_t place) const {
        while (!text.empty()) {
            const ssize_t written = ::pwrite(mDescriptor, text.data(), text.size(), place);
            if (written < 0 && errno != EINTR) {
                return false;
            }
            if (written > 0) {
                text.remove_prefix(static_cast<std::size_t>(written));
                place += written;
            }
        }
        return true;
    }

    void fail() const {
        std::fprintf(stderr, "TaviRecorder: %s: %s; from here on nothing is recorded\n", mName.c_str(),
                     std::strerror(errno));
    }

    std::string mName;
    int mDescriptor = -1;
    std::string mLine;
    long mNumber = 1; // of the next line
    off_t mEnd = 0;   // where the line begins that ends the recording
    Recording mAbout; // what the header says
    std::size_t mHeaderLength = 0;
};

// --- The recording

int threadNumber() {
    static std::atomic<int> threads{0};
    thread_local const int number = ++threads;
    return number;
}

double secondsBetween(Clock::time_point begin, Clock::time_point end) {
    return std::chrono::duration<double>(end - begin).count();
}

// One for the process, never destroyed, as threads may call until the very end. The lock is held to write a
// line, never while the SDK or the handler runs.
class Recorder {
public:
    static Recorder& instance() {
        static auto* const recorder = new Recorder;
        return *recorder;
    }

    bool isRecording() const { return mIsRecording.load(std::memory_order_relaxed); }
    Clock::time_point start() const { return mStart; }

    void add(const RecordedEvent& event) {
        const int before = errno;
        {
            const std::lock_guard lock(mMutex);
            if (isRecording()) {
                mIsRecording = mFile.add(event);
                learnFrom(event);
            }
        }
        errno = before;
    }

    // The plug-in's message handler; the SDK has ours while there is one.
    std::atomic<Tavi_DeviceMessageHandler> handler{nullptr};

private:
    Recorder() {
        const char* const name = std::getenv("TAVI_RECORDING");
        mIsRecording = name != nullptr && *name != '\0' && mFile.open(name);
    }
    ~Recorder() = delete;

    void learnFrom(const RecordedEvent& event) {
        if (!isRecording() || event.call == nullptr || !event.text || event.text->empty()) {
            return;
        }
        if (event.arguments == "\"TaviTSerialNumber\"") {
            mFile.learn(&Recording::table, *event.text);
        } else if (event.arguments == "\"TaviTTaviSerialNumber\"") {
            mFile.learn(&Recording::spectrophotometer, *event.text);
        }
    }

    const Clock::time_point mStart = Clock::now();
    std::atomic<bool> mIsRecording{false};
    std::mutex mMutex; // guards everything below
    RecordingFile mFile;
};

// One call on its way through: from its beginning until what came of it has been written.
class PassingCall {
public:
    template <typename... Arguments>
    explicit PassingCall(const CallForm* form, Arguments... arguments) {
        mEvent.call = form;
        mEvent.thread = threadNumber();
        (add(arguments), ...);
        mBegin = Clock::now();
        mEvent.at = secondsBetween(Recorder::instance().start(), mBegin);
    }

    void ended() { mEvent.took = secondsBetween(mBegin, Clock::now()); }
    void raised(const char* text) {
        ended();
        mEvent.exception = text;
        write();
    }
    void write() const { Recorder::instance().add(mEvent); }
    RecordedEvent& event() { return mEvent; }

private:
    template <typename Argument>
    void add(Argument argument) {
        if (!mEvent.arguments.empty()) {
            mEvent.arguments += ',';
        }
        if constexpr (std::is_pointer_v<Argument>) {
            appendText(mEvent.arguments, argument);
        } else {
            appendNumber(mEvent.arguments, argument);
        }
    }

    RecordedEvent mEvent;
    Clock::time_point mBegin;
};

// Hands a call on; `note` puts its result into the event. An exception of whatever type passes through.
template <typename Function, typename Note, typename... Arguments>
auto pass(const CallForm* form, Function function, Note note, Arguments... arguments) {
    if (!Recorder::instance().isRecording()) {
        return function();
    }
    PassingCall call(form, arguments...);
    const auto handOn = [&] {
        try {
            return function();
        } catch (const std::exception& exception) {
            call.raised(exception.what());
            throw;
        } catch (...) {
            call.raised("an exception of another type");
            throw;
        }
    };
    if constexpr (std::is_void_v<decltype(function())>) {
        handOn();
        call.ended();
        call.write();
    } else {
        const auto result = handOn();
        call.ended();
        note(call.event(), result);
        call.write();
        return result;
    }
}

void noteStatus(RecordedEvent& event, int status) {
    event.status = status;
}

// What the call filled when it succeeded.
auto noteValues(std::span<const float> values) {
    return [values](RecordedEvent& event, int status) {
        event.status = status;
        if (status == 0) {
            event.values.assign(values.begin(), values.end());
        }
    };
}

void handleMessage(Tavi_DeviceMessage message, const char* text) {
    Recorder& recorder = Recorder::instance();
    RecordedEvent event;
    event.thread = threadNumber();
    event.at = secondsBetween(recorder.start(), Clock::now());
    event.status = message;
    if (text != nullptr) {
        event.text = text;
    }
    recorder.add(event);
    if (const Tavi_DeviceMessageHandler handler = recorder.handler) {
        handler(message, text);
    }
}

} // namespace

} // namespace TaviSDK

using TaviSDK::findCallForm;
using TaviSDK::noteStatus;
using TaviSDK::noteValues;
using TaviSDK::pass;

// Its function behind, and its form, found with the first call.
#define TAVI_BEHIND(name)                                                                                    \
    static const auto next = TaviSDK::behind(#name, &name);                                                  \
    static const TaviSDK::CallForm* const form = findCallForm(#name)

int Tavi_SetOption(const char* key, const char* value) {
    TAVI_BEHIND(Tavi_SetOption);
    return pass(
        form, [&] { return next(key, value); }, noteStatus, key, value);
}

const char* Tavi_GetOption(const char* key) {
    TAVI_BEHIND(Tavi_GetOption);
    const auto noteText = [](TaviSDK::RecordedEvent& event, const char* text) {
        if (text != nullptr) {
            event.text = text;
        }
    };
    return pass(
        form, [&] { return next(key); }, noteText, key);
}

int Tavi_IsTableConnected() {
    TAVI_BEHIND(Tavi_IsTableConnected);
    return pass(
        form, [&] { return next(); }, noteStatus);
}

int Tavi_GoToHomePosition() {
    TAVI_BEHIND(Tavi_GoToHomePosition);
    return pass(
        form, [&] { return next(); }, noteStatus);
}

int Tavi_SetPosition(float x, float y) {
    TAVI_BEHIND(Tavi_SetPosition);
    return pass(
        form, [&] { return next(x, y); }, noteStatus, x, y);
}

int Tavi_GetPosition(float* x, float* y) {
    TAVI_BEHIND(Tavi_GetPosition);
    const auto notePlace = [&](TaviSDK::RecordedEvent& event, int status) {
        event.status = status;
        if (status == 0) {
            event.values = {*x, *y};
        }
    };
    return pass(
        form, [&] { return next(x, y); }, notePlace);
}

int Tavi_Calibrate() {
    TAVI_BEHIND(Tavi_Calibrate);
    return pass(
        form, [&] { return next(); }, noteStatus);
}

int Tavi_TriggerMeasurement() {
    TAVI_BEHIND(Tavi_TriggerMeasurement);
    return pass(
        form, [&] { return next(); }, noteStatus);
}

int Tavi_Scan(float fromX, float fromY, float toX, float toY) {
    TAVI_BEHIND(Tavi_Scan);
    return pass(
        form, [&] { return next(fromX, fromY, toX, toY); }, noteStatus, fromX, fromY, toX, toY);
}

int Tavi_GetNumberOfAvailableSamples() {
    TAVI_BEHIND(Tavi_GetNumberOfAvailableSamples);
    return pass(
        form, [&] { return next(); }, noteStatus);
}

int Tavi_GetSpectrum(float out[36], int index) {
    TAVI_BEHIND(Tavi_GetSpectrum);
    return pass(
        form, [&] { return next(out, index); }, noteValues({out, 36}), index);
}

int Tavi_GetTriStimulus(float out[3], int index) {
    TAVI_BEHIND(Tavi_GetTriStimulus);
    return pass(
        form, [&] { return next(out, index); }, noteValues({out, 3}), index);
}

void Tavi_RegisterDeviceMessageHandler(Tavi_DeviceMessageHandler handler) {
    TAVI_BEHIND(Tavi_RegisterDeviceMessageHandler);
    std::atomic<Tavi_DeviceMessageHandler>& current = TaviSDK::Recorder::instance().handler;
    // A new handler may be called before the call returns; the old one may run until then.
    const Tavi_DeviceMessageHandler before = handler != nullptr ? current.exchange(handler) : current.load();
    const auto handOn = [&] {
        try {
            next(handler != nullptr ? TaviSDK::handleMessage : nullptr);
        } catch (...) {
            current = before;
            throw;
        }
    };
    pass(form, handOn, nullptr, handler != nullptr ? "handler" : nullptr);
    if (handler == nullptr) {
        current = nullptr;
    }
}
