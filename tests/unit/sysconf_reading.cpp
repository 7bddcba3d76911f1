#include "sysconf_reading.h"

#include <cctype>
#include <cstdio>
#include <iterator>

namespace SysconfTest {

void NoteStream(std::istream& in, Reading& reading) {
    reading.failed = in.fail();
    reading.ended = in.eof();
    in.clear();
    reading.unread.assign(std::istreambuf_iterator<char>(in), {});
}

std::string Escaped(const std::string& text) {
    std::string escaped = "\"";
    for (unsigned char byte : text) {
        if (byte == '\n') {
            escaped += "\\n";
        } else if (byte == '\t') {
            escaped += "\\t";
        } else if (byte == '\r') {
            escaped += "\\r";
        } else if (byte == '"' || byte == '\\') {
            escaped += {'\\', static_cast<char>(byte)};
        } else if (std::isprint(byte)) {
            escaped += static_cast<char>(byte);
        } else {
            char octal[5]; // three digits, so that what follows is never taken for one
            std::snprintf(octal, sizeof octal, "\\%03o", byte);
            escaped += octal;
        }
    }
    return escaped + "\"";
}

std::string Described(const Reading& reading) {
    return "    written " + Escaped(reading.written) + "\n    thrown  " + Escaped(reading.thrown) +
           "\n    unread  " + Escaped(reading.unread) + "\n    stream  " +
           (reading.failed ? "failed " : "") + (reading.ended ? "ended" : "") + "\n";
}

} // namespace SysconfTest
