#include "diagnosis_text.h"

#include "text.h"

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

bool IsPlainName(std::string_view name) {
    return !name.empty() && name.front() != '-' && name.front() != '.' &&
           std::all_of(name.begin(), name.end(), [](char c) {
               return IsLetterOrDigit(c) || c == '-' || c == '.' || c == '_';
           });
}

std::string ShellWord(std::string_view text) {
    if (IsPlainName(text))
        return std::string(text);
    std::string word = "'";
    for (const char c : text)
        word += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return word + "'";
}

std::string JoinCommand(const std::string& domain) {
    return "tesauthctl join " + (domain.empty() ? "DOMAIN" : ShellWord(domain)) + " -U USER";
}

} // namespace tessary::directory
