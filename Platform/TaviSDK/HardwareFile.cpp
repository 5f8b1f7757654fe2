#include "HardwareFile.h"

#include <plist/plist.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <limits>
#include <memory>
#include <string_view>

namespace TaviSDK {

namespace {

constexpr std::size_t kLargestFile = std::size_t{1} << 20;
constexpr std::uint64_t kSpectrophotometerVendor = 0x971;
constexpr std::uint64_t kSpectrophotometerProduct = 0x2000;

struct PlistFree {
    void operator()(void* node) const { plist_free(node); }
};
using Plist = std::unique_ptr<void, PlistFree>;

// The values of a dictionary, which they outlive in no case; a value of another type counts as absent.
class Dictionary {
public:
    explicit Dictionary(plist_t node) : mNode(node) {}

    bool isThere() const { return mNode != nullptr && plist_get_node_type(mNode) == PLIST_DICT; }

    plist_t node(const char* key) const { return isThere() ? plist_dict_get_item(mNode, key) : nullptr; }

    std::optional<std::string> text(const char* key) const {
        if (!has(key, PLIST_STRING)) {
            return std::nullopt;
        }
        std::uint64_t length = 0;
        const char* value = plist_get_string_ptr(node(key), &length);
        return value == nullptr ? std::string() : std::string(value, length);
    }

    std::optional<double> number(const char* key) const {
        if (has(key, PLIST_REAL)) {
            double value = 0.0;
            plist_get_real_val(node(key), &value);
            return value;
        }
        if (has(key, PLIST_UINT)) {
            // Negative numbers are whole numbers of 64 bits, too.
            return static_cast<double>(static_cast<std::int64_t>(*unsignedNumber(key)));
        }
        if (const std::optional<std::string> written = text(key)) {
            double value = 0.0;
            const auto [end, error] =
                std::from_chars(written->data(), written->data() + written->size(), value);
            if (error == std::errc{} && end == written->data() + written->size()) {
                return value;
            }
        }
        return std::nullopt;
    }

    std::optional<std::uint64_t> unsignedNumber(const char* key) const {
        if (!has(key, PLIST_UINT)) {
            return std::nullopt;
        }
        std::uint64_t value = 0;
        plist_get_uint_val(node(key), &value);
        return value;
    }

    std::optional<bool> flag(const char* key) const {
        if (!has(key, PLIST_BOOLEAN)) {
            return std::nullopt;
        }
        std::uint8_t value = 0;
        plist_get_bool_val(node(key), &value);
        return value != 0;
    }

private:
    bool has(const char* key, plist_type type) const {
        return node(key) != nullptr && plist_get_node_type(node(key)) == type;
    }

    plist_t mNode;
};

std::optional<std::string> readText(const std::string& path, bool& isGone) {
    const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::fopen(path.c_str(), "rbe"), std::fclose);
    if (!file) {
        isGone = errno == ENOENT || errno == ENOTDIR;
        return std::nullopt;
    }
    std::string text;
    std::array<char, 4096> block;
    while (const std::size_t got = std::fread(block.data(), 1, block.size(), file.get())) {
        text.append(block.data(), got);
        if (text.size() > kLargestFile) {
            return std::nullopt;
        }
    }
    return std::ferror(file.get()) ? std::nullopt : std::optional(std::move(text));
}

bool hasSpectrophotometer(const Dictionary& device) {
    const plist_t siblings = device.node("Siblings");
    if (siblings == nullptr || plist_get_node_type(siblings) != PLIST_ARRAY) {
        return false;
    }
    for (std::uint32_t i = 0; i < plist_array_get_size(siblings); ++i) {
        const Dictionary sibling(plist_array_get_item(siblings, i));
        if (sibling.unsignedNumber("VendorID") == kSpectrophotometerVendor &&
            sibling.unsignedNumber("ProductID") == kSpectrophotometerProduct) {
            return true;
        }
    }
    return false;
}

long wholeNumber(double value) {
    // Written so that what is no number gives 0; the limit keeps every count exact.
    constexpr double kLargest = 9e15;
    return value >= 0.0 ? static_cast<long>(std::min(value, kLargest)) : 0;
}

Simulation settings(const Dictionary& device, const std::string& path) {
    const Dictionary given(device.node("Simulation"));
    Simulation result;
    result.spectrophotometer = hasSpectrophotometer(device);
    result.identifier = given.text("Identifier").value_or(device.text("Path").value_or(std::string()));
    result.serialNumber = given.text("SerialNumber").value_or(result.serialNumber);
    result.timeScale = given.number("TimeScale").value_or(result.timeScale);
    result.noise = given.number("Noise").value_or(result.noise);
    result.fault = given.text("Fault").value_or(std::string());
    result.presses = wholeNumber(given.number("Presses").value_or(0.0));
    result.table = given.flag("Table").value_or(true);
    const std::string chart = given.text("Chart").value_or(std::string());
    if (!chart.empty()) {
        result.chart = (std::filesystem::path(path).parent_path() / chart).string();
    }
    return result;
}

} // namespace

std::optional<Simulation> readHardwareFile(const std::string& path) {
    bool isGone = false;
    const std::optional<std::string> text = readText(path, isGone);
    if (isGone) {
        Simulation absent;
        absent.table = false;
        absent.spectrophotometer = false;
        return absent;
    }
    if (!text || text->empty()) {
        return std::nullopt;
    }
    plist_t root = nullptr;
    plist_from_memory(text->data(), static_cast<std::uint32_t>(text->size()), &root);
    const Plist owner(root);
    const Dictionary device(root);
    return device.isThere() ? std::optional(settings(device, path)) : std::nullopt;
}

} // namespace TaviSDK
