#include "systemconfiguration/pam.h"

#include <algorithm>
#include <istream>
#include <locale>
#include <ostream>
#include <utility>

#include "words.h"

namespace SystemConfiguration {
namespace {

/// A keyword, or a list of actions with one blank for each run of white space in it. Empty at the
/// end of the stream.
std::string ReadControl(std::istream& in) {
    std::string text;
    in >> text;
    if (text.empty() || text.front() != '[')
        return text;
    std::string word = text;
    while (word.back() != ']' && in >> word)
        text += ' ' + word;
    return text;
}

/// Leaves the stream before the next character that is no white space, or at its end.
int SkipWhiteSpace(std::istream& in) {
    const auto& types = std::use_facet<std::ctype<char>>(in.getloc());
    constexpr int end = std::istream::traits_type::eof();
    int next = in.peek();
    while (next != end && types.is(std::ctype_base::space, static_cast<char>(next))) {
        in.get();
        next = in.peek();
    }
    return next;
}

} // namespace

PAMEntry::PAMEntry() = default;

PAMEntry::PAMEntry(const PAMControl& control, const std::string& module)
    : control_(control), module_(module) {}

bool PAMEntry::operator==(const PAMEntry& other) const {
    return static_cast<PAMControl::Control>(control_) ==
               static_cast<PAMControl::Control>(other.control_) &&
           module_ == other.module_ && parameters_ == other.parameters_;
}

std::ostream& operator<<(std::ostream& out, const PAMEntry& entry) {
    out << static_cast<std::string>(entry.control()) << '\t' << entry.module() << '\t';
    for (const std::string& parameter : entry.parameters())
        out << parameter << ' ';
    return out;
}

std::istream& operator>>(std::istream& in, PAMEntry& entry) {
    entry.control_ = ReadControl(in);
    // At the end of the stream there is none, whatever the entry had.
    entry.module_.clear();
    in >> entry.module_;
    std::string rest;
    std::getline(in, rest);
    AppendWords(rest, entry.parameters_);
    return in;
}

PAMStack::PAMStack() = default;

PAMStack::PAMStack(const PAMFacility& facility) : facility_(facility) {}

PAMStack::Entries::iterator PAMStack::find(const std::string& module) {
    return std::find_if(entries_.begin(), entries_.end(),
                        [&](const PAMEntry& entry) { return entry.module() == module; });
}

PAMStack::Entries::const_iterator PAMStack::find(const std::string& module) const {
    return std::find_if(entries_.begin(), entries_.end(),
                        [&](const PAMEntry& entry) { return entry.module() == module; });
}

std::ostream& operator<<(std::ostream& out, const PAMStack& stack) {
    for (const PAMEntry& entry : stack.entries())
        out << stack.Facility() << '\t' << entry << '\n';
    return out;
}

PAMPolicy::PAMPolicy(const std::string& name) : name_(name) {}

PAMStack& PAMPolicy::operator[](PAMFacility facility) {
    return stacks_.try_emplace(facility, facility).first->second;
}

std::ostream& operator<<(std::ostream& out, const PAMPolicy& policy) {
    out << "#%PAM-1.0\n\n";
    for (const auto& [facility, stack] : policy.stacks_)
        out << stack << '\n';
    return out;
}

std::istream& operator>>(std::istream& in, PAMPolicy& policy) {
    std::string comment;
    while (in) {
        const int next = SkipWhiteSpace(in);
        if (next == '#') {
            std::getline(in, comment);
        } else if (next == std::istream::traits_type::eof()) {
            break;
        } else {
            PAMFacility facility;
            PAMEntry entry;
            in >> facility >> entry;
            policy[facility].entries().push_back(std::move(entry));
        }
    }
    return in;
}

} // namespace SystemConfiguration
