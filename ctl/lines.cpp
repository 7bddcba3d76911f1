#include "lines.h"

#include <algorithm>

namespace ctl {

namespace {

constexpr const char* whiteSpace = " \t\n\v\f\r";

bool EndsWithReturn(std::string_view line) {
    return line.size() >= 2 && line.substr(line.size() - 2) == "\r\n";
}

} // namespace

std::vector<std::string_view> SplitLines(std::string_view text) {
    std::vector<std::string_view> lines;
    while (!text.empty()) {
        const auto end = text.find('\n');
        const auto length = end == std::string_view::npos ? text.size() : end + 1;
        lines.push_back(text.substr(0, length));
        text.remove_prefix(length);
    }
    return lines;
}

std::string_view WithoutLineEnd(std::string_view line) {
    const bool ends = !line.empty() && line.back() == '\n';
    return line.substr(0, line.size() - (ends ? 1 : 0));
}

std::vector<std::string_view> SplitWords(std::string_view text) {
    std::vector<std::string_view> words;
    for (std::size_t end = 0;;) {
        const auto begin = text.find_first_not_of(whiteSpace, end);
        if (begin == std::string_view::npos) {
            return words;
        }
        end = std::min(text.find_first_of(whiteSpace, begin), text.size());
        words.push_back(text.substr(begin, end - begin));
    }
}

std::size_t OffsetIn(std::string_view text, std::string_view part) {
    return static_cast<std::size_t>(part.data() - text.data());
}

std::string WithLine(std::string_view text, std::size_t index, const std::string& line,
                     bool mayHaveReturn) {
    const auto lines = SplitLines(text);
    const bool last = index >= lines.size();
    const auto offset = last ? text.size() : OffsetIn(text, lines[index]);
    const bool unended = last && !lines.empty() && lines.back().back() != '\n';
    std::string_view neighbour;
    if (!lines.empty()) {
        neighbour = last ? lines.back() : lines[index];
        if (neighbour.back() != '\n') { // no model for a line end
            neighbour = lines.front();
        }
    }
    const std::string end = mayHaveReturn && EndsWithReturn(neighbour) ? "\r\n" : "\n";
    std::string changed(text.substr(0, offset));
    changed += unended ? end + line : line + end;
    changed += text.substr(offset);
    return changed;
}

HintedError AtLine(const std::string& file, std::size_t number, const std::string& text,
                   const std::string& hint) {
    return {file + ":" + std::to_string(number) + ": " + text, hint};
}

} // namespace ctl
