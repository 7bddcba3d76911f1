#include "diagnosis_text.h"

#include <algorithm>

namespace tessary::directory {

std::string LatencyText(Latency latency) {
    constexpr long perTenth = 100;
    const long tenths =
        std::max(1L, static_cast<long>((latency.count() + perTenth - 1) / perTenth));
    return std::to_string(tenths / 10) + "." + std::to_string(tenths % 10) + " ms";
}

std::string Counted(std::size_t count, const std::string& thing) {
    return std::to_string(count) + " " + thing + (count == 1 ? "" : "s");
}

std::string Listed(const std::vector<std::string>& items) {
    std::string text;
    for (const std::string& item : items)
        text += (text.empty() ? "" : ", ") + item;
    return text;
}

} // namespace tessary::directory
