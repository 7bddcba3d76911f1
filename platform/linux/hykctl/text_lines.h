/// A configuration file as lines that keep their own line ends, so that what is not edited is
/// written back byte by byte.
#ifndef HYKCTL_TEXT_LINES_H
#define HYKCTL_TEXT_LINES_H

#include <string>
#include <string_view>
#include <vector>

namespace HykCtl {

/// A line without its end, and its end: "\n", "\r\n", or nothing on an unfinished last line.
struct TextLine {
    std::string body;
    std::string end;
};

std::vector<TextLine> SplitLines(const std::string& text);
std::string JoinLines(const std::vector<TextLine>& lines);

/// Inserts a line before `position`, with the line end that the file uses; a last line without
/// one is finished first.
void InsertLine(std::vector<TextLine>& lines, size_t position, const std::string& body);

/// The words of a text that are separated by blanks and tabs.
std::vector<std::string> SplitWords(std::string_view text);

/// True when two names are the same but for the case of ASCII letters.
bool SameName(std::string_view left, std::string_view right);

/// Throws HostCtl::Lib::HostCtlException unless `name` can stand as one word in a configuration
/// file: not empty, without blanks, control characters and comment signs. `what` says in the
/// exception what the name is.
void RequireWord(const std::string& name, const std::string& what);

} // namespace HykCtl

#endif
