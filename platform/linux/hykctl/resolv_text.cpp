#include "hykctl/resolv_text.h"

#include <algorithm>

#include "hykctl/text_lines.h"

namespace HykCtl {
namespace {

constexpr size_t kMostDomains = 6; // resolvers read no more

/// The keyword of a line, which the resolver takes only at the very start of it.
std::string_view Keyword(std::string_view body) {
    return body.substr(0, body.find_first_of(" \t"));
}

/// The line that the resolver's search list comes from: the last of its kind; the number of lines
/// when there is none.
size_t EffectiveLine(const std::vector<TextLine>& lines) {
    for (size_t i = lines.size(); i > 0; --i) {
        const std::string_view keyword = Keyword(lines[i - 1].body);
        if (keyword == "search" || keyword == "domain")
            return i - 1;
    }
    return lines.size();
}

bool Contains(const std::vector<std::string>& list, size_t count, const std::string& domain) {
    const auto end = list.begin() + static_cast<std::ptrdiff_t>(std::min(count, list.size()));
    return std::any_of(list.begin(), end,
                       [&](const std::string& other) { return SameDomain(other, domain); });
}

/// `present` with what is missing of `domains` at its end; the last of the present ones make room.
std::vector<std::string> Merge(std::vector<std::string> present,
                               const std::vector<std::string>& domains) {
    std::vector<std::string> missing;
    for (const std::string& domain : domains)
        if (!Contains(present, kMostDomains, domain) && !Contains(missing, missing.size(), domain))
            missing.push_back(domain);
    if (missing.empty())
        return present;
    if (missing.size() > kMostDomains)
        missing.resize(kMostDomains);
    present.resize(std::min(present.size(), kMostDomains - missing.size()));
    present.insert(present.end(), missing.begin(), missing.end());
    return present;
}

} // namespace

bool SameDomain(std::string_view left, std::string_view right) {
    if (left.size() > 1 && left.back() == '.')
        left.remove_suffix(1);
    if (right.size() > 1 && right.back() == '.')
        right.remove_suffix(1);
    return SameName(left, right);
}

std::string WithSearchDomains(const std::string& text, const std::vector<std::string>& domains) {
    std::vector<TextLine> lines = SplitLines(text);
    const size_t effective = EffectiveLine(lines);
    std::vector<std::string> present;
    bool isSearch = false;
    if (effective < lines.size()) {
        present = SplitWords(lines[effective].body);
        isSearch = present.front() == "search";
        present.erase(present.begin());
    }
    const std::vector<std::string> merged = Merge(present, domains);
    if (merged == present)
        return text;

    std::string body = "search";
    for (const std::string& domain : merged)
        body += " " + domain;
    if (isSearch)
        lines[effective].body = body;
    else // a domain line stays, and the search line after it takes precedence
        InsertLine(lines, std::min(effective + 1, lines.size()), body);
    return JoinLines(lines);
}

} // namespace HykCtl
