/// How findings write numbers and lists.
#ifndef TESSARY_DIRECTORY_DIAGNOSIS_TEXT_H
#define TESSARY_DIRECTORY_DIAGNOSIS_TEXT_H

#include <chrono>
#include <string>
#include <vector>

namespace tessary::directory {

using Latency = std::chrono::microseconds;

/// "0.3 ms"; rounded up, never 0.
std::string LatencyText(Latency latency);

/// "1 controller", "2 controllers".
std::string Counted(std::size_t count, const std::string& thing);

/// "a, b, c".
std::string Listed(const std::vector<std::string>& items);

} // namespace tessary::directory

#endif
