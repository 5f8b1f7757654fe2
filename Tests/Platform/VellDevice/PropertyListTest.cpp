#include "FrameClient.h"
#include "RuntimeFolderFixture.h"

#include <Base/PropertyListGuard.h>

#include <gmock/gmock.h>

#include <fstream>
#include <random>

using namespace VellTest;
using Base::PropertyListGuard;

namespace {

Owned decoded(std::string_view bytes) {
    const Owned data(VellDataCreateWithBytes(bytes.data(), static_cast<int>(bytes.size())));
    return Owned(VellCoderCopyRootObjectWithEncodedData(static_cast<VellDataRef>(data.get())));
}

// An array that holds another array, `depth` times.
Owned nested(int depth) {
    Owned object(VellStringCreateWithCString("core"));
    for (int i = 0; i < depth; ++i) {
        Owned array(VellArrayCreate());
        VellArrayAppendValue(static_cast<VellArrayRef>(array.get()), object.get());
        object = std::move(array);
    }
    return object;
}

Owned sample() {
    Owned root(VellDictionaryCreate());
    const auto set = [&](const char* key, Owned value) {
        VellDictionarySetValueForKey(static_cast<VellDictionaryRef>(root.get()), constant(key), value.get());
    };
    set("zulu", Owned(VellStringCreateWithCString("text")));
    set("umlaut", Owned(VellStringCreateWithCString("\xc3\xa4\xf0\x9f\x99\x82")));
    set("empty", Owned(VellStringCreateWithCString("")));
    set("alpha", Owned(VellNumberCreateWithInteger(-1022)));
    set("least", Owned(VellNumberCreateWithInteger(INT64_MIN)));
    set("most", Owned(VellNumberCreateWithInteger(INT64_MAX)));
    set("real", Owned(VellNumberCreateWithDouble(0.1)));
    set("yes", Owned(VellNumberCreateWithBool(true)));
    set("bytes", Owned(VellDataCreateWithBytes("\0\xff", 2)));
    set("list", nested(3));
    set("nothing", Owned(VellArrayCreate()));
    return root;
}

// A binary property list from its parts: the objects' bytes one after another, references of one byte.
std::string binary(const std::vector<std::string>& objects, std::size_t count = SIZE_MAX,
                   unsigned char root = 0) {
    std::string bytes = "bplist00";
    std::string offsets;
    for (const std::string& object : objects) {
        offsets += static_cast<char>(bytes.size() >> 8);
        offsets += static_cast<char>(bytes.size() & 0xff);
        bytes += object;
    }
    const std::size_t table = bytes.size();
    bytes += offsets;
    bytes += std::string(6, '\0') + "\2\1";
    const auto number = [&](std::uint64_t value) {
        for (int shift = 56; shift >= 0; shift -= 8)
            bytes += static_cast<char>(value >> shift & 0xff);
    };
    number(count == SIZE_MAX ? objects.size() : count);
    number(root);
    number(table);
    return bytes;
}

TEST(CoderTest, EverythingComesBackInItsOrder) {
    const Owned root = sample();
    const Owned back = decoded(FrameClient::encoded(root.get()));
    ASSERT_NE(back, nullptr);
    EXPECT_EQ(VellEqual(root.get(), back.get()), 1);
    const auto firstKey = [](const Owned& dictionary) {
        return std::string(VellStringGetCString(
            VellDictionaryGetKeyAtIndex(static_cast<VellDictionaryRef>(dictionary.get()), 0)));
    };
    EXPECT_EQ(firstKey(back), "zulu");
}

TEST(CoderTest, ReadsFilesOfBothFormsAndOnlyItsOwnFromStrangers) {
    const std::string xml =
        "<?xml version=\"1.0\"?><plist version=\"1.0\"><dict><key>a</key><integer>-5</integer>"
        "<!-- <array> --><key>b</key><string>&lt;&amp;</string></dict></plist>";
    const ScopedRuntimeFolder folder;
    const Owned file(VellStringCreateWithCString((folder.path() + "/list").c_str()));
    std::ofstream(folder.path() + "/list") << xml;
    const Owned root(VellCoderCopyRootObjectWithContentsAtPath(static_cast<VellStringRef>(file.get())));
    const Dictionary dictionary(root.get());
    EXPECT_EQ(dictionary.integer("a"), -5);
    EXPECT_EQ(dictionary.text("b"), "<&");
    for (const std::string& text : {xml, std::string("plain text"), std::string()})
        EXPECT_EQ(decoded(text), nullptr);
    const Owned device(VellDeviceCreate());
    EXPECT_EQ(VellCoderCopyEncodedDataWithRootObject(device.get()), nullptr);
    EXPECT_EQ(VellCoderCopyEncodedDataWithRootObject(nullptr), nullptr);
}

TEST(CoderTest, DepthIsBoundedBothWays) {
    EXPECT_NE(decoded(FrameClient::encoded(nested(60).get())), nullptr);
    EXPECT_EQ(VellCoderCopyEncodedDataWithRootObject(nested(100).get()), nullptr);
}

TEST(CoderTest, HostileBinaryIsRefusedQuickly) {
    EXPECT_NE(decoded(binary({"\x51x"})), nullptr); // the builder of this test is right
    const std::vector<std::pair<const char*, std::string>> hostile = {
        {"an array that holds itself", binary({std::string("\xa1\0", 2)})},
        {"a reference to an object that is not there", binary({"\xa1\x09"})},
        {"a root that is not there", binary({"\x51x"}, SIZE_MAX, 3)},
        {"more objects than bytes", binary({"\x51x"}, std::size_t{1} << 61)},
        {"a text longer than the file", binary({"\x5f\x13\x7f\xff\xff\xff\xff\xff\xff\xff"})},
        {"a length that overflows when doubled", binary({"\x6f\x13\x80\xff\xff\xff\xff\xff\xff\xff"})},
        {"an object of no known kind", binary({"\x70"})},
        {"nothing but the beginning", "bplist00"},
    };
    for (const auto& [what, bytes] : hostile) {
        EXPECT_FALSE(PropertyListGuard::isSafeBinary(bytes)) << what;
        EXPECT_EQ(decoded(bytes), nullptr) << what;
    }
    // 2^40 texts in a few hundred bytes.
    std::vector<std::string> doubling;
    for (int i = 0; i < 40; ++i)
        doubling.push_back(std::string("\xa2") + static_cast<char>(i + 1) + static_cast<char>(i + 1));
    doubling.emplace_back("\x51x");
    EXPECT_EQ(decoded(binary(doubling)), nullptr);
}

TEST(CoderTest, DamagedBytesNeverHurt) {
    const std::string good = FrameClient::encoded(sample().get());
    std::mt19937 random(1);
    for (int round = 0; round < 20000; ++round) {
        std::string bytes = good;
        for (int i = 0; i < 3; ++i)
            bytes[random() % bytes.size()] = static_cast<char>(random());
        decoded(bytes.substr(0, random() % 4 ? bytes.size() : random() % bytes.size()));
    }
}

} // namespace
