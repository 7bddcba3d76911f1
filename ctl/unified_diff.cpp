#include "unified_diff.h"

#include <algorithm>
#include <dtl/dtl.hpp>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "lines.h"
#include "output.h"

namespace ctl {

namespace {

using Lines = std::vector<std::string_view>;

/// Time and memory of the search for a shortest difference grow with the product of the lengths.
constexpr std::size_t longestSearch = 1'000'000;

constexpr std::size_t contextLines = 3;

/// The lines in [before, beforeEnd) became those in [after, afterEnd).
struct Change {
    std::size_t before, beforeEnd, after, afterEnd;
};

/// Equal lines have equal numbers.
class LineNumbers {
public:
    std::vector<int> Of(Lines::const_iterator begin, Lines::const_iterator end) {
        std::vector<int> numbers;
        for (; begin != end; ++begin) {
            numbers.push_back(
                known_.emplace(*begin, static_cast<int>(known_.size())).first->second);
        }
        return numbers;
    }

private:
    std::unordered_map<std::string_view, int> known_;
};

/// The changes that lead from one stretch of lines to another; their indices begin at `before` and
/// `after`.
std::vector<Change> ShortestChanges(const std::vector<int>& old, const std::vector<int>& changed,
                                    std::size_t before, std::size_t after) {
    dtl::Diff<int> diff(old, changed);
    diff.compose();
    std::vector<Change> changes;
    bool inChange = false;
    for (const auto& [line, step] : diff.getSes().getSequence()) {
        if (step.type == dtl::SES_COMMON) {
            inChange = false;
            ++before;
            ++after;
            continue;
        }
        if (!inChange) {
            changes.push_back({before, before, after, after});
            inChange = true;
        }
        if (step.type == dtl::SES_DELETE) {
            changes.back().beforeEnd = ++before;
        } else {
            changes.back().afterEnd = ++after;
        }
    }
    return changes;
}

std::vector<Change> ChangesBetween(const Lines& before, const Lines& after) {
    const auto [old, changed] =
        std::mismatch(before.begin(), before.end(), after.begin(), after.end());
    const auto [oldEnd, changedEnd] =
        std::mismatch(before.rbegin(), std::make_reverse_iterator(old), after.rbegin(),
                      std::make_reverse_iterator(changed));
    const auto start = static_cast<std::size_t>(old - before.begin());
    const auto oldCount = static_cast<std::size_t>(oldEnd.base() - old);
    const auto changedCount = static_cast<std::size_t>(changedEnd.base() - changed);
    if (oldCount == 0 && changedCount == 0) {
        return {};
    }
    if (oldCount == 0 || changedCount == 0 || changedCount > longestSearch / oldCount) {
        return {{start, start + oldCount, start, start + changedCount}};
    }
    LineNumbers numbers;
    const auto oldNumbers = numbers.Of(old, oldEnd.base());
    return ShortestChanges(oldNumbers, numbers.Of(changed, changedEnd.base()), start, start);
}

/// "FIRST,COUNT", in which an empty range stands behind the line that it names.
std::string Range(std::size_t begin, std::size_t end) {
    const std::size_t count = end - begin;
    const std::string first = std::to_string(count == 0 ? begin : begin + 1);
    return count == 1 ? first : first + "," + std::to_string(count);
}

void AddLines(std::string& text, char mark, const Lines& lines, std::size_t begin,
              std::size_t end) {
    for (std::size_t i = begin; i < end; ++i) {
        text += mark;
        text += lines[i];
        if (lines[i].back() != '\n') {
            text += "\n\\ No newline at end of file\n";
        }
    }
}

/// The changes in [begin, end) with what is between and around them.
void AddHunk(std::string& text, const Lines& before, const Lines& after,
             std::vector<Change>::const_iterator begin, std::vector<Change>::const_iterator end) {
    const Change& last = *std::prev(end);
    const std::size_t lead = std::min(contextLines, begin->before);
    const std::size_t trail = std::min(contextLines, before.size() - last.beforeEnd);
    text += "@@ -" + Range(begin->before - lead, last.beforeEnd + trail) + " +" +
            Range(begin->after - lead, last.afterEnd + trail) + " @@\n";
    std::size_t told = begin->before - lead;
    for (auto change = begin; change != end; ++change) {
        AddLines(text, ' ', before, told, change->before);
        AddLines(text, '-', before, change->before, change->beforeEnd);
        AddLines(text, '+', after, change->after, change->afterEnd);
        told = change->beforeEnd;
    }
    AddLines(text, ' ', before, told, told + trail);
}

} // namespace

std::string UnifiedDiff(const std::string& name, const std::string& before,
                        const std::string& after) {
    const Lines old = SplitLines(before);
    const Lines changed = SplitLines(after);
    const auto changes = ChangesBetween(old, changed);
    if (changes.empty()) {
        return "";
    }
    std::string text = "--- " + OneLine(name) + "\n+++ " + OneLine(name) + "\n";
    for (auto begin = changes.begin(); begin != changes.end();) {
        auto end = std::next(begin);
        while (end != changes.end() &&
               end->before - std::prev(end)->beforeEnd <= 2 * contextLines) {
            ++end;
        }
        AddHunk(text, old, changed, begin, end);
        begin = end;
    }
    return text;
}

} // namespace ctl
