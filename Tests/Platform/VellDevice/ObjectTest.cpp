#include "FrameClient.h"

#include <VellDevice/Object.h>

#include <gmock/gmock.h>

#include <cmath>
#include <limits>
#include <random>
#include <thread>

using namespace VellTest;
using ::testing::ElementsAre;

namespace {

template <typename T>
T as(const Owned& owned) {
    return static_cast<T>(owned.get());
}

TEST(ObjectTest, CastsByNameAndSaysWhenItCannot) {
    const Owned number(VellNumberCreateWithInteger(1));
    EXPECT_EQ(VellCheckedCast(number.get(), "VellNumberRef"), number.get());
    ::testing::internal::CaptureStderr();
    EXPECT_EQ(VellCheckedCast(number.get(), "VellStringRef"), nullptr);
    EXPECT_EQ(VellCheckedCast(nullptr, "VellStringRef"), nullptr);
    const std::string log = ::testing::internal::GetCapturedStderr();
    EXPECT_EQ(std::count(log.begin(), log.end(), '\n'), 1);
}

TEST(ObjectTest, CountsReferencesOverManyThreads) {
    struct Counted : VellService::Object {
        explicit Counted(bool& flag) : Object("Counted"), destroyed(flag) {}
        ~Counted() override { destroyed = true; }
        bool& destroyed;
    };
    bool destroyed = false;
    VellObjectRef object = new Counted(destroyed);
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < 10000; ++i)
                VellRelease(VellRetain(object));
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_FALSE(destroyed);
    VellRelease(object);
    EXPECT_TRUE(destroyed);
}

TEST(ObjectTest, NullIsStoodEverywhere) {
    VellRelease(VellRetain(nullptr));
    EXPECT_EQ(VellCopy(nullptr), nullptr);
    EXPECT_EQ(VellStringCreateWithCString(nullptr), nullptr);
    EXPECT_EQ(VellStringGetCString(nullptr), nullptr);
    EXPECT_EQ(VellStringGetDoubleValue(nullptr), 0);
    EXPECT_EQ(VellArrayGetValueAtIndex(nullptr, 0), nullptr);
    EXPECT_EQ(VellDictionaryGetCount(nullptr), 0);
    EXPECT_EQ(VellDeviceCommandGetArgument(nullptr, nullptr), nullptr);
    EXPECT_EQ(VellDeviceCommandResponseCopyCommand(nullptr), nullptr);
    EXPECT_EQ(VellMeasurementGetColorAtIndex(nullptr, 0), nullptr);
    EXPECT_EQ(VellDeviceGetName(nullptr), nullptr);
    EXPECT_EQ(VellReceiptGetTicket(nullptr), nullptr);
    EXPECT_EQ(VellEqual(nullptr, nullptr), 1);
    VellDeviceCommandResponsePost(nullptr);
    VellHardwareManagerClose(nullptr);
}

TEST(StringTest, ConstantOnesAreOneForEachText) {
    EXPECT_EQ(constant("Measure"), constant("Measure"));
    VellRelease(constant("Measure"));
    EXPECT_STREQ(VellStringGetCString(constant("Measure")), "Measure");
    const Owned copy(VellCopy(constant("Measure")));
    EXPECT_NE(copy.get(), constant("Measure"));
    EXPECT_EQ(VellEqual(copy.get(), constant("Measure")), 1);
}

TEST(StringTest, HashIsFnv1aForEver) {
    EXPECT_EQ(VellHash(constant("")), 0x811c9dc5U);
    EXPECT_EQ(VellHash(constant("a")), 0xe40c292cU);
    EXPECT_EQ(VellHash(constant("foobar")), 0xbf9cf968U);
}

TEST(StringTest, ComparesWithAndWithoutCase) {
    EXPECT_EQ(VellStringCompare(constant("USB:1"), constant("usb:1"), 1), 0);
    EXPECT_LT(VellStringCompare(constant("USB:1"), constant("usb:1"), 0), 0);
    EXPECT_GT(VellStringCompare(constant("ab"), constant("A"), 1), 0);
    EXPECT_LT(VellStringCompare(nullptr, constant(""), 1), 0);
    EXPECT_EQ(VellStringCompare(nullptr, nullptr, 1), 0);
}

TEST(StringTest, DoublesReadBackTheSameAndAreShort) {
    const auto text = [](double value) {
        const Owned string(VellStringCreateWithDouble(value));
        return std::string(VellStringGetCString(as<VellStringRef>(string)));
    };
    EXPECT_EQ(text(0.1), "0.1");
    EXPECT_EQ(text(100), "100");
    EXPECT_EQ(text(-std::nan("")), "nan");
    EXPECT_EQ(text(-INFINITY), "-inf");
    std::mt19937_64 random(7);
    for (int i = 0; i < 10000; ++i) {
        const std::uint64_t bits = random();
        double value = 0;
        std::memcpy(&value, &bits, sizeof value);
        if (std::isnan(value))
            continue;
        const Owned string(VellStringCreateWithDouble(value));
        ASSERT_EQ(VellStringGetDoubleValue(as<VellStringRef>(string)), value);
    }
    EXPECT_EQ(VellStringGetDoubleValue(constant(" +12.5 mm")), 12.5);
    EXPECT_EQ(VellStringGetDoubleValue(constant("none")), 0);
    EXPECT_EQ(VellStringGetDoubleValue(constant("1e999")), INFINITY);
}

TEST(NumberTest, SaturatesAndComparesByValue) {
    const auto integer = [](double value) {
        const Owned number(VellNumberCreateWithDouble(value));
        return VellNumberGetIntegerValue(as<VellNumberRef>(number));
    };
    EXPECT_EQ(integer(-2.9), -2);
    EXPECT_EQ(integer(1e300), std::numeric_limits<std::int64_t>::max());
    EXPECT_EQ(integer(-1e300), std::numeric_limits<std::int64_t>::min());
    EXPECT_EQ(integer(std::nan("")), 0);
    const Owned one(VellNumberCreateWithInteger(1));
    const Owned real(VellNumberCreateWithDouble(1));
    EXPECT_EQ(VellEqual(one.get(), real.get()), 1);
    // Doubles cannot tell these two apart.
    const Owned large(VellNumberCreateWithInteger((std::int64_t{1} << 53) + 1));
    const Owned rounded(VellNumberCreateWithDouble(9007199254740992.0));
    EXPECT_GT(VellCompareObjects(large.get(), rounded.get()), 0);
}

TEST(DictionaryTest, KeepsTheOrderInWhichKeysWereFirstSet) {
    const Owned dictionary(VellDictionaryCreate());
    const auto reference = as<VellDictionaryRef>(dictionary);
    const auto keys = [&] {
        std::vector<std::string> names;
        for (int i = 0; i < VellDictionaryGetCount(reference); ++i)
            names.emplace_back(VellStringGetCString(VellDictionaryGetKeyAtIndex(reference, i)));
        return names;
    };
    for (const char* key : {"Z", "a", "M", "Z"})
        VellDictionarySetValueForKey(reference, constant(key), constant(key));
    EXPECT_THAT(keys(), ElementsAre("Z", "a", "M"));
    VellDictionarySetValueForKey(reference, constant("a"), nullptr);
    VellDictionarySetValueForKey(reference, constant("a"), constant("new"));
    EXPECT_THAT(keys(), ElementsAre("Z", "M", "a"));
    EXPECT_EQ(VellDictionaryGetValueForKey(reference, constant("M")), constant("M"));
    EXPECT_EQ(VellDictionaryGetKeyAtIndex(reference, 3), nullptr);
}

TEST(CopyTest, SharesNothingThatCanChange) {
    const Owned inner(VellArrayCreate());
    const Owned outer(VellArrayCreate());
    VellArrayAppendValue(as<VellArrayRef>(inner), constant("x"));
    VellArrayAppendValue(as<VellArrayRef>(outer), inner.get());
    const Owned copy(VellCopy(outer.get()));
    EXPECT_EQ(VellEqual(outer.get(), copy.get()), 1);
    VellArrayAppendValue(as<VellArrayRef>(inner), constant("y"));
    EXPECT_EQ(VellEqual(outer.get(), copy.get()), 0);
    EXPECT_NE(VellCompareObjects(outer.get(), copy.get()), 0);
}

TEST(CommandTest, ArgumentsIgnoreCaseAndKeepTheirFirstSpelling) {
    const Owned command(VellDeviceCommandCreate(constant("SetAttribute")));
    const auto reference = as<VellDeviceCommandRef>(command);
    VellDeviceCommandSetArgument(reference, constant("Key"), constant("1"));
    VellDeviceCommandSetArgument(reference, constant("KEY"), constant("2"));
    EXPECT_EQ(VellDeviceCommandGetArgument(reference, constant("key")), constant("2"));
    const Owned description(VellCopyDescription(command.get()));
    EXPECT_STREQ(VellStringGetCString(as<VellStringRef>(description)), "SetAttribute {Key = 2}");
    // A copy is the same command; what becomes of the original does not show in it, nor in a response.
    const Owned copy(VellCopy(command.get()));
    const Owned response(VellDeviceCommandResponseCreate(reference));
    EXPECT_EQ(VellEqual(command.get(), copy.get()), 1);
    VellDeviceCommandSetArgument(reference, constant("key"), constant("3"));
    const Owned answered(VellDeviceCommandResponseCopyCommand(as<VellDeviceCommandResponseRef>(response)));
    for (const Owned* kept : {&copy, &answered})
        EXPECT_EQ(VellDeviceCommandGetArgument(as<VellDeviceCommandRef>(*kept), constant("Key")),
                  constant("2"));
}

TEST(DataTest, ReadsFilesAndRefusesWhatIsNone) {
    const ScopedRuntimeFolder folder;
    replaceFile(folder.path() + "/file", std::string("a\0b", 3));
    const auto contents = [](const std::string& path) -> Owned {
        const Owned name(VellStringCreateWithCString(path.c_str()));
        return Owned(VellDataCreateWithContentsAtPath(as<VellStringRef>(name)));
    };
    const Owned data = contents(folder.path() + "/file");
    VellDataAppendBytes(as<VellDataRef>(data), "cd", 2);
    EXPECT_EQ(VellDataGetLength(as<VellDataRef>(data)), 5);
    EXPECT_EQ(std::memcmp(VellDataGetBytes(as<VellDataRef>(data)), "a\0bcd", 5), 0);
    EXPECT_EQ(contents(folder.path()), nullptr);
    EXPECT_EQ(contents("/nowhere"), nullptr);
    EXPECT_EQ(VellDataCreateWithBytes(nullptr, 3), nullptr);
    EXPECT_EQ(VellDataCreateWithBytes("x", -1), nullptr);
}

} // namespace
