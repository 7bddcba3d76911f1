#include "host_name.h"

#include "directory/text.h"

#include <algorithm>

namespace tessary::proxy {
namespace {

constexpr std::size_t longestName = 253;
constexpr std::size_t longestLabel = 63;

bool IsDigit(char c) {
    return c >= '0' && c <= '9';
}

/// No domain at the top is a number; what ends in one is an address, or shall be taken for one. The
/// C library takes hexadecimal numbers, too.
bool IsNumber(std::string_view label) {
    return std::all_of(label.begin(), label.end(), IsDigit) || label.starts_with("0x") ||
           label.starts_with("0X");
}

bool IsLabel(std::string_view label) {
    return !label.empty() && label.size() <= longestLabel && label.front() != '-' &&
           label.back() != '-' && std::all_of(label.begin(), label.end(), [](char c) {
               return directory::IsLetterOrDigit(c) || c == '-';
           });
}

} // namespace

std::optional<std::string> NormalizeHostName(std::string_view text) {
    if (!text.empty() && text.back() == '.')
        text.remove_suffix(1);
    if (text.size() > longestName)
        return std::nullopt;
    std::string_view rest = text;
    std::size_t dots = 0;
    for (std::size_t dot; (dot = rest.find('.')) != std::string_view::npos; ++dots) {
        if (!IsLabel(rest.substr(0, dot)))
            return std::nullopt;
        rest.remove_prefix(dot + 1);
    }
    if (dots == 0 || !IsLabel(rest) || IsNumber(rest))
        return std::nullopt;
    return directory::LowerCase(text);
}

std::string Printable(std::string_view text, std::size_t longest) {
    std::string result(text.substr(0, longest));
    for (char& c : result)
        if (c < 0x20 || c > 0x7e)
            c = '?';
    return result;
}

} // namespace tessary::proxy
