/// What comes of reading a text, in a form in which two readers can be compared.
#ifndef TESTS_UNIT_SYSCONF_READING_H
#define TESTS_UNIT_SYSCONF_READING_H

#include <istream>
#include <string>

namespace SysconfTest {

struct Reading {
    std::string written; ///< what was read, as it is written
    std::string thrown;  ///< the exception's type and message, or nothing
    std::string unread;  ///< what is left in the stream
    bool failed = false; ///< the stream's state: a later read is of no use
    bool ended = false;  ///< the stream's state: its end was seen

    bool operator==(const Reading&) const = default;
};

/// Takes down the state of `in`, and then what is left in it.
void NoteStream(std::istream& in, Reading& reading);

/// The text on one line, as a C++ literal.
std::string Escaped(const std::string& text);

/// On several lines, for a person.
std::string Described(const Reading& reading);

} // namespace SysconfTest

#endif
