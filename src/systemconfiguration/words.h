/// Words as a stream's formatted extraction finds them.
#ifndef SYSTEMCONFIGURATION_WORDS_H
#define SYSTEMCONFIGURATION_WORDS_H

#include <list>
#include <string>
#include <string_view>

namespace SystemConfiguration {

inline constexpr char whiteSpace[] = " \t\n\v\f\r";

/// Appends each word of a text, in order.
void AppendWords(std::string_view text, std::list<std::string>& words);

} // namespace SystemConfiguration

#endif
