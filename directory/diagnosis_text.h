/// How findings write numbers and lists.
#ifndef TESSARY_DIRECTORY_DIAGNOSIS_TEXT_H
#define TESSARY_DIRECTORY_DIAGNOSIS_TEXT_H

#include <chrono>
#include <string>
#include <string_view>
#include <vector>

namespace tessary::directory {

using Latency = std::chrono::microseconds;

/// "0.3 ms"; rounded up, never 0.
std::string LatencyText(Latency latency);

/// "1 controller", "2 controllers".
std::string Counted(std::size_t count, const std::string& thing);

/// "a, b, c".
std::string Listed(const std::vector<std::string>& items);

/// Whether a name has nothing in it but letters, digits and "-._", and begins with none of these
/// signs but '_': it may stand in a command as it is.
bool IsPlainName(std::string_view name);

/// A text from elsewhere as a single word of a command, which no shell takes apart: a plain name
/// as it is, anything else in quotes.
std::string ShellWord(std::string_view text);

/// The command that joins the host.
/// \param domain empty for one that the reader has to fill in
std::string JoinCommand(const std::string& domain);

} // namespace tessary::directory

#endif
