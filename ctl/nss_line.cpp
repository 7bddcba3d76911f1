#include "nss_line.h"

#include <algorithm>

#include "lines.h"

namespace ctl {

using namespace SystemConfiguration;

namespace {

constexpr const char* blanks = " \t\v\f\r";

/// Whether the library takes the line for one of this database; it drops the word's last character
/// unseen.
bool IsLineOf(const std::string& database, std::string_view firstWord) {
    return firstWord.substr(0, firstWord.size() - 1) == database;
}

/// Whether others take the line for one of this database: blanks around the colon don't matter.
bool LooksLikeLineOf(const std::string& database, std::string_view line) {
    const auto start = std::min(line.find_first_not_of(blanks), line.size());
    line.remove_prefix(start);
    if (line.substr(0, database.size()) != database) {
        return false;
    }
    line.remove_prefix(database.size());
    const auto colon = line.find_first_not_of(blanks);
    return colon != std::string_view::npos && line[colon] == ':';
}

/// Splits one line of a database.
class LineSplitter {
public:
    LineSplitter(const std::string& file, std::size_t number, std::string_view line)
        : file_(file), number_(number), line_(line) {}

    /// Offsets are from the line's beginning.
    std::vector<NssWord> Split(std::size_t start) const {
        if (line_.find('#') != std::string_view::npos) {
            Refuse("'#' behind the database", "put the comment onto a line of its own");
        }
        std::vector<NssWord> services;
        for (std::size_t at = start;;) {
            at = line_.find_first_not_of(blanks, at);
            if (at == std::string_view::npos) {
                return services;
            }
            const bool isBracket = line_[at] == '[';
            const std::size_t end = isBracket ? EndOfBrackets(at) : EndOfService(at);
            if (!isBracket) {
                const std::size_t after = services.empty() ? start : services.back().end;
                services.push_back({std::string(line_.substr(at, end - at)), at, end, after});
            } else if (services.empty()) {
                Refuse("brackets before any service", "put a service before them");
            } else {
                services.back().end = end;
            }
            at = end;
        }
    }

    [[noreturn]] void Refuse(const std::string& text, const std::string& hint) const {
        throw AtLine(file_, number_, text, hint + "; nothing was changed");
    }

private:
    std::size_t EndOfService(std::size_t begin) const {
        const std::size_t end = std::min(line_.find_first_of(blanks, begin), line_.size());
        const std::string word(line_.substr(begin, end - begin));
        if (word.find_first_of("[]") != std::string::npos) {
            Refuse("'" + word + "': brackets that are not apart from the service",
                   "put a blank between them");
        }
        return end;
    }

    std::size_t EndOfBrackets(std::size_t begin) const {
        const std::size_t close = line_.find(']', begin);
        if (close == std::string_view::npos) {
            Refuse("brackets that are not closed", "write them as [STATUS=ACTION]");
        }
        const std::size_t end = close + 1;
        if (end < line_.size() && std::string_view(blanks).find(line_[end]) == std::string::npos) {
            Refuse("brackets that are not apart from what follows", "put a blank behind them");
        }
        return end;
    }

    const std::string& file_;
    std::size_t number_;
    std::string_view line_;
};

} // namespace

NssWords FindWords(const std::string& file, const std::string& text, NSSDatabase database) {
    const auto name = static_cast<std::string>(database);
    NssWords found;
    std::size_t number = 0;
    for (const std::string_view whole : SplitLines(text)) {
        ++number;
        const std::string_view line = WithoutLineEnd(whole);
        const auto words = SplitWords(line);
        if (words.empty() || line.front() == '#') {
            continue;
        }
        const LineSplitter splitter(file, number, line);
        const std::size_t base = OffsetIn(text, line);
        if (!IsLineOf(name, words.front())) {
            if (LooksLikeLineOf(name, line)) {
                splitter.Refuse("the colon does not stand between '" + name + "' and a blank",
                                "write the line as " + name + ": SERVICE...");
            }
            continue;
        }
        if (words.front().back() != ':') {
            splitter.Refuse("'" + std::string(words.front()) + "' has no colon",
                            "write the line as " + name + ": SERVICE...");
        }
        const std::size_t start = OffsetIn(line, words.front()) + words.front().size();
        for (NssWord service : splitter.Split(start)) {
            service.begin += base;
            service.end += base;
            service.after += base;
            found.services.push_back(std::move(service));
        }
        found.start = base + start;
        found.lineEnd = base + line.size();
    }
    return found;
}

} // namespace ctl
