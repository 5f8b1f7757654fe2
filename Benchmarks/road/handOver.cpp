// Work that a thread hands to the main loop: from schedule to perform, beside libuv's uv_async_send to
// callback.

#include "Report.h"

#include <VellDevice/VellDevice.h>

#include <RemoteObjectPerformer.h>
#include <uv.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <thread>

namespace road {
namespace {

using Clock = std::chrono::steady_clock;

constexpr int kBlocks = 10;
constexpr int kPerBlock = 200;
constexpr std::chrono::microseconds kPause{100}; // the main loop has gone to sleep by then

double microsecondsSince(Clock::time_point begin) {
    return std::chrono::duration<double, std::micro>(Clock::now() - begin).count();
}

// Calls `send` again and again on a thread of its own, each time when the one before has arrived.
class Sender {
public:
    explicit Sender(std::function<void(Sender&)> send, std::function<void()> end)
        : mThread([this, send = std::move(send), end = std::move(end)] {
              for (int i = 0; i < kPerBlock; ++i) {
                  std::this_thread::sleep_for(kPause);
                  mBegin = Clock::now();
                  send(*this);
                  mArrived.wait(i);
              }
              end();
          }) {}
    ~Sender() { mThread.join(); }

    // On the main thread.
    void arrived(std::vector<double>& times) {
        times.push_back(microsecondsSince(mBegin));
        ++mArrived;
        mArrived.notify_one();
    }

private:
    Clock::time_point mBegin;
    std::atomic<int> mArrived{0};
    std::thread mThread;
};

struct Arrival : VellDevice::RemoteObjectPerformer {
    Arrival(Sender& from, std::vector<double>& into) : sender(from), times(into) {}
    void perform() override { sender.arrived(times); }

    Sender& sender;
    std::vector<double>& times;
};

void runOurs(std::vector<double>& times) {
    const VellDeviceCenterRef center = VellDeviceCenterGetDistributedCenter();
    Sender sender([&](Sender& from) { (new Arrival(from, times))->schedule(false); },
                  [=] { VellDeviceCenterStopRunLoop(center); });
    VellDeviceCenterRunLoop(center);
}

void runTheirs(std::vector<double>& times) {
    struct Target {
        uv_async_t arrival;
        uv_async_t end;
        std::vector<double>* times;
        std::atomic<Sender*> sender{nullptr};
    } target;
    target.times = &times;
    uv_loop_t loop;
    uv_loop_init(&loop);
    uv_async_init(&loop, &target.arrival, [](uv_async_t* handle) {
        auto* const self = static_cast<Target*>(handle->data);
        self->sender.load()->arrived(*self->times);
    });
    uv_async_init(&loop, &target.end, [](uv_async_t* handle) {
        auto* const self = static_cast<Target*>(handle->data);
        uv_close(reinterpret_cast<uv_handle_t*>(&self->arrival), nullptr);
        uv_close(reinterpret_cast<uv_handle_t*>(&self->end), nullptr);
    });
    target.arrival.data = target.end.data = &target;
    {
        Sender sender(
            [&](Sender& from) {
                target.sender = &from;
                uv_async_send(&target.arrival);
            },
            [&] { uv_async_send(&target.end); });
        uv_run(&loop, UV_RUN_DEFAULT);
    }
    uv_loop_close(&loop);
}

} // namespace

void measureHandOver(Report& report) {
    std::vector<double> ours;
    std::vector<double> theirs;
    for (int block = 0; block < kBlocks; ++block) {
        runOurs(ours);
        runTheirs(theirs);
    }
    report.add("hand-over to the main loop: median", quantile(ours, 0.5), "us");
    report.add("  uv_async_send to callback: median", quantile(theirs, 0.5), "us");
    report.add("  ratio of the medians", quantile(ours, 0.5) / quantile(theirs, 0.5), "", 2);
}

} // namespace road
