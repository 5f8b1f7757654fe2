#include "ServiceTest.h"

#include <CoreFoundation/Clock.h>

#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <list>
#include <thread>

using namespace VellTest;
using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::Ge;
using ::testing::HasSubstr;

namespace {

class ServerTest : public PluginTest {};

long descriptorsOfThisProcess() {
    const std::filesystem::directory_iterator open("/proc/self/fd");
    return std::distance(begin(open), end(open));
}

TEST_F(ServerTest, CommandArrivesWholeAndItsResponseGoesToItsSender) {
    std::string seen;
    onCommand = [&](VellDeviceCommandRef command) {
        const VellReceiptRef receipt = VellDeviceCommandGetReceipt(command);
        seen = nameOf(command) + " " + argument(command, "key") + " " +
               textOf(VellReceiptGetTicket(receipt)) + " " + textOf(VellReceiptGetProcessIdentifier(receipt));
        respond(command, -1022, "locked");
    };
    FrameClient client = connect();
    FrameClient other = connect();
    client.sendCommand("SetAttribute", "t-1", {{"Key", "Speed"}});
    const auto response = client.receive();
    ASSERT_TRUE(response);
    EXPECT_EQ(seen, "SetAttribute Speed t-1 " + std::to_string(getpid()));
    EXPECT_EQ(response->text("Type"), "Response");
    EXPECT_EQ(response->text("Ticket"), "t-1");
    EXPECT_EQ(response->text("Name"), "SetAttribute");
    EXPECT_EQ(response->integer("Code"), -1022);
    EXPECT_EQ(response->text("Message"), "locked");
    EXPECT_FALSE(other.receive(std::chrono::milliseconds(20)));
}

TEST_F(ServerTest, LateClientGetsTheLastStatusFirst) {
    VellDeviceSetMode(device(), constant("ScanningReflectance"));
    VellDeviceSetCalibrationStatus(device(), -1);
    VellDevicePostStatus(device());
    VellDeviceSetMode(device(), constant("SingleReflectance"));
    VellDeviceSetLockHolder(device(), constant("17"));
    VellDevicePostStatus(device());
    FrameClient client = connect();
    client.sendCommand("Quit", "1");
    const auto status = client.receive();
    ASSERT_TRUE(status);
    EXPECT_EQ(status->text("Type"), "Status");
    const Dictionary record = status->dictionary("Record");
    EXPECT_EQ(record.text("Name"), kName);
    EXPECT_EQ(record.text("Path"), kSource);
    EXPECT_EQ(record.text("Mode"), "SingleReflectance");
    EXPECT_EQ(record.text("LockHolder"), "17");
    EXPECT_EQ(record.integer("Locked"), 1);
    EXPECT_EQ(record.integer("CalibrationStatus"), -1);
    EXPECT_EQ(record.dictionary("Attributes").text("DevicePath"), kSource);
    EXPECT_EQ(client.receive()->text("Type"), "Response");

    VellDevicePostClose(device());
    EXPECT_EQ(client.receive()->text("Type"), "Close");
    FrameClient later = connect();
    later.sendCommand("Quit", "1");
    EXPECT_EQ(later.receive()->text("Type"), "Response"); // no status of what is gone
}

TEST_F(ServerTest, StatusThatSaysNothingNewIsForTheOneWhoAsks) {
    CoreFoundation::VirtualClock clock;
    onCommand = [&](VellDeviceCommandRef command) {
        VellDeviceSetMode(device(), VellDeviceCommandGetArgument(command, constant("mode")));
        VellDevicePostStatus(device());
        respond(command, 0);
    };
    FrameClient asking = connect();
    FrameClient idle = connect();
    const auto askFor = [&](const char* mode) {
        asking.sendCommand("SetMode", "1", {{"mode", mode}});
        EXPECT_EQ(asking.receive()->dictionary("Record").text("Mode"), mode);
        EXPECT_EQ(asking.receive()->text("Type"), "Response");
    };
    const auto idleHears = [&](const char* mode) {
        const auto status = idle.receive();
        return status && status->dictionary("Record").text("Mode") == mode;
    };
    askFor("a");
    askFor("a");
    askFor("b");
    EXPECT_TRUE(idleHears("a"));
    EXPECT_TRUE(idleHears("b"));
    askFor("b");
    EXPECT_FALSE(idle.receive(std::chrono::milliseconds(20)));
    clock.advance(0.2);
    askFor("b");
    EXPECT_TRUE(idleHears("b"));
    VellDevicePostStatus(device()); // for nobody in particular
    EXPECT_TRUE(idleHears("b"));
}

TEST_F(ServerTest, StatusThatSaysNothingNewWaitsForTheAnswerAndNoLonger) {
    VellDevicePostStatus(device());
    FrameClient client = connect();
    ASSERT_TRUE(client.receive());
    const auto isThere = [&] {
        pollfd descriptor{client.descriptor(), POLLIN, 0};
        return poll(&descriptor, 1, 0) == 1;
    };
    bool leftAtOnce = false;
    onCommand = [&](VellDeviceCommandRef command) {
        if (nameOf(command) == "SetMode")
            VellDeviceSetMode(device(), constant("other"));
        VellDevicePostStatus(device());
        leftAtOnce = isThere();
        if (nameOf(command) != "Silent")
            respond(command, 0);
    };
    const auto nextAre = [&](const std::vector<std::string>& types) {
        return std::all_of(types.begin(), types.end(),
                           [&](const std::string& type) { return client.receive()->text("Type") == type; });
    };
    client.sendCommand("SetMode", "1");
    EXPECT_TRUE(nextAre({"Status", "Response"}));
    EXPECT_TRUE(leftAtOnce);
    client.sendCommand("Quit", "2");
    EXPECT_TRUE(nextAre({"Status", "Response"}));
    EXPECT_FALSE(leftAtOnce);
    client.sendCommand("Silent", "3");
    EXPECT_TRUE(nextAre({"Status"}));
    EXPECT_FALSE(leftAtOnce);
}

TEST_F(ServerTest, ResponseToAnOwnCommandGoesToEveryClientAndOnlyOnce) {
    FrameClient first = connect();
    FrameClient second = connect();
    runSomePasses();
    const Owned command(VellDeviceCommandCreate(constant("BeginMeasure")));
    const Owned response(VellDeviceCommandResponseCreate(static_cast<VellDeviceCommandRef>(command.get())));
    VellDeviceCommandResponsePost(static_cast<VellDeviceCommandResponseRef>(response.get()));
    VellDeviceCommandResponsePost(static_cast<VellDeviceCommandResponseRef>(response.get()));
    for (FrameClient* client : {&first, &second}) {
        EXPECT_EQ(client->receive()->text("Name"), "BeginMeasure");
        EXPECT_FALSE(client->receive(std::chrono::milliseconds(10)));
    }
}

TEST_F(ServerTest, OnlyThePluginSpeaksForItsButton) {
    std::vector<std::string> sources;
    onCommand = [&](VellDeviceCommandRef command) { sources.push_back(argument(command, "source")); };
    // Its own commands come back through the queue that all commands take.
    const Owned own(VellDeviceCommandCreate(constant("Measure")));
    VellDeviceCommandSetArgument(static_cast<VellDeviceCommandRef>(own.get()), constant("source"),
                                 constant("hardware"));
    const Owned receipt(VellDeviceSendCommand(device(), static_cast<VellDeviceCommandRef>(own.get())));
    EXPECT_TRUE(sources.empty());
    ASSERT_TRUE(runUntil([&] { return sources.size() == 1; }));
    EXPECT_NE(textOf(VellReceiptGetTicket(static_cast<VellReceiptRef>(receipt.get()))), "");

    // Another process may claim what it likes.
    const pid_t child = fork();
    if (child == 0) {
        FrameClient client = connect();
        client.send(FrameClient::command("Measure", "1", {{"SOURCE", "hardware"}}), false);
        client.send(FrameClient::command("Measure", "2", {{"source", "software"}}), false);
        poll(nullptr, 0, 50);
        _exit(0);
    }
    ASSERT_TRUE(runUntil([&] { return sources.size() == 3; }));
    EXPECT_THAT(sources, ElementsAre("hardware", "", "software"));
    waitpid(child, nullptr, 0);
}

TEST_F(ServerTest, HandlersNeverNestAndPostsLeaveDuringThem) {
    std::vector<std::string> order;
    bool inside = false;
    FrameClient client = connect();
    onCommand = [&](VellDeviceCommandRef command) {
        EXPECT_FALSE(inside);
        inside = true;
        respond(command, 0);
        runSomePasses(3);
        EXPECT_TRUE(client.receive(std::chrono::seconds(5), false)); // has left already
        order.push_back(nameOf(command));
        inside = false;
    };
    client.send(FrameClient::command("A", "1") + FrameClient::command("B", "2") +
                FrameClient::command("C", "3"));
    ASSERT_TRUE(runUntil([&] { return order.size() == 3; }));
    EXPECT_THAT(order, ElementsAre("A", "B", "C"));
}

TEST_F(ServerTest, TenThousandPipelinedCommandsAreAnsweredInOrderBesideAnotherClient) {
    constexpr int count = 10000;
    std::size_t deepest = 0;
    char bottom = 0;
    const char* const base = &bottom;
    onCommand = [&](VellDeviceCommandRef command) {
        char top = 0;
        deepest = std::max(deepest, static_cast<std::size_t>(std::abs(base - &top)));
        respond(command, 0);
        pass();
    };
    std::string bytes;
    for (int i = 0; i < count; ++i)
        bytes += FrameClient::command("Quit", std::to_string(i));
    FrameClient client = connect();
    FrameClient patient = connect();
    std::thread sender([&] { EXPECT_TRUE(client.send(bytes, false)); });
    runSomePasses(2);
    patient.sendCommand("Quit", "alone");
    int passes = 0;
    while (!patient.receive(std::chrono::milliseconds(0), false)) {
        pass();
        ++passes;
    }
    EXPECT_LT(passes, 20); // it does not wait for the queue of the other
    for (int i = 0; i < count; ++i)
        ASSERT_EQ(client.receive()->text("Ticket"), std::to_string(i));
    sender.join();
    EXPECT_LT(deepest, 64U * 1024);
}

TEST_F(ServerTest, ObserversMayComeAndGoInsideTheirCallback) {
    int calls = 0;
    const auto once = [](void* context, VellDeviceCommandRef) {
        ++*static_cast<int*>(context);
        VellDeviceCenterUnregisterCommandObserver(center(), context, nullptr);
    };
    VellDeviceCenterRegisterCommandObserver(center(), &calls, nullptr, once, 1);
    FrameClient client = connect();
    client.sendCommand("Quit", "1");
    client.sendCommand("Quit", "2");
    client.receive();
    client.receive();
    EXPECT_EQ(calls, 1);
    VellDeviceCenterUnregisterCommandObserver(center(), this, constant(kName));
    client.sendCommand("Quit", "3");
    EXPECT_FALSE(client.receive(std::chrono::milliseconds(20)));
}

TEST_F(ServerTest, ResponseFollowsTheConnectionNotItsDescriptor) {
    Owned kept;
    onCommand = [&](VellDeviceCommandRef command) { kept.reset(VellCopy(command)); };
    {
        FrameClient leaver = connect();
        leaver.sendCommand("Measure", "1");
        ASSERT_TRUE(runUntil([&] { return kept != nullptr; }));
    }
    runSomePasses();
    FrameClient successor = connect(); // takes over the descriptor
    runSomePasses();
    respond(static_cast<VellDeviceCommandRef>(kept.get()), 0);
    EXPECT_FALSE(successor.receive(std::chrono::milliseconds(20)));
}

TEST_F(ServerTest, ClientThatNeverReadsIsCutOffAndDisturbsNobody) {
    const std::string bytes(8 << 20, 'x');
    const Owned data(VellDataCreateWithBytes(bytes.data(), static_cast<int>(bytes.size())));
    int posted = 0;
    onCommand = [&](VellDeviceCommandRef command) {
        const Owned response(VellDeviceCommandResponseCreate(command));
        const auto reference = static_cast<VellDeviceCommandResponseRef>(response.get());
        if (nameOf(command) == "Big")
            VellDeviceCommandResponseSetData(reference, static_cast<VellDataRef>(data.get()));
        VellDeviceCommandResponsePost(reference);
        ++posted;
    };
    FrameClient deaf = connect();
    FrameClient client = connect();
    for (int i = 1; i <= 10; ++i) { // 80 MiB
        deaf.sendCommand("Big", "1");
        ASSERT_TRUE(runUntil([&] { return posted == i || i > 8; }));
    }
    runSomePasses();
    EXPECT_GE(posted, 8); // up to the limit nothing is held against it
    client.sendCommand("Quit", "1");
    EXPECT_EQ(client.receive()->text("Name"), "Quit");
    EXPECT_TRUE(deaf.isHungUp());
}

TEST_F(ServerTest, AsManyClientsAsAProcessMayHaveAreServed) {
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = std::min<rlim_t>(limit.rlim_max, 4096);
    setrlimit(RLIMIT_NOFILE, &limit);
    std::list<FrameClient> clients;
    for (int i = 0; i < 512; ++i) {
        clients.push_back(connect());
        runSomePasses(1);
    }
    EXPECT_TRUE(connect().isHungUp()) << "the next one";
    for (FrameClient& client : clients)
        client.sendCommand("Quit", "1");
    VellDevicePostStatus(device());
    for (FrameClient& client : clients) {
        EXPECT_TRUE(client.receiveType("Status"));
        EXPECT_TRUE(client.receiveType("Response"));
    }
}

TEST_F(ServerTest, SocketThatSomebodyDeletesComesBack) {
    CoreFoundation::VirtualClock clock(CFAbsoluteTimeGetCurrent());
    FrameClient before = connect();
    before.sendCommand("Quit", "1");
    EXPECT_TRUE(before.receive());
    const std::string path = folder.socketPath(kSource);
    ASSERT_TRUE(std::filesystem::remove(path));
    clock.advance(2.1);
    ASSERT_TRUE(runUntil([&] { return std::filesystem::exists(path); }));
    FrameClient after = connect();
    for (FrameClient* const client : {&before, &after}) {
        client->sendCommand("Quit", "2");
        EXPECT_TRUE(client->receive());
    }
}

TEST_F(ServerTest, ShortageOfDescriptorsNeitherSpinsNorLosesTheListener) {
#ifdef __SANITIZE_ADDRESS__
    GTEST_SKIP() << "the undefined-behaviour sanitizer takes descriptors itself to look at an object's type";
#endif
    CoreFoundation::VirtualClock clock;
    FrameClient waiting = connect();
    FrameClient second = connect();
    rlimit old{};
    getrlimit(RLIMIT_NOFILE, &old);
    const rlimit none{3, old.rlim_max};
    setrlimit(RLIMIT_NOFILE, &none);
    runSomePasses();
    setrlimit(RLIMIT_NOFILE, &old);
    // The loop does not look again before the pause is over: a wait sleeps instead of spinning.
    waiting.sendCommand("Quit", "1");
    runSomePasses();
    EXPECT_FALSE(waiting.receive(std::chrono::milliseconds(10)));
    clock.advance(1);
    EXPECT_TRUE(waiting.receive());
}

TEST_F(ServerTest, StopLetsPostsLeaveAndTakesTheSocketAway) {
    const std::string path = folder.socketPath(kSource);
    FrameClient client = connect();
    const std::string text(4 << 20, 'x'); // more than a socket takes at once
    onCommand = [&](VellDeviceCommandRef command) {
        respond(command, 7, text);
        VellDeviceCenterStopRunLoop(center());
        EXPECT_FALSE(std::filesystem::exists(path));
    };
    client.sendCommand("Quit", "1");
    std::optional<Dictionary> response;
    std::thread reader([&] { response = client.receive(std::chrono::seconds(10), false); });
    VellDeviceCenterRunLoop(center());
    reader.join();
    ASSERT_TRUE(response);
    EXPECT_EQ(response->text("Message").size(), text.size());
    EXPECT_TRUE(client.isHungUp(std::chrono::seconds(5), false));
    EXPECT_THROW(connect(), std::runtime_error);
}

TEST_F(ServerTest, StopForgetsTheCommandsThatWait) {
    int calls = 0;
    onCommand = [&](VellDeviceCommandRef) {
        ++calls;
        VellDeviceCenterStopRunLoop(center());
    };
    FrameClient client = connect();
    runSomePasses();
    const auto before = descriptorsOfThisProcess();
    client.send(FrameClient::command("A", "1") + FrameClient::command("B", "2"));
    VellDeviceCenterRunLoop(center());
    runSomePasses();
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(descriptorsOfThisProcess(), before - 2) << "the listener's and the connection's are closed";
}

TEST_F(ServerTest, StopIsForAnyThreadAndAnyTime) {
    VellDeviceCenterStopRunLoop(center());                                   // before it runs
    VellDeviceCenterRegisterSourceNameAsServer(center(), constant(kSource)); // what a stop closes
    VellDeviceCenterRunLoop(center());
    EXPECT_FALSE(std::filesystem::exists(folder.socketPath(kSource)));
    std::thread stopper([] {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        VellDeviceCenterStopRunLoop(center());
    });
    VellDeviceCenterRunLoop(center());
    stopper.join();
}

TEST_F(ServerTest, PassOnAnotherThreadOnlyFlushes) {
    int calls = 0;
    onCommand = [&](VellDeviceCommandRef) { ++calls; };
    FrameClient client = connect();
    runSomePasses();
    client.sendCommand("Quit", "1");
    std::thread([] { runSomePasses(); }).join();
    EXPECT_EQ(calls, 0);
    EXPECT_TRUE(runUntil([&] { return calls == 1; }));
}

TEST_F(ServerTest, ManyThreadsPostWhileTheLoopRuns) {
    FrameClient client = connect();
    runSomePasses();
    constexpr int perThread = 200;
    std::vector<std::thread> posters;
    for (int t = 0; t < 4; ++t) {
        posters.emplace_back([&, t] {
            const Owned command(VellDeviceCommandCreate(constant("Row")));
            for (int i = 0; i < perThread; ++i) {
                respond(static_cast<VellDeviceCommandRef>(command.get()), t * perThread + i,
                        std::string(2000, 'x'));
                VellDeviceSetMode(device(), constant(i % 2 ? "a" : "b"));
                VellDevicePostStatus(device());
                VellDeviceCenterRunLoopOnce(center());
            }
        });
    }
    std::vector<int> last(posters.size(), -1);
    for (int count = 0; count < perThread * static_cast<int>(posters.size()); ++count) {
        const auto response = client.receiveType("Response");
        ASSERT_TRUE(response);
        const int code = static_cast<int>(response->integer("Code"));
        int& previous = last[static_cast<std::size_t>(code / perThread)];
        EXPECT_GT(code, previous); // each thread's own order
        previous = code;
    }
    for (std::thread& poster : posters)
        poster.join();
}

// --- The socket in its folder

class SocketTest : public ServiceTest {
protected:
    static constexpr const char* kSource = "usb:2/table";
    std::string path = folder.socketPath(kSource);

    static void listen() { VellDeviceCenterRegisterSourceNameAsServer(center(), constant(kSource)); }
    bool answers() const {
        try {
            const FrameClient client(path);
            return true;
        } catch (const std::runtime_error&) {
            return false;
        }
    }
    static std::string logged(const std::function<void()>& action) {
        ::testing::internal::CaptureStderr();
        action();
        return ::testing::internal::GetCapturedStderr();
    }
    // A socket at the path, listening or left by a process that is gone.
    Base::FileDescriptor makeSocket(bool listening) const {
        Base::FileDescriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof address.sun_path - 1);
        EXPECT_EQ(bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
        if (listening) {
            EXPECT_EQ(::listen(socket.get(), 1), 0);
        }
        return socket;
    }
};

TEST_F(SocketTest, StaleOneIsReplacedAndNothingElseIsLeft) {
    makeSocket(false).reset();
    listen();
    EXPECT_TRUE(answers());
    VellService::resetCenterForTesting();
    EXPECT_TRUE(std::filesystem::is_empty(folder.path()));
}

TEST_F(SocketTest, OneThatAnswersIsNotReplaced) {
    const auto owner = makeSocket(true);
    struct stat before {};
    ASSERT_EQ(lstat(path.c_str(), &before), 0);
    EXPECT_THAT(logged(listen), HasSubstr("belongs to a process that is running"));
    struct stat after {};
    ASSERT_EQ(lstat(path.c_str(), &after), 0);
    EXPECT_EQ(before.st_ino, after.st_ino);
    VellDeviceCenterStopRunLoop(center());
    EXPECT_TRUE(std::filesystem::exists(path));
}

TEST_F(SocketTest, OneWhoseOwnerEndsIsTakenOver) {
    CoreFoundation::VirtualClock clock;
    auto owner = makeSocket(true);
    EXPECT_THAT(logged(listen), HasSubstr("is running"));
    EXPECT_EQ(logged([&] {
                  clock.advance(1);
                  runSomePasses();
              }),
              "")
        << "said once";
    owner.reset();
    EXPECT_FALSE(answers());
    clock.advance(1);
    runSomePasses();
    EXPECT_TRUE(answers());
}

TEST_F(SocketTest, FolderIsPrivateAndMayNotBeALinkOrTooLong) {
    {
        const std::string made = folder.path() + "/made";
        const ScopedVariable variable("VELL_RUNTIME_DIR", made.c_str());
        listen();
        struct stat status {};
        ASSERT_EQ(stat(made.c_str(), &status), 0);
        EXPECT_EQ(status.st_mode & 0777U, 0700U);
        VellService::resetCenterForTesting();
    }
    {
        const std::string link = folder.path() + "/link";
        std::filesystem::create_directory_symlink(folder.path() + "/made", link);
        const ScopedVariable variable("VELL_RUNTIME_DIR", (link + "/").c_str());
        EXPECT_THAT(logged(listen), HasSubstr("is not a folder"));
    }
    {
        const std::string deep = folder.path() + "/" + std::string(120, 'x');
        const ScopedVariable variable("VELL_RUNTIME_DIR", deep.c_str());
        EXPECT_THAT(logged(listen), HasSubstr("too long for a socket"));
    }
    {
        const ScopedVariable variable("VELL_RUNTIME_DIR", "/tmp");
        EXPECT_THAT(logged(listen), AllOf(HasSubstr("/tmp"), HasSubstr("no clients")));
    }
    if (geteuid() == 0) { // only root can make a folder that belongs to another user
        const std::string foreign = folder.path() + "/foreign";
        std::filesystem::create_directory(foreign);
        ASSERT_EQ(chown(foreign.c_str(), 12345, 12345), 0);
        const ScopedVariable variable("VELL_RUNTIME_DIR", foreign.c_str());
        EXPECT_THAT(logged(listen), HasSubstr("belongs to another user"));
    }
}

TEST_F(SocketTest, StartersThatRaceLeaveExactlyOneListener) {
    constexpr int starters = 8;
    makeSocket(false).reset();
    int results[2];
    int hold[2];
    ASSERT_EQ(pipe(results), 0);
    ASSERT_EQ(pipe(hold), 0);
    std::vector<pid_t> children;
    for (int i = 0; i < starters; ++i) {
        const pid_t child = fork();
        if (child == 0) {
            close(hold[1]);
            const bool mine = logged(listen).find("belongs to a process") == std::string::npos;
            char result = mine ? '1' : '0';
            [[maybe_unused]] ssize_t count = write(results[1], &result, 1);
            count = read(hold[0], &result, 1); // still there while the others try
            _exit(0);
        }
        children.push_back(child);
    }
    int winners = 0;
    for (int i = 0; i < starters; ++i) {
        char result = 0;
        ASSERT_EQ(read(results[0], &result, 1), 1);
        winners += result - '0';
    }
    EXPECT_EQ(winners, 1);
    for (const int fd : {results[0], results[1], hold[0], hold[1]})
        close(fd);
    for (const pid_t child : children)
        waitpid(child, nullptr, 0);
}

} // namespace
