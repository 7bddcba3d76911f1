/// Comparing and changing ASCII text, independent of the process's locale.
#ifndef TESSARY_DIRECTORY_TEXT_H
#define TESSARY_DIRECTORY_TEXT_H

#include <string>
#include <string_view>

namespace tessary::directory {

std::string LowerCase(std::string_view text);
std::string UpperCase(std::string_view text);

/// Whether both are equal but for the case of ASCII letters.
bool EqualNames(std::string_view a, std::string_view b);

bool IsLetterOrDigit(char c);

} // namespace tessary::directory

#endif
