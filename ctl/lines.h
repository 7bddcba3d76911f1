/// Texts as lines, and lines as words.
#ifndef TESAUTHCTL_LINES_H
#define TESAUTHCTL_LINES_H

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "failure.h"

namespace ctl {

/// How a file is changed.
enum class Way {
    Lines,   ///< only the lines concerned
    Rewrite, ///< read into the library's types and written by them
};

/// Where something new goes, among what is of its kind.
struct Place {
    enum Kind { Last, First, Before, After } kind = Last;
    std::string anchor{}; ///< the name that it goes before or after
};

/// The lines of a text, each with its line end; only the last one may lack it. They are views of
/// the text.
std::vector<std::string_view> SplitLines(std::string_view text);

/// The line without its line end, LF.
std::string_view WithoutLineEnd(std::string_view line);

/// What is between white space, of all six kinds. The words are views of the text.
std::vector<std::string_view> SplitWords(std::string_view text);

/// The index in the text that a view of it begins at.
std::size_t OffsetIn(std::string_view text, std::string_view part);

/// The words with a blank between them.
template <typename Words>
std::string Joined(const Words& words) {
    std::string text;
    for (const auto& word : words) {
        text += text.empty() ? "" : " ";
        text += word;
    }
    return text;
}

/// The text with a line put in before the one of that index, or behind the last one. It ends as its
/// neighbour does, in LF or, where `mayHaveReturn`, in CR LF. A text without a final line end still
/// has none.
std::string WithLine(std::string_view text, std::size_t index, const std::string& line,
                     bool mayHaveReturn);

/// A failure that a line of a file is to blame for; lines count from 1.
HintedError AtLine(const std::string& file, std::size_t number, const std::string& text,
                   const std::string& hint);

} // namespace ctl

#endif
