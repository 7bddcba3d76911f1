#include "nss_line.h"

#include <algorithm>

namespace ctl {

using namespace SystemConfiguration;

namespace {

constexpr const char* blanks = " \t\v\f\r";

/// Whether the library takes the line for one of this database; it drops the word's last character
/// unseen.
bool IsLineOf(const std::string& database, std::string_view firstWord) {
    return firstWord.substr(0, firstWord.size() - 1) == database;
}

/// What follows the database's word on a line that others take for one of this database: to them
/// the word ends at a colon or a blank, and blanks don't matter. Empty for any other line.
std::string_view BehindNameIn(std::string_view line, const std::string& database) {
    const auto start = std::min(line.find_first_not_of(blanks), line.size());
    line.remove_prefix(start);
    if (line.substr(0, database.size()) != database) {
        return {};
    }
    line.remove_prefix(database.size());
    const auto next = line.find_first_not_of(blanks);
    const bool isWord = next == std::string_view::npos || (next == 0 && line.front() != ':');
    return isWord ? std::string_view() : line.substr(next);
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
                services.push_back({std::string(line_.substr(at, end - at)), at, end});
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

/// Whether it is a line of the database. Refuses one that only the library or only others take for
/// one.
bool BelongsTo(const std::string& database, std::string_view line, std::string_view firstWord,
               const LineSplitter& splitter) {
    const std::string asLine = "write the line as " + database + ": SERVICE...";
    if (IsLineOf(database, firstWord)) {
        if (firstWord.back() != ':') {
            splitter.Refuse("'" + std::string(firstWord) + "' has no colon", asLine);
        }
        return true;
    }
    const std::string_view behind = BehindNameIn(line, database);
    if (behind.empty()) {
        return false;
    }
    splitter.Refuse(behind.front() == ':'
                        ? "the colon does not stand between '" + database + "' and a blank"
                        : "'" + database + "' has no colon",
                    asLine);
}

} // namespace

NssWords FindWords(const std::string& file, const std::string& text, NSSDatabase database,
                   Way way) {
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
        if (!BelongsTo(name, line, words.front(), splitter)) {
            continue;
        }
        if (way == Way::Lines && found.start != std::string::npos) {
            splitter.Refuse("'" + name +
                                "' is on an earlier line, too; other readers take only the last",
                            "make one line of them");
        }
        const std::size_t start = OffsetIn(line, words.front()) + words.front().size();
        for (NssWord service : splitter.Split(start)) {
            service.begin += base;
            service.end += base;
            found.services.push_back(std::move(service));
        }
        found.start = base + start;
        found.lineEnd = base + line.size();
    }
    return found;
}

} // namespace ctl
