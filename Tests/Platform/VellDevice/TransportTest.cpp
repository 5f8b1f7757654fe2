#include "ServiceTest.h"

#include <VellDevice/FrameReader.h>

using namespace VellTest;
using VellService::FrameReader;

namespace {

// --- Cutting a stream into frames

void append(FrameReader& reader, std::string_view bytes) {
    reader.append(bytes.data(), bytes.size());
}

TEST(FrameReaderTest, PutsFramesTogetherHoweverTheyAreCut) {
    const std::string bytes = FrameClient::frame("one") + FrameClient::frame(std::string(100000, '2')) +
                              FrameClient::frame("three");
    for (const std::size_t step : {std::size_t{1}, std::size_t{7}, bytes.size()}) {
        FrameReader reader;
        std::vector<std::size_t> sizes;
        for (std::size_t i = 0; i < bytes.size(); i += step) {
            append(reader, std::string_view(bytes).substr(i, step));
            for (; reader.hasFrame(); reader.pop())
                sizes.push_back(reader.frame().size());
        }
        EXPECT_EQ(sizes, (std::vector<std::size_t>{3, 100000, 5})) << "in steps of " << step;
        EXPECT_FALSE(reader.isMalformed());
    }
}

TEST(FrameReaderTest, KnowsNonsenseByItsLengthAlone) {
    for (const std::string_view length : {std::string_view("\0\0\0\0", 4), std::string_view("\1\0\0\1", 4),
                                          std::string_view("\xff\xff\xff\xff", 4)}) {
        FrameReader reader;
        append(reader, length);
        EXPECT_TRUE(reader.isMalformed());
        EXPECT_FALSE(reader.hasFrame());
    }
    FrameReader largest;
    append(largest, std::string_view("\1\0\0\0", 4)); // 16 MiB
    EXPECT_FALSE(largest.isMalformed());
}

// --- Hostile clients

class HostileClientTest : public PluginTest {
protected:
    // The sender is cut off with one line; somebody else does not notice.
    void expectCutOff(const std::string& bytes) {
        FrameClient hostile = connect();
        FrameClient bystander = connect();
        ::testing::internal::CaptureStderr();
        hostile.send(bytes);
        EXPECT_TRUE(hostile.isHungUp());
        const std::string log = ::testing::internal::GetCapturedStderr();
        EXPECT_EQ(std::count(log.begin(), log.end(), '\n'), 1) << log;
        bystander.sendCommand("Quit", "1");
        EXPECT_TRUE(bystander.receive());
    }
    static std::string dictionaryFrame(const Arguments& entries) {
        const Owned root(VellDictionaryCreate());
        for (const auto& [key, value] : entries)
            VellDictionarySetValueForKey(static_cast<VellDictionaryRef>(root.get()),
                                         VellConstStringCreateWithCString(key.c_str()),
                                         VellConstStringCreateWithCString(value.c_str()));
        return FrameClient::frame(FrameClient::encoded(root.get()));
    }
};

TEST_F(HostileClientTest, MalformedMessagesEndTheirConnectionOnly) {
    expectCutOff(std::string("\0\0\0\0", 4));
    expectCutOff("\xff\xff\xff\xff");
    expectCutOff(FrameClient::frame("no property list"));
    expectCutOff(FrameClient::frame("<?xml version=\"1.0\"?><plist><dict/></plist>"));
    expectCutOff(FrameClient::frame(FrameClient::encoded(VellConstStringCreateWithCString("no dictionary"))));
    expectCutOff(dictionaryFrame({{"Type", "Command"}}));  // without a name
    expectCutOff(dictionaryFrame({{"Type", "Response"}})); // the wrong way
    const std::string longest(64 << 10, 'x');
    expectCutOff(FrameClient::command(longest + 'x', "1"));
    expectCutOff(FrameClient::command("Quit", "1", {{"a", longest.substr(2)}, {"b", "x"}}));
    FrameClient honest = connect();
    honest.send(FrameClient::command("Quit", "1", {{"a", longest.substr(1)}}));
    EXPECT_TRUE(honest.receive());
}

TEST_F(HostileClientTest, MessagesOfUnknownKindAreIgnored) {
    FrameClient client = connect();
    client.send(dictionaryFrame({{"Type", "Greeting"}}));
    client.sendCommand("Quit", "1");
    EXPECT_TRUE(client.receive());
}

TEST_F(HostileClientTest, DrippingAndBreakingOffHarmNobody) {
    FrameClient dripping = connect();
    FrameClient client = connect();
    const std::string command = FrameClient::command("Quit", "slow");
    for (const char byte : command) {
        dripping.send(std::string_view(&byte, 1));
        runSomePasses(1);
    }
    EXPECT_EQ(dripping.receive()->text("Ticket"), "slow");
    dripping.send(std::string_view(command).substr(0, command.size() / 2));
    runSomePasses();
    dripping.close();
    runSomePasses();
    client.sendCommand("Quit", "1");
    EXPECT_TRUE(client.receive());
}

TEST_F(HostileClientTest, CommandsSentBeforeLeavingAreStillCarriedOut) {
    int calls = 0;
    onCommand = [&](VellDeviceCommandRef command) {
        ++calls;
        respond(command, 0); // nobody is there to get it
    };
    {
        FrameClient client = connect();
        client.send(FrameClient::command("A", "1") + FrameClient::command("B", "2"));
    }
    EXPECT_TRUE(runUntil([&] { return calls == 2; }));
    runSomePasses();
}

TEST_F(HostileClientTest, ArgumentsOfOtherTypesAndBrokenTextAreTamed) {
    std::string seen;
    onCommand = [&](VellDeviceCommandRef command) {
        seen = argument(command, "text") + argument(command, "number");
    };
    const Owned root(VellDictionaryCreate());
    const Owned arguments(VellDictionaryCreate());
    const Owned number(VellNumberCreateWithInteger(7));
    const Owned broken(VellStringCreateWithCString("a\xff"
                                                   "b"));
    const auto set = [](const Owned& dictionary, const char* key, VellObjectRef value) {
        VellDictionarySetValueForKey(static_cast<VellDictionaryRef>(dictionary.get()),
                                     VellConstStringCreateWithCString(key), value);
    };
    set(root, "Type", VellConstStringCreateWithCString("Command"));
    set(root, "Name", VellConstStringCreateWithCString("Odd"));
    set(root, "Ticket", number.get());
    set(arguments, "text", broken.get());
    set(arguments, "number", number.get());
    set(root, "Arguments", arguments.get());
    FrameClient client = connect();
    client.send(FrameClient::frame(FrameClient::encoded(root.get())));
    ASSERT_TRUE(runUntil([&] { return !seen.empty(); }));
    EXPECT_EQ(seen, "a\xef\xbf\xbd"
                    "b");
}

} // namespace
