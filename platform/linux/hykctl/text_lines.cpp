#include "hykctl/text_lines.h"

#include <strings.h>

#include <algorithm>

#include "hostctl/host.h"

namespace HykCtl {

std::vector<TextLine> SplitLines(const std::string& text) {
    std::vector<TextLine> lines;
    for (size_t start = 0; start < text.size();) {
        const size_t newline = text.find('\n', start);
        if (newline == std::string::npos) {
            lines.push_back({text.substr(start), ""});
            break;
        }
        const bool carriageReturn = newline > start && text[newline - 1] == '\r';
        const size_t bodyEnd = carriageReturn ? newline - 1 : newline;
        lines.push_back({text.substr(start, bodyEnd - start), carriageReturn ? "\r\n" : "\n"});
        start = newline + 1;
    }
    return lines;
}

std::string JoinLines(const std::vector<TextLine>& lines) {
    std::string text;
    for (const TextLine& line : lines)
        text += line.body + line.end;
    return text;
}

void InsertLine(std::vector<TextLine>& lines, size_t position, const std::string& body) {
    const std::string end = lines.empty() || lines.front().end.empty() ? "\n" : lines.front().end;
    if (position > 0 && lines[position - 1].end.empty())
        lines[position - 1].end = end;
    lines.insert(lines.begin() + static_cast<std::ptrdiff_t>(position), {body, end});
}

std::vector<std::string> SplitWords(std::string_view text) {
    constexpr std::string_view blanks = " \t\r\v\f";
    std::vector<std::string> words;
    for (size_t start = text.find_first_not_of(blanks); start != std::string_view::npos;) {
        const size_t end = std::min(text.find_first_of(blanks, start), text.size());
        words.emplace_back(text.substr(start, end - start));
        start = text.find_first_not_of(blanks, end);
    }
    return words;
}

bool SameName(std::string_view left, std::string_view right) {
    return left.size() == right.size() && strncasecmp(left.data(), right.data(), left.size()) == 0;
}

void RequireWord(const std::string& name, const std::string& what) {
    const bool breaksLine = std::any_of(name.begin(), name.end(), [](unsigned char character) {
        return character <= ' ' || character == 0x7f || character == '#' || character == ';';
    });
    if (name.empty() || breaksLine)
        throw HostCtl::Lib::HostCtlException("'" + name + "' is not a valid " + what);
}

} // namespace HykCtl
