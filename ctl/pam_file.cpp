#include "pam_file.h"

#include <algorithm>
#include <sstream>

namespace ctl {

using namespace SystemConfiguration;

namespace {

constexpr const char* byHand =
    "edit the file by hand, or write the line as FACILITY CONTROL MODULE "
    "[PARAMETER...]; nothing was changed";

/// Parses one line's words, and refuses what the library would look for on the next line.
class LineParser {
public:
    LineParser(const std::string& file, std::size_t index, std::vector<std::string_view> words)
        : file_(file), index_(index), words_(std::move(words)) {}

    PamLine Parse() {
        const PAMFacility facility = ParseFacility();
        const PAMControl control = ParseControlWords();
        PAMEntry entry(control,
                       Next("the module is missing; it would be taken from the next line"));
        entry.parameters().assign(words_.begin() + static_cast<std::ptrdiff_t>(next_),
                                  words_.end());
        return {facility, entry, index_};
    }

private:
    [[noreturn]] void Refuse(const std::string& text) const {
        throw AtLine(file_, index_ + 1, text, byHand);
    }

    std::string Next(const std::string& whenMissing) {
        if (next_ == words_.size()) {
            Refuse(whenMissing);
        }
        return std::string(words_[next_++]);
    }

    PAMFacility ParseFacility() {
        const std::string word = Next("");
        try {
            return PAMFacility(word);
        } catch (const InvalidFacilityException&) {
            Refuse("'" + word + "' is no facility");
        }
    }

    PAMControl ParseControlWords() {
        std::string text = Next("the control is missing; it would be taken from the next line");
        const std::string first = text;
        while (first.front() == '[' && text.back() != ']') {
            text += " " + Next("the list of actions that begins with '" + first +
                               "' does not end on this line");
        }
        try {
            return PAMControl(text);
        } catch (const InvalidControlException&) {
            Refuse("'" + text + "' is no control");
        }
    }

    const std::string& file_;
    std::size_t index_;
    std::vector<std::string_view> words_;
    std::size_t next_ = 0;
};

std::vector<PamLine> ParseLines(const std::string& file, const std::string& text) {
    std::vector<PamLine> entries;
    std::size_t index = 0;
    for (const std::string_view line : SplitLines(text)) {
        auto words = SplitWords(line);
        if (!words.empty() && words.front().front() != '#') {
            entries.push_back(LineParser(file, index, std::move(words)).Parse());
        }
        ++index;
    }
    return entries;
}

/// Equal to the letter; the library's own comparison takes all lists of actions for equal.
bool IsSame(const PamLine& one, const PamLine& other) {
    return LineOf(one) == LineOf(other);
}

std::string Written(const PAMPolicy& policy) {
    std::ostringstream out;
    out << policy;
    return out.str();
}

} // namespace

PAMControl ParseControl(const std::string& text) {
    return PAMControl(Joined(SplitWords(text)));
}

std::string LineOf(const PamLine& entry) {
    std::string line = static_cast<std::string>(entry.facility) + "\t" +
                       static_cast<std::string>(entry.entry.control()) + "\t" +
                       entry.entry.module();
    const auto& parameters = entry.entry.parameters();
    return parameters.empty() ? line : line + "\t" + Joined(parameters);
}

bool CanBeWritten(const PamLine& entry) {
    try {
        const std::string line = LineOf(entry);
        const auto read = ParseLines("", line);
        return read.size() == 1 && line.back() != '\\' && IsSame(read.front(), entry) &&
               read.front().entry.module() == entry.entry.module() &&
               read.front().entry.parameters() == entry.entry.parameters();
    } catch (const HintedError&) {
        return false;
    }
}

PamFile::PamFile(std::string name, std::string text)
    : name_(std::move(name)), text_(std::move(text)), entries_(ParseLines(name_, text_)) {}

PAMPolicy PamFile::Policy() const {
    PAMPolicy policy(name_);
    std::istringstream in(text_);
    in >> policy;
    return policy;
}

HintedError PamFile::NoSuchEntry(PAMFacility facility, const std::string& module) const {
    return {
        name_ + " has no entry '" + static_cast<std::string>(facility) + "' with the module '" +
            module + "'",
        "`tesauthctl pam show` lists the entries; a module is named exactly as the file has it"};
}

PamFile::Stack PamFile::StackOf(PAMFacility facility) const {
    Stack stack;
    for (const PamLine& line : entries_) {
        if (line.facility == facility) {
            stack.push_back(&line);
        }
    }
    return stack;
}

std::size_t PamFile::IndexIn(const Stack& stack, PAMFacility facility,
                             const std::string& module) const {
    const auto found = std::find_if(stack.begin(), stack.end(), [&](const PamLine* line) {
        return line->entry.module() == module;
    });
    if (found == stack.end()) {
        throw NoSuchEntry(facility, module);
    }
    return static_cast<std::size_t>(found - stack.begin());
}

void PamFile::CheckThatLinesEnd() const {
    const auto lines = SplitLines(text_);
    for (const PamLine& entry : entries_) {
        if (SplitWords(lines[entry.index]).back().back() == '\\') {
            throw AtLine(name_, entry.index + 1, "'\\' at the end of the line",
                         "elsewhere such a line goes on in the next one, here it does not: put all "
                         "of the entry on one line; nothing was changed");
        }
    }
}

std::size_t PamFile::PositionFor(const Stack& stack, const PamLine& added,
                                 const Place& place) const {
    std::size_t position = place.kind == Place::First ? 0 : stack.size();
    if (place.kind == Place::Before || place.kind == Place::After) {
        position =
            IndexIn(stack, added.facility, place.anchor) + (place.kind == Place::After ? 1 : 0);
    }
    for (const std::size_t neighbour : {position - 1, position}) {
        if (neighbour < stack.size() && IsSame(*stack[neighbour], added)) {
            throw AtLine(name_, stack[neighbour]->index + 1, "the entry is there already",
                         "nothing was changed");
        }
    }
    return position;
}

std::string PamFile::WithEntry(const PamLine& added, const Place& place, Way way) const {
    CheckThatLinesEnd();
    const Stack stack = StackOf(added.facility);
    const std::size_t position = PositionFor(stack, added, place);
    if (way == Way::Rewrite) {
        PAMPolicy policy = Policy();
        auto& entries = policy[added.facility].entries();
        entries.insert(entries.begin() + static_cast<std::ptrdiff_t>(position), added.entry);
        return Written(policy);
    }
    std::size_t index = std::string::npos;
    if (!stack.empty()) {
        const bool behind = position > 0 && place.kind != Place::Before;
        index = behind ? stack[position - 1]->index + 1 : stack[position]->index;
    }
    return WithLine(text_, index, LineOf(added), true);
}

std::string PamFile::WithoutEntry(PAMFacility facility, const std::string& module, Way way) const {
    CheckThatLinesEnd();
    const Stack stack = StackOf(facility);
    const std::size_t position = IndexIn(stack, facility, module);
    if (way == Way::Rewrite) {
        PAMPolicy policy = Policy();
        auto& entries = policy[facility].entries();
        entries.erase(entries.begin() + static_cast<std::ptrdiff_t>(position));
        return Written(policy);
    }
    const std::string_view line = SplitLines(text_)[stack[position]->index];
    std::string changed = text_;
    return changed.erase(OffsetIn(text_, line), line.size());
}

} // namespace ctl
