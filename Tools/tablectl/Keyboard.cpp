#include "Keyboard.h"

#include <poll.h>
#include <unistd.h>

#include <cerrno>

namespace tablectl {

Keyboard::Keyboard() {
    tcgetattr(STDIN_FILENO, &mBefore);
    termios raw = mBefore;
    raw.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
    raw.c_iflag &= ~static_cast<tcflag_t>(ICRNL | IXON);
    raw.c_cc[VMIN] = 1;
    raw.c_cc[VTIME] = 0;
    tcsetattr(STDIN_FILENO, TCSADRAIN, &raw);
}

Keyboard::~Keyboard() {
    // What was typed ahead was meant for this program.
    tcsetattr(STDIN_FILENO, TCSAFLUSH, &mBefore);
}

std::optional<Keyboard::Press> Keyboard::next(std::chrono::milliseconds wait) {
    if (const auto press = take())
        return press;
    pollfd input{STDIN_FILENO, POLLIN, 0};
    if (poll(&input, 1, static_cast<int>(wait.count())) <= 0) {
        mTyped.clear(); // an Escape by itself, or half of a sequence: no key of ours
        return std::nullopt;
    }
    char bytes[256];
    const ssize_t got = read(STDIN_FILENO, bytes, sizeof bytes);
    if (got < 0 && errno == EINTR)
        return std::nullopt;
    if (got <= 0)
        return Press{Key::closed};
    mTyped.append(bytes, static_cast<std::size_t>(got));
    return take();
}

// Terminals send an arrow as Escape, "[" or "O", perhaps numbers, and a letter.
std::optional<Keyboard::Press> Keyboard::take() {
    while (!mTyped.empty()) {
        const char first = mTyped.front();
        if (first != '\033') {
            mTyped.erase(0, 1);
            if (first == '\r' || first == '\n')
                return Press{Key::enter};
            if (first > ' ' && first < 0x7f)
                return Press{Key::character, first};
            continue;
        }
        if (mTyped.size() > 1 && mTyped[1] != '[' && mTyped[1] != 'O') {
            mTyped.erase(0, 2); // a key with Alt
            continue;
        }
        const std::size_t end = mTyped.size() > 2 ? mTyped.find_first_not_of("0123456789;", 2) : mTyped.npos;
        if (end == mTyped.npos)
            return std::nullopt; // the rest comes
        const char last = mTyped[end];
        mTyped.erase(0, end + 1);
        switch (last) {
        case 'A':
            return Press{Key::up};
        case 'B':
            return Press{Key::down};
        case 'C':
            return Press{Key::right};
        case 'D':
            return Press{Key::left};
        default:
            break;
        }
    }
    return std::nullopt;
}

} // namespace tablectl
