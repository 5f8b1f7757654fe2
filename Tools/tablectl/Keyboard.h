#pragma once

#include <termios.h>

#include <chrono>
#include <optional>
#include <string>

namespace tablectl {

// The terminal's keyboard, key by key and without an echo for as long as the object lives. Signals by key
// (Ctrl-C) go on working. Standard input must be a terminal.
class Keyboard {
public:
    enum class Key { up, down, left, right, enter, character, closed };

    struct Press {
        Key key;
        char character = 0;
    };

    Keyboard();
    Keyboard(const Keyboard&) = delete;
    Keyboard& operator=(const Keyboard&) = delete;
    ~Keyboard();

    // The next key that was pressed; nothing when none is within that time. Keys of no meaning here are
    // passed over. `closed` from the moment on in which the terminal is gone.
    std::optional<Press> next(std::chrono::milliseconds wait);
    bool hasMore() const { return !mTyped.empty(); } // keys that were pressed and not asked for yet

private:
    std::optional<Press> take();

    termios mBefore{};
    std::string mTyped; // bytes that make no whole key yet, or were not asked for
};

} // namespace tablectl
