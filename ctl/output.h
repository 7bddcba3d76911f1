/// Writes answers and failures.
#ifndef TESAUTHCTL_OUTPUT_H
#define TESAUTHCTL_OUTPUT_H

#include <string>

#include "answer.h"

namespace ctl {

/// The two columns of a text answer.
class Table {
public:
    /// The value is told as one line, whatever is in it.
    void Add(const std::string& label, const std::string& value);
    std::string Text() const;

private:
    std::vector<std::pair<std::string, std::string>> rows_;
};

/// A value from elsewhere, such as a name in the directory, as part of a line: it can neither start
/// a line of its own nor give orders to a terminal.
std::string OneLine(std::string text);

/// The text, or JSON's null in place of an empty one.
Json TextOrNull(const std::string& text);

/// The failure as {"text": ..., "code": ...}, with "cause" and "hint" if they are known.
Json ToJson(const Failure& failure);

/// Writes the answer to standard output, and its failure, if it has one, to standard error.
/// Returns the exit code; it is ExitCode::Failed when the answer could not be written.
ExitCode Tell(const Answer& answer, bool asJson);

/// Writes a line of an answer that is told bit by bit to standard output, whatever is in it as one
/// line. When it cannot be written, says so on standard error and returns false.
bool TellLine(const std::string& line);

/// Writes lines of a file to standard output, byte for byte; to a terminal without what that would
/// obey. When they cannot be written, says so on standard error and returns false.
bool TellFileText(const std::string& text);

/// Writes a failure, its cause and its hint to standard error, and as JSON to standard output when
/// asked to. Wrong usage is told in text only: a command line that makes no sense may not have
/// asked at all.
ExitCode Tell(const Failure& failure, bool asJson);

/// Writes a line to standard error, whatever is in it as one line.
void Notify(const std::string& line);

} // namespace ctl

#endif
