// Sweeps: an operation is carried out again and again, each time with something happening at another of the
// calls that it makes of the SDK: at its first, at its second, and so on until it makes no more.
#pragma once

#include "DriverBench.h"

#include <condition_variable>
#include <functional>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace test {

// Ends the test program, saying in which step, when a step takes too long: a deadlock fails, it does not
// hang. Any thread.
class StepDeadline {
public:
    StepDeadline();
    ~StepDeadline();
    void begin(const std::string& step);

private:
    void watch();

    std::mutex mLock; // guards everything below but the thread
    std::condition_variable mChanged;
    std::string mStep;
    std::chrono::steady_clock::time_point mEnd;
    bool mIsOver = false;
    std::thread mThread;
};

// The call at which something happens.
struct Hit {
    int number = 0;           // of the operation's calls, from 1; 0: none
    std::string call;         // "Tavi_SetOption Beep=no"
    int occurrence = 0;       // of this very call, from 1
    bool onWorker = false;    // else on the main thread
    int spot = 0;             // of the row that is read by spots, from 1; 0: it is not
    std::size_t answered = 0; // answers that the operation had given before

    bool is(const std::string& beginning) const { return call.starts_with(beginning); }
    // One of the attribute pass's reads, an exception out of which is nobody's failure.
    bool isInAttributePass() const;
};

struct Operation {
    std::string label;
    std::string command{}; // "": act
    std::map<std::string, std::string> arguments{};
    std::function<void()> act{};     // on the main thread
    std::function<void()> prepare{}; // before each time
    bool onWorker = false;           // only its worker's calls count
};

// A measurement on a worker.
struct ScanCase {
    const char* label;
    ChartOnTable chart;
    int row = -1; // the one to scan; -1: all of them, -2: the first, as the chart scan reads it
    int spots = 0;

    std::size_t answers() const { return row == -1 ? static_cast<std::size_t>(chart.rows) : 1; }
    bool endsAtHome() const { return row == -1 || row == chart.rows - 1; }
    Operation operation() const;
};

void PrintTo(const ScanCase& scan, std::ostream* out);

class SweepBench : public DriverBench {
protected:
    SweepBench() : DriverBench("error") {}
    void SetUp() override;
    void TearDown() override;

    // Happens inside the call, on its thread; its result is the call's, as a call hook's is.
    using Event = std::function<std::optional<int>(const Hit&)>;
    using Check = std::function<void(const Hit&, const std::vector<Post>& answers)>;

    // Carries the operation out with `event` at each of its calls in turn; `meanwhile` runs on the main
    // thread once the operation's command was taken; when it returns, only the driver's own threads make
    // calls. After each time everything is whole again and a scan succeeds, with the next driver when this
    // one has ended.
    void sweep(const Operation& operation, const std::string& what, const Event& event, const Check& check,
               const std::function<void()>& meanwhile = {});

    // A driver as new starts and connects, with the chart on its table.
    Operation connecting();
    // The service takes the table away; the driver has ended then.
    void removeHardware();

    void expectEmptyRecord(); // that of a driver that has let go of its instrument
    void expectNoThreadLeft();
    void expectHeadAtHome() const; // the operation's last move of the head went there
    bool headWasSentHome() const;
    bool headWasMoved() const { return !mMoves.empty(); }

    ChartOnTable chart{.rows = 2, .columns = 2};
    StepDeadline deadline;

private:
    struct Carried {
        std::size_t calls;
        std::vector<Post> answers;
    };
    Carried carryOut(const Operation& operation, const std::string& step, int at, const Event& event,
                     Hit& hit, const std::function<void()>& meanwhile = {});
    void recover(); // ready for scans, as a client makes it
    void startAgainIfEnded();
    void settle(); // until nothing is under way
    void expectWhole();
    void expectFirstRow(); // of the chart on the table

    std::vector<std::string> mMoves; // of the head, by the operation that was carried out last
    std::size_t mThreads = 0;        // of the process, while nothing is under way
};

} // namespace test
