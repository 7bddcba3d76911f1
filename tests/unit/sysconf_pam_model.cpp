#include "sysconf_pam_model.h"

#include <cctype>
#include <sstream>

namespace SysconfTest {

namespace {

std::string NextWord(std::istream& in) {
    std::string word;
    in >> word;
    return word;
}

bool Begins(const std::string& text, char c) {
    return !text.empty() && text[0] == c;
}
bool Ends(const std::string& text, char c) {
    return !text.empty() && text[text.size() - 1] == c;
}

bool IsFacility(const std::string& word) {
    return word == "auth" || word == "account" || word == "password" || word == "session";
}

bool IsControl(const std::string& text) {
    if (Begins(text, '[') && Ends(text, ']'))
        return true;
    return text == "required" || text == "requisite" || text == "sufficient" ||
           text == "optional" || text == "include" || text == "substack";
}

} // namespace

PAMModel::Entry PAMModel::ReadEntry(std::istream& in) {
    Entry entry;
    entry.control = NextWord(in);
    if (Begins(entry.control, '[') && !Ends(entry.control, ']')) {
        while (true) {
            std::string word = NextWord(in);
            if (word.empty())
                break;
            entry.control += " " + word;
            if (Ends(word, ']') || in.fail())
                break;
        }
    }
    if (!IsControl(entry.control))
        throw Refused{"InvalidControlException", "Invalid Control: " + entry.control};
    entry.module = NextWord(in);
    std::string rest;
    std::getline(in, rest);
    std::istringstream words(rest);
    std::string word;
    while (words >> word)
        entry.parameters.push_back(word);
    return entry;
}

void PAMModel::ReadPolicy(std::istream& in) {
    while (!in.fail() && !in.bad()) {
        // Looked at once: a look at a stream that has told its end is a failure.
        int next = in.peek();
        while (next != EOF && std::isspace(next)) {
            in.get();
            next = in.peek();
        }
        if (next == '#') {
            std::string comment;
            std::getline(in, comment);
            continue;
        }
        if (in.eof())
            break;
        std::string facility = NextWord(in);
        if (!IsFacility(facility))
            throw Refused{"InvalidFacilityException", "Invalid Facility: " + facility};
        Entry entry = ReadEntry(in);
        stacks_[facility].push_back(entry);
    }
}

Reading PAMModel::Read(const std::string& text) {
    Reading reading;
    std::istringstream in(text);
    try {
        ReadPolicy(in);
    } catch (const Refused& refused) {
        // A message is told as a C string, so it ends where the first zero byte is.
        reading.thrown = refused.type + ": " + refused.message.c_str();
    }
    reading.written = Written();
    NoteStream(in, reading);
    return reading;
}

std::string PAMModel::Written() const {
    std::string written = "#%PAM-1.0\n\n";
    for (const auto& [facility, entries] : stacks_) {
        for (const Entry& entry : entries) {
            written += facility + "\t" + entry.control + "\t" + entry.module + "\t";
            for (const std::string& parameter : entry.parameters)
                written += parameter + " ";
            written += "\n";
        }
        written += "\n";
    }
    return written;
}

bool PAMModel::IsCutOff() const {
    for (const auto& [facility, entries] : stacks_) {
        for (const Entry& entry : entries) {
            if (entry.module.empty())
                return true;
        }
    }
    return false;
}

} // namespace SysconfTest
