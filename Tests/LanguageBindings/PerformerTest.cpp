#include "PluginBench.h"
#include "RemoteObjectPerformer.h"

#include <atomic>
#include <chrono>

namespace test {
namespace {

using VellDevice::RemoteObjectPerformer;

struct Notes {
    std::atomic<int> performed{0};
    std::atomic<int> deleted{0};
    std::thread::id performedBy;
};

class NotingPerformer : public RemoteObjectPerformer {
public:
    explicit NotingPerformer(Notes& notes) : mNotes(notes) {}
    ~NotingPerformer() override { ++mNotes.deleted; }
    void perform() override {
        mNotes.performedBy = std::this_thread::get_id();
        ++mNotes.performed;
    }

private:
    Notes& mNotes;
};

class Performer : public ::testing::Test {
protected:
    Performer() { VellService::resetCenterForTesting(); }
    void pass() { VellDeviceCenterRunLoopOnce(VellDeviceCenterGetDistributedCenter()); }
    ScratchFolder scratch;
    Notes notes;
};

TEST_F(Performer, OnTheMainThreadTheWorkIsDoneAtOnce) {
    {
        NotingPerformer kept(notes);
        kept.schedule(true);
        EXPECT_EQ(notes.performed, 1);
        EXPECT_EQ(notes.deleted, 0);
    }
    auto* const freed = new NotingPerformer(notes);
    freed->scheduleOnRunLoop(freed, false);
    EXPECT_EQ(notes.performed, 2);
    EXPECT_EQ(notes.deleted, 2);
}

TEST_F(Performer, WorkersWaitForTheMainThread) {
    std::atomic<bool> returned{false};
    std::thread worker([&] {
        NotingPerformer performer(notes);
        performer.schedule(true);
        EXPECT_EQ(notes.performed, 1);
        returned = true;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
    EXPECT_FALSE(returned);
    while (!returned)
        pass();
    worker.join();
    EXPECT_EQ(notes.performedBy, std::this_thread::get_id());
    EXPECT_EQ(notes.deleted, 1);
}

TEST_F(Performer, OthersGoOnAndTheObjectDeletesItself) {
    std::thread worker([&] { (new NotingPerformer(notes))->schedule(false); });
    worker.join();
    EXPECT_EQ(notes.performed, 0);
    pass();
    EXPECT_EQ(notes.performed, 1);
    EXPECT_EQ(notes.deleted, 1);
    EXPECT_EQ(notes.performedBy, std::this_thread::get_id());
}

// Waiters take their performers off the stack the moment they see that the work is done.
TEST_F(Performer, ManyWorkersAtOnce) {
    constexpr int kWorkers = 4;
    constexpr int kTurns = 50;
    const auto begin = std::chrono::steady_clock::now();
    std::atomic<int> finished{0};
    std::vector<std::thread> workers;
    for (int worker = 0; worker < kWorkers; ++worker)
        workers.emplace_back([&] {
            for (int turn = 0; turn < kTurns; ++turn) {
                NotingPerformer performer(notes);
                performer.schedule(true);
            }
            ++finished;
        });
    while (finished < kWorkers)
        pass();
    for (std::thread& worker : workers)
        worker.join();
    EXPECT_EQ(notes.performed, kWorkers * kTurns);
    EXPECT_EQ(notes.deleted, kWorkers * kTurns);
    // Each is woken by its own work: had every turn waited for its next look, they had taken this many
    // seconds.
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(kTurns));
}

} // namespace
} // namespace test
