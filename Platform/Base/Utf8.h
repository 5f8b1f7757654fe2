#pragma once

#include <string>
#include <string_view>

namespace Base {

bool isAscii(std::string_view text);
// The text with every byte that is not part of valid UTF-8 replaced by U+FFFD.
std::string validUtf8(std::string text);

} // namespace Base
