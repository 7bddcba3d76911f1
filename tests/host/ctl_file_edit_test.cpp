/// The edits of lines agree with the same edits of the library's types, and the difference that is
/// shown leads from the one text to the other: over many generated files.
#include <gtest/gtest.h>

#include <algorithm>
#include <charconv>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>

#include "file_change.h"
#include "nss_file.h"
#include "pam_file.h"
#include "unified_diff.h"

namespace ctl {
namespace {

using namespace SystemConfiguration;

/// What a test makes its texts of; the same in every run.
class Dice {
public:
    explicit Dice(unsigned seed) : generator_(seed) {}

    std::size_t Below(std::size_t end) { return generator_() % end; }
    bool OneIn(std::size_t count) { return Below(count) == 0; }
    std::string Of(const std::vector<std::string>& words) { return words[Below(words.size())]; }

private:
    std::mt19937 generator_;
};

/// Lines of one side of a hunk.
struct Range {
    std::size_t first = 0; ///< counted from 1; of no lines, the one before them
    std::size_t count = 1;

    /// How many lines are before it.
    std::size_t Before() const { return count == 0 ? first : first - 1; }
};

/// Takes "-FIRST,COUNT" or, of one line, "-FIRST" off the text's beginning.
Range TakeRange(std::string_view& text, char sign) {
    const auto number = [&] {
        std::size_t value = 0;
        const auto read = std::from_chars(text.data() + 1, text.data() + text.size(), value);
        EXPECT_EQ(read.ec, std::errc());
        text.remove_prefix(static_cast<std::size_t>(read.ptr - text.data()));
        return value;
    };
    Range range;
    EXPECT_EQ(text.front(), sign);
    range.first = number();
    if (text.front() == ',') {
        range.count = number();
        EXPECT_NE(range.count, 1u) << "one line needs no count";
    }
    return range;
}

/// Applies a difference to lines, hunk by hunk.
class Patch {
public:
    explicit Patch(const std::string& text) : lines_(SplitLines(text)) {}

    /// Copies what is before the hunk. Fails when its head does not fit what was before it.
    void Begin(std::string_view head) {
        Complete();
        EXPECT_EQ(head.substr(0, 3), "@@ ");
        head.remove_prefix(3);
        const Range old = TakeRange(head, '-');
        EXPECT_EQ(head.substr(0, 1), " ");
        head.remove_prefix(1);
        const Range now = TakeRange(head, '+');
        EXPECT_EQ(head, " @@\n");
        while (at_ < old.Before()) {
            Put(lines_.at(at_++));
        }
        EXPECT_EQ(at_, old.Before());
        EXPECT_EQ(written_, now.Before());
        oldEnd_ = at_ + old.count;
        newEnd_ = written_ + now.count;
    }

    void Put(std::string_view line) {
        text_ += line;
        ++written_;
    }

    void Skip(std::string_view line) {
        EXPECT_EQ(lines_.at(at_), line);
        ++at_;
    }

    /// Fails when the hunk had another number of lines than its head says.
    void Complete() const {
        EXPECT_EQ(at_, oldEnd_);
        EXPECT_EQ(written_, newEnd_);
    }

    std::string Finish() {
        Complete();
        for (; at_ < lines_.size(); ++at_) {
            text_ += lines_[at_];
        }
        return text_;
    }

private:
    std::vector<std::string_view> lines_;
    std::string text_;
    std::size_t at_ = 0;
    std::size_t written_ = 0;
    std::size_t oldEnd_ = 0;
    std::size_t newEnd_ = 0;
};

/// Applies a difference. Fails when it does not fit.
std::string Patched(const std::string& text, const std::string& diff) {
    const auto steps = SplitLines(diff);
    Patch patch(text);
    for (std::size_t i = 2; i < steps.size(); ++i) {
        std::string_view body = steps[i].substr(1);
        if (i + 1 < steps.size() && steps[i + 1].front() == '\\') {
            body.remove_suffix(1);
        }
        switch (steps[i].front()) {
        case '@':
            patch.Begin(steps[i]);
            break;
        case '+':
            patch.Put(body);
            break;
        case ' ':
            patch.Put(body);
            [[fallthrough]];
        case '-':
            patch.Skip(body);
            break;
        default:
            EXPECT_EQ(steps[i], "\\ No newline at end of file\n");
        }
    }
    return patch.Finish();
}

/// How many lines a difference takes away and how many it adds.
std::pair<std::size_t, std::size_t> Counts(const std::string& diff) {
    std::pair<std::size_t, std::size_t> counts;
    const auto steps = SplitLines(diff);
    for (std::size_t i = 2; i < steps.size(); ++i) {
        counts.first += steps[i].front() == '-';
        counts.second += steps[i].front() == '+';
    }
    return counts;
}

TEST(UnifiedDiffTest, IsWhatTheWellKnownProgramPrints) {
    EXPECT_EQ(UnifiedDiff("f", "a\n", "a\n"), "");
    EXPECT_EQ(UnifiedDiff("f", "", ""), "");
    EXPECT_EQ(UnifiedDiff("f", "", "a\n"), "--- f\n+++ f\n@@ -0,0 +1 @@\n+a\n");
    EXPECT_EQ(UnifiedDiff("f", "a\nb\n", ""), "--- f\n+++ f\n@@ -1,2 +0,0 @@\n-a\n-b\n");
    EXPECT_EQ(UnifiedDiff("f", "a", "a\n"),
              "--- f\n+++ f\n@@ -1 +1 @@\n-a\n\\ No newline at end of file\n+a\n");
    EXPECT_EQ(UnifiedDiff("f", "1\n2\n3\n4\n5\n6\n7\n8\n9\n", "1\n3\n4\n5\n6\n7\n8\nx\n9\n"),
              "--- f\n+++ f\n@@ -1,9 +1,9 @@\n 1\n-2\n 3\n 4\n 5\n 6\n 7\n 8\n+x\n 9\n");
    EXPECT_EQ(
        UnifiedDiff("f", "1\n2\n3\n4\n5\n6\n7\n8\n9\n", "1\n3\n4\n5\n6\n7\n8\n9\nx\n"),
        "--- f\n+++ f\n@@ -1,5 +1,4 @@\n 1\n-2\n 3\n 4\n 5\n@@ -7,3 +6,4 @@\n 7\n 8\n 9\n+x\n");
    EXPECT_EQ(UnifiedDiff("a\nb\x1b", "1\n", "2\n"), "--- a b?\n+++ a b?\n@@ -1 +1 @@\n-1\n+2\n");
}

TEST(UnifiedDiffTest, LeadsFromTheOneTextToTheOther) {
    Dice dice(1);
    for (int round = 0; round < 20'000; ++round) {
        const auto text = [&] {
            std::string lines;
            for (std::size_t count = dice.Below(14); count > 0; --count) {
                lines += dice.Of({"a\n", "b\n", "c\n", "\n", "-\n", "@\n"});
            }
            return dice.OneIn(4) ? lines + "end" : lines;
        };
        const std::string before = text();
        const std::string after = text();
        const std::string diff = UnifiedDiff("f", before, after);
        ASSERT_EQ(diff.empty(), before == after);
        ASSERT_EQ(Patched(before, diff), after) << before << "to\n" << after << "by\n" << diff;
    }
}

TEST(UnifiedDiffTest, OfLongTextsIsRightAsWell) {
    std::string before;
    std::string after;
    for (int i = 0; i < 30'000; ++i) {
        before += std::to_string(i) + "\n";
        after += std::to_string(i % 3 == 0 ? -i : i) + "\n";
    }
    ASSERT_EQ(Patched(before, UnifiedDiff("f", before, after)), after);
}

std::string PolicyText(Dice& dice) {
    std::string text;
    const std::string end = dice.OneIn(4) ? "\r\n" : "\n";
    for (std::size_t count = dice.Below(9); count > 0; --count) {
        if (dice.OneIn(4)) {
            text += dice.Of({"", "# c", "  #auth required x", " \t ", "#%PAM-1.0"}) + end;
            continue;
        }
        const std::string gap = dice.Of({" ", "\t", "  \t"});
        text += dice.Of({"", " "}) + dice.Of({"auth", "account", "password", "session"}) + gap +
                dice.Of({"required", "include", "[a=1]", "[a=1  b=2]", "[\ta=1 ]"}) + gap +
                dice.Of({"x.so", "y.so", "z.so"}) +
                dice.Of({"", " ", " p", "  p\tq", " [a b] # c"}) + end;
    }
    return !text.empty() && dice.OneIn(4) ? text.substr(0, text.rfind(end)) : text;
}

PAMPolicy PolicyOf(const std::string& text) {
    PAMPolicy policy("");
    std::istringstream in(text);
    in >> policy;
    return policy;
}

/// All entries, to the letter.
std::string Entries(PAMPolicy policy) {
    std::ostringstream out;
    for (const auto facility :
         {PAMFacility::Account, PAMFacility::Auth, PAMFacility::Password, PAMFacility::Session}) {
        out << policy[facility];
    }
    return out.str();
}

constexpr PAMFacility::Facility facilities[] = {PAMFacility::Account, PAMFacility::Auth,
                                                PAMFacility::Password, PAMFacility::Session};

PamLine EntryOf(Dice& dice) {
    PamLine line = {
        facilities[dice.Below(4)],
        PAMEntry(ParseControl(dice.Of({"required", "[a=1  b=2]"})), dice.Of({"x.so", "new.so"}))};
    if (dice.OneIn(2)) {
        line.entry.parameters() = {"p", "[q", "r]"};
    }
    return line;
}

/// The edit of the types; nothing when it cannot be made.
bool Insert(std::deque<PAMEntry>& entries, std::deque<PAMEntry>::iterator anchor,
            const PAMEntry& added, Place::Kind kind) {
    if ((kind == Place::Before || kind == Place::After) && anchor == entries.end()) {
        return false;
    }
    entries.insert(kind == Place::First    ? entries.begin()
                   : kind == Place::Last   ? entries.end()
                   : kind == Place::Before ? anchor
                                           : std::next(anchor),
                   added);
    return true;
}

TEST(PamEditTest, AddingALineIsAddingAnEntry) {
    Dice dice(2);
    std::size_t made = 0;
    std::size_t refused = 0;
    for (int round = 0; round < 20'000; ++round) {
        const std::string text = PolicyText(dice);
        SCOPED_TRACE(text);
        const PamLine added = EntryOf(dice);
        const Place place = {static_cast<Place::Kind>(dice.Below(4)), dice.Of({"x.so", "y.so"})};
        PAMPolicy policy = PolicyOf(text);
        auto& entries = policy[added.facility].entries();
        const bool can =
            Insert(entries, policy[added.facility].find(place.anchor), added.entry, place.kind);
        std::string changed;
        try {
            changed = PamFile("f", text).WithEntry(added, place, Way::Lines);
        } catch (const HintedError& failure) {
            const bool isDouble =
                std::string(failure.what()).find("there already") != std::string::npos;
            ASSERT_NE(can, !isDouble) << failure.what();
            ++refused;
            continue;
        }
        ++made;
        ASSERT_TRUE(can);
        ASSERT_EQ(Entries(PolicyOf(changed)), Entries(policy));
        std::ostringstream rewritten;
        rewritten << policy;
        ASSERT_EQ(PamFile("f", text).WithEntry(added, place, Way::Rewrite), rewritten.str());
        const std::string diff = UnifiedDiff("f", text, changed);
        ASSERT_EQ(Patched(text, diff), changed);
        const bool endsOpen = Counts(diff).first == 1;
        ASSERT_EQ(Counts(diff), std::make_pair(std::size_t{endsOpen}, std::size_t{1} + endsOpen));
        ASSERT_TRUE(!endsOpen || text.back() != '\n');
        ASSERT_EQ(text.empty() || text.back() == '\n', changed.back() == '\n');
    }
    EXPECT_GT(made, 8'000u);
    EXPECT_GT(refused, 1'000u);
}

TEST(PamEditTest, RemovingALineIsRemovingAnEntry) {
    Dice dice(3);
    std::size_t made = 0;
    for (int round = 0; round < 20'000; ++round) {
        const std::string text = PolicyText(dice);
        SCOPED_TRACE(text);
        const PAMFacility facility = facilities[dice.Below(4)];
        const std::string module = dice.Of({"x.so", "y.so"});
        PAMPolicy policy = PolicyOf(text);
        auto& entries = policy[facility].entries();
        const auto found = policy[facility].find(module);
        if (found == entries.end()) {
            ASSERT_THROW(PamFile("f", text).WithoutEntry(facility, module, Way::Lines),
                         HintedError);
            continue;
        }
        ++made;
        entries.erase(found);
        const std::string changed = PamFile("f", text).WithoutEntry(facility, module, Way::Lines);
        ASSERT_EQ(Entries(PolicyOf(changed)), Entries(policy));
        ASSERT_EQ(Counts(UnifiedDiff("f", text, changed)),
                  std::make_pair(std::size_t{1}, std::size_t{0}));
        std::ostringstream rewritten;
        rewritten << policy;
        ASSERT_EQ(PamFile("f", text).WithoutEntry(facility, module, Way::Rewrite), rewritten.str());
    }
    EXPECT_GT(made, 4'000u);
}

const std::vector<std::string> modules = {"files", "dns", "sss", "db", "x"};

/// Lines without brackets: what follows those the library does not read.
std::string SwitchText(Dice& dice) {
    std::string text;
    for (std::size_t count = dice.Below(6); count > 0; --count) {
        if (dice.OneIn(3)) {
            text += dice.Of({"", "# c \r", "  # c", "gshadow: files ", "\t", "foo:"}) + "\n";
            continue;
        }
        text += dice.Of({"", " "}) + dice.Of({"passwd:", "hosts:", "group:"});
        for (std::size_t services = dice.Below(4); services > 0; --services) {
            text += dice.Of({" ", "\t", "   "}) + dice.Of(modules);
        }
        text += dice.Of({"", "", "  ", "\t \t"}) + "\n";
    }
    return !text.empty() && dice.OneIn(4) ? text.substr(0, text.size() - 1) : text;
}

NSSConfiguration ConfigurationOf(const std::string& text) {
    NSSConfiguration configuration;
    std::istringstream in(text);
    in >> configuration;
    return configuration;
}

std::string Services(NSSConfiguration configuration) {
    std::ostringstream out;
    for (const NSSDatabase database : NssDatabases()) {
        for (const NSSService& service : configuration[database]) {
            out << static_cast<std::string>(database) << " " << service << "\n";
        }
    }
    return out.str();
}

std::deque<NSSService>::iterator Find(std::deque<NSSService>& services, const std::string& name) {
    return std::find_if(services.begin(), services.end(),
                        [&](const NSSService& service) { return service.module() == name; });
}

/// Whether more than one line is one of the database.
bool IsOnSeveralLines(const std::string& text, NSSDatabase database) {
    const std::string word = static_cast<std::string>(database) + ":";
    std::size_t count = 0;
    for (const std::string_view line : SplitLines(text)) {
        const auto words = SplitWords(line);
        count += !words.empty() && words.front() == word;
    }
    return count > 1;
}

TEST(NssEditTest, AddingAWordIsAddingAService) {
    Dice dice(4);
    std::size_t made = 0;
    for (int round = 0; round < 20'000; ++round) {
        const std::string text = SwitchText(dice);
        SCOPED_TRACE(text);
        const NSSDatabase database(dice.Of({"passwd", "hosts", "group", "rpc"}));
        const NSSService added(dice.Of(modules));
        const Place place = {static_cast<Place::Kind>(dice.Below(4)), dice.Of(modules)};
        NSSConfiguration configuration = ConfigurationOf(text);
        auto& services = configuration[database];
        const auto anchor = Find(services, place.anchor);
        const bool needsAnchor = place.kind == Place::Before || place.kind == Place::After;
        if (Find(services, added.module()) != services.end() ||
            (needsAnchor && anchor == services.end())) {
            ASSERT_THROW(NssFile("f", text).WithService(database, added, place, Way::Lines),
                         HintedError);
            continue;
        }
        services.insert(place.kind == Place::First    ? services.begin()
                        : place.kind == Place::Last   ? services.end()
                        : place.kind == Place::Before ? anchor
                                                      : std::next(anchor),
                        added);
        std::ostringstream rewritten;
        rewritten << configuration;
        ASSERT_EQ(NssFile("f", text).WithService(database, added, place, Way::Rewrite),
                  rewritten.str());
        if (IsOnSeveralLines(text, database)) {
            ASSERT_THROW(NssFile("f", text).WithService(database, added, place, Way::Lines),
                         HintedError);
            continue;
        }
        ++made;
        const std::string changed =
            NssFile("f", text).WithService(database, added, place, Way::Lines);
        ASSERT_EQ(Services(ConfigurationOf(changed)), Services(configuration)) << changed;
        ASSERT_LE(Counts(UnifiedDiff("f", text, changed)).first, 1u);
        ASSERT_LE(Counts(UnifiedDiff("f", text, changed)).second, 2u);
    }
    EXPECT_GT(made, 5'000u);
}

TEST(NssEditTest, RemovingAWordIsRemovingAService) {
    Dice dice(5);
    std::size_t made = 0;
    for (int round = 0; round < 20'000; ++round) {
        const std::string text = SwitchText(dice);
        SCOPED_TRACE(text);
        const NSSDatabase database(dice.Of({"passwd", "hosts", "group"}));
        const std::string name = dice.Of(modules);
        NSSConfiguration configuration = ConfigurationOf(text);
        auto& services = configuration[database];
        const auto found = Find(services, name);
        if (found == services.end()) {
            ASSERT_THROW(NssFile("f", text).WithoutService(database, name, Way::Lines),
                         HintedError);
            continue;
        }
        services.erase(found);
        std::ostringstream rewritten;
        rewritten << configuration;
        ASSERT_EQ(NssFile("f", text).WithoutService(database, name, Way::Rewrite), rewritten.str());
        if (IsOnSeveralLines(text, database)) {
            ASSERT_THROW(NssFile("f", text).WithoutService(database, name, Way::Lines),
                         HintedError);
            continue;
        }
        ++made;
        const std::string changed = NssFile("f", text).WithoutService(database, name, Way::Lines);
        ASSERT_EQ(Services(ConfigurationOf(changed)), Services(configuration)) << changed;
        ASSERT_EQ(Counts(UnifiedDiff("f", text, changed)),
                  std::make_pair(std::size_t{1}, std::size_t{1}));
    }
    EXPECT_GT(made, 1'000u);
}

/// The library's text of one service with criteria is what the edit of a line writes.
TEST(NssEditTest, CriteriaAreWrittenAsTheLibraryWritesThem) {
    NSSService added("x");
    added.parameters() = {"NOTFOUND=return", "SUCCESS=merge"};
    for (const Way way : {Way::Lines, Way::Rewrite}) {
        EXPECT_EQ(NssFile("f", "passwd: files\n").WithService(NSSDatabase::Passwd, added, {}, way),
                  "passwd: files x [NOTFOUND=return SUCCESS=merge]\n");
    }
}

TEST(FileChangeTest, WhatIsLikeThatAlreadyIsNotWritten) {
    FileArguments arguments;
    arguments.file = "/run/ctl-file-edit";
    std::ofstream(arguments.file) << "a\n";
    const FileSnapshot before = ReadFile(arguments.file);
    const Answer answer = ChangeFile(arguments, false, before, before.content);
    EXPECT_EQ(answer.text, arguments.file + " is like that already: nothing was changed");
    EXPECT_EQ(answer.json["changed"], false);
    EXPECT_EQ(ReadFile(arguments.file).status.st_ino, before.status.st_ino);
    EXPECT_FALSE(std::filesystem::exists(arguments.file + ".tesauth-backup"));
    std::filesystem::remove(arguments.file);
}

} // namespace
} // namespace ctl
