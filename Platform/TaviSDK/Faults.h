#pragma once

#include <string>
#include <string_view>

namespace TaviSDK {

// A fault as the simulation setting names it: "CALL:N:STATUS", "CALL:N:throw" or "CALL:N:hang=SECONDS".
struct Fault {
    enum class Effect { Return, Throw, Hang };

    std::string call; // with its prefix, "Tavi_Scan"
    long occurrence = 1;
    Effect effect = Effect::Return;
    int status = 0;       // of Return
    double seconds = 0.0; // of Hang
};

// Throws std::invalid_argument with a text that says what is wrong. CALL may come without its prefix.
Fault parseFault(std::string_view text);

} // namespace TaviSDK
