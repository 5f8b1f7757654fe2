// Commands with any names and arguments, for the driver on its bench. The text is one command a line, its
// fields divided by tabs: Name, key=value, key=value, ...
#include "DriverBench.h"
#include "Fuzzing.h"

#include <algorithm>
#include <set>
#include <sstream>

namespace {

constexpr std::size_t kMostCommands = 12;

// A bench outside a test: a broken expectation ends the process.
class Bench : public test::DriverBench {
public:
    Bench() {
        GTEST_FLAG_SET(break_on_failure, true);
        connect();
        place(kChart);
        getReady();
    }

    void TestBody() override {}

    void carryOut(const std::string& line) {
        std::istringstream fields(line);
        std::string name;
        std::getline(fields, name, '\t');
        name = name.c_str(); // as far as a command can hold it
        std::map<std::string, std::string> arguments;
        for (std::string field; std::getline(fields, field, '\t');) {
            const std::size_t sign = std::min(field.find('='), field.size());
            arguments[field.substr(0, sign)] = sign < field.size() ? field.substr(sign + 1) : "";
        }
        if (name == "DieAQuickDeath")
            return;                // ends the process, as it should
        arguments.erase("ticket"); // ours
        mSent[send(name, arguments)] = name;
        pass();
    }

    // Whatever was asked for ends soon, and everything has been answered.
    void settle() {
        ask("CancelMeasure");
        finishMeasurements();
        fuzzing::require(!driver->isMeasuring(), "nothing is measured any more");
        fuzzing::require(driver->isPolling(), "the driver polls");
        for (const auto& [ticket, name] : mSent)
            fuzzing::require(kUnanswered.contains(name) || !answersTo(ticket).empty(), name.c_str());
        mSent.clear();
        getReady();
    }

private:
    void getReady() {
        ask("Unlock");
        ask("__RESET__");
        ask("Calibrate");
        ask("SetMode", {{"Mode", "ScanningReflectance"}});
        test::clearPosts();
    }

    static inline const test::ChartOnTable kChart{.rows = 3, .columns = 4, .lastRowColumns = 2};
    // They show in the status, or in nothing.
    static inline const std::set<std::string> kUnanswered{"Poll", "poll", "Status", "__Unproxy__"};

    std::map<std::string, std::string> mSent; // name by ticket
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    static Bench bench; // for the life of the process
    std::istringstream lines(std::string(reinterpret_cast<const char*>(bytes), size));
    std::string line;
    for (std::size_t count = 0; count < kMostCommands && std::getline(lines, line); ++count)
        bench.carryOut(line);
    bench.settle();
    return 0;
}
