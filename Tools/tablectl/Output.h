#pragma once

#include <string>
#include <string_view>

namespace tablectl {

// One JSON object, its members in the order in which they are added.
class Json {
public:
    Json& add(std::string_view key, std::string_view text);
    Json& add(std::string_view key, const char* text) { return add(key, std::string_view(text)); }
    Json& add(std::string_view key, bool value);
    Json& add(std::string_view key, long value);
    Json& add(std::string_view key, int value) { return add(key, static_cast<long>(value)); }
    Json& add(std::string_view key, double value); // null when it is not finite
    Json& addRaw(std::string_view key, std::string_view json);

    std::string text() const { return "{" + mMembers + "}"; }
    static std::string quote(std::string_view text);

private:
    std::string mMembers;
};

// Standard output: what a command was asked for. Text for people, or one JSON object per line for programs.
class Output {
public:
    explicit Output(bool json) : mJson(json) {}

    bool isJson() const { return mJson; }
    // Both throw DeviceFailure when the text cannot be written (a closed pipe, a full disk).
    void line(const std::string& text) { write(text + "\n"); }
    void object(const Json& json) { line(json.text()); }
    void write(std::string_view text);

private:
    bool mJson;
};

// The shortest decimal form that reads back to the same number.
std::string numberText(double value);
std::string numberText(float value);
std::string numberText(int value);

// With so many decimals, for people.
std::string fixedText(double value, int decimals);

template <class Numbers>
std::string jsonArray(const Numbers& numbers) {
    std::string text;
    for (const auto number : numbers)
        text += (text.empty() ? "" : ",") + numberText(number);
    return "[" + text + "]";
}

// Tells why the program fails, on standard error and, with --json, as an object on standard output. The code
// is that of the device's answer, if there was one.
void reportFailure(bool json, const std::string& text, int deviceCode = 0);

} // namespace tablectl
