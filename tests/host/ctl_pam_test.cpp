#include <gmock/gmock.h>

#include "ctl_file_fixture.h"

namespace ctl_test {
namespace {

using testing::HasSubstr;

/// With all that an edit must keep: comments, odd spacing, bytes that are no UTF-8, no final LF.
constexpr const char* policy = "# a comment \xff\n"
                               "auth  required \t pam_env.so\n"
                               "\n"
                               "  auth [success=1   default=ignore]\tpam_unix.so nullok # note\n"
                               "account required pam_unix.so\n"
                               "auth required pam_env.so debug\n"
                               "account required pam_last.so";

class PamTest : public FileTest {
protected:
    PamTest() { Fill(policy); }

    Words Pam(const std::string& verb, const Words& more = {}) const {
        return Words{"pam", verb, file} + more;
    }

    /// Expects an edit that puts one line in behind so many lines of the file.
    void ExpectAdded(const Words& arguments, std::size_t behind, const std::string& line) {
        Fill(policy);
        Done(Pam("add", arguments));
        std::string expected = policy;
        std::size_t at = 0;
        for (std::size_t i = 0; i < behind; ++i) {
            at = expected.find('\n', at) + 1;
        }
        EXPECT_EQ(Text(), expected.insert(at, line + "\n"));
    }
};

TEST_F(PamTest, ShowPrintsThePolicyAsTheLibraryWritesIt) {
    EXPECT_EQ(Done(Pam("show")), "#%PAM-1.0\n\n"
                                 "account\trequired\tpam_unix.so\t\n"
                                 "account\trequired\tpam_last.so\t\n\n"
                                 "auth\trequired\tpam_env.so\t\n"
                                 "auth\t[success=1 default=ignore]\tpam_unix.so\tnullok # note \n"
                                 "auth\trequired\tpam_env.so\tdebug \n\n");
    ExpectUntouched();
    Fill("auth include common\nsession substack other a\n");
    EXPECT_EQ(JsonOf(Ctl(Pam("show", {"--json"}))), Json::parse(R"({"entries": [
        {"facility": "auth", "control": "include", "module": "common", "parameters": []},
        {"facility": "session", "control": "substack", "module": "other",
         "parameters": ["a"]}]})"));
    Fill("");
    EXPECT_EQ(Done(Pam("show")), "#%PAM-1.0\n\n");
    EXPECT_EQ(JsonOf(Ctl(Pam("show", {"--json"}))), Json::parse(R"({"entries": []})"));
}

TEST_F(PamTest, FindPrintsTheFirstEntryWithTheModule) {
    EXPECT_EQ(Done(Pam("find", {"auth", "pam_env.so"})), "auth\trequired\tpam_env.so\n");
    EXPECT_EQ(Done(Pam("find", {"auth", "pam_unix.so"})),
              "auth\t[success=1 default=ignore]\tpam_unix.so\tnullok # note\n");
    EXPECT_EQ(JsonOf(Ctl(Pam("find", {"account", "pam_last.so", "--json"}))),
              Json::parse(R"({"entry": {"facility": "account", "control": "required",
                                        "module": "pam_last.so", "parameters": []}})"));
    ExpectFailure(Ctl(Pam("find", {"account", "pam_env.so"})), 1,
                  "tesauthctl: " + file +
                      " has no entry 'account' with the module 'pam_env.so'\n"
                      "hint: ");
    ExpectFailure(Ctl(Pam("find", {"auth", "pam_env"})), 1, "has no entry");
    ExpectUntouched();
}

TEST_F(PamTest, AnEntryIsAddedBehindThoseOfItsFacility) {
    EXPECT_EQ(Done(Pam("add", {"auth", "sufficient", "pam_sss.so", "use_first_pass", "retry=2"})),
              DiffOf(file, "@@ -4,4 +4,5 @@\n"
                           "   auth [success=1   default=ignore]\tpam_unix.so nullok # note\n"
                           " account required pam_unix.so\n"
                           " auth required pam_env.so debug\n"
                           "+auth\tsufficient\tpam_sss.so\tuse_first_pass retry=2\n"
                           " account required pam_last.so\n"
                           "\\ No newline at end of file\n") +
                  ChangedLine(file));
    EXPECT_EQ(scripted::ReadFile(backup), policy);
    ExpectAdded({"auth", "optional", "x.so"}, 6, "auth\toptional\tx.so");
}

TEST_F(PamTest, AnEntryIsAddedWhereItIsTold) {
    const Words entry = {"auth", "optional", "x.so"};
    const std::string line = "auth\toptional\tx.so";
    ExpectAdded(entry + Words{"--first"}, 1, line);
    ExpectAdded(entry + Words{"--before", "pam_unix.so"}, 3, line);
    ExpectAdded(entry + Words{"--after", "pam_unix.so"}, 4, line);
    ExpectAdded(entry + Words{"--before", "pam_env.so"}, 1, line);
    ExpectAdded(entry + Words{"--after", "pam_env.so"}, 2, line);
    ExpectAdded({"account", "optional", "x.so", "--first"}, 4, "account\toptional\tx.so");
    Fill(policy);
    ExpectFailure(Ctl(Pam("add", entry + Words{"--after", "pam_last.so"})), 1,
                  "has no entry 'auth' with the module 'pam_last.so'");
    EXPECT_EQ(Text(), policy);
}

TEST_F(PamTest, AFirstEntryGoesToTheEndAndAMissingLineEndStaysMissing) {
    for (const Words& place : {Words{}, Words{"--first"}}) {
        Fill(policy);
        Done(Pam("add", Words{"session", "optional", "x.so"} + place));
        EXPECT_EQ(Text(), std::string(policy) + "\nsession\toptional\tx.so");
    }
    Fill(policy);
    Done(Pam("add", {"account", "optional", "x.so"}));
    EXPECT_EQ(Text(), std::string(policy) + "\naccount\toptional\tx.so");
    Fill("");
    EXPECT_THAT(Done(Pam("add", {"auth", "required", "x.so"})),
                HasSubstr("@@ -0,0 +1 @@\n+auth\trequired\tx.so\nchanged "));
    EXPECT_EQ(Text(), "auth\trequired\tx.so\n");
}

TEST_F(PamTest, LinesThatEndInCarriageReturnsStayLikeThat) {
    Fill("auth required a.so\r\n# c\r\nauth required b.so\r\n");
    Done(Pam("add", {"auth", "required", "c.so"}));
    Done(Pam("add", {"auth", "required", "d.so", "--before", "b.so"}));
    Done(Pam("remove", {"auth", "a.so"}));
    EXPECT_EQ(Text(),
              "# c\r\nauth\trequired\td.so\r\nauth required b.so\r\nauth\trequired\tc.so\r\n");
    Fill("auth required a.so\r\nauth required b.so");
    Done(Pam("add", {"auth", "required", "c.so"}));
    EXPECT_EQ(Text(), "auth required a.so\r\nauth required b.so\r\nauth\trequired\tc.so");
    Fill("auth required a.so\r\nauth required b.so");
    Done(Pam("add", {"auth", "required", "c.so", "--before", "b.so"}));
    EXPECT_EQ(Text(), "auth required a.so\r\nauth\trequired\tc.so\r\nauth required b.so");
}

TEST_F(PamTest, WordsAreTakenAsTheyAre) {
    Fill("");
    Done(Pam("add", {"auth", "[success=1 \t default=ignore]", "find", "[a,b]", "status", "#", "[]",
                     "--first", "--", "-x", "--json", "[c]", "--"}));
    EXPECT_EQ(Text(),
              "auth\t[success=1 default=ignore]\tfind\t[a,b] status # [] -x --json [c] --\n");
    EXPECT_EQ(Done(Pam("find", {"auth", "find"})), Text());
    Done(Pam("add", {"auth", "required", "[m]", "--before", "find"}));
    Done(Pam("remove", {"auth", "[m]"}));
    Done(Pam("add", {"auth", "required", "--", "-m", "-p"}));
    Done(Pam("remove", {"auth", "--", "-m"}));
    EXPECT_EQ(Text(),
              "auth\t[success=1 default=ignore]\tfind\t[a,b] status # [] -x --json [c] --\n");
}

TEST_F(PamTest, WhatIsThereAlreadyIsNotDoubled) {
    const Words actions = {"auth", "[success=1 default=ignore]", "pam_unix.so", "nullok", "#",
                           "note"};
    const Words first = {"auth", "required", "pam_env.so"};
    for (const Words& words : {
             Words{"auth", "required", "pam_env.so", "debug"}, // at the end
             first + Words{"--first"},
             first + Words{"--before", "pam_unix.so"},
             actions + Words{"--after", "pam_env.so"},
             actions + Words{"--after", "pam_unix.so"},
             actions + Words{"--before", "pam_unix.so", "--rewrite"},
         }) {
        const Result result = Ctl(Pam("add", words));
        ExpectFailure(result, 1, ": the entry is there already\n");
        EXPECT_EQ(result.out, "");
        ExpectUntouched();
    }
    ExpectFailure(Ctl(Pam("add", first + Words{"--first"})), 1, file + ":2: ");
    // Elsewhere, or another one for those who look closely: with other actions, with parameters.
    Done(Pam("add", {"auth", "[default=die]", "pam_unix.so", "nullok", "#", "note", "--after",
                     "pam_env.so"}));
    Done(Pam("add", {"auth", "required", "pam_env.so"}));
    Done(Pam("add", {"account", "required", "pam_last.so", "x"}));
}

TEST_F(PamTest, TheFirstEntryWithTheModuleIsRemoved) {
    EXPECT_EQ(Done(Pam("remove", {"auth", "pam_env.so"})),
              DiffOf(file, "@@ -1,5 +1,4 @@\n"
                           " # a comment \xff\n"
                           "-auth  required \t pam_env.so\n"
                           " \n"
                           "   auth [success=1   default=ignore]\tpam_unix.so nullok # note\n"
                           " account required pam_unix.so\n") +
                  ChangedLine(file));
    std::string expected = policy;
    expected.erase(expected.find("auth  required"),
                   std::string("auth  required \t pam_env.so\n").size());
    EXPECT_EQ(Text(), expected);
    Done(Pam("remove", {"account", "pam_last.so"}));
    EXPECT_EQ(Text(), expected.substr(0, expected.rfind("account")));
    ExpectFailure(Ctl(Pam("remove", {"account", "pam_last.so"})), 1, "has no entry 'account'");
    Fill("auth required a.so");
    Done(Pam("remove", {"auth", "a.so"}));
    EXPECT_EQ(Text(), "");
}

TEST_F(PamTest, ARewriteIsInTheLibrarysForm) {
    EXPECT_EQ(Done(Pam("add", {"auth", "required", "x.so", "--after", "pam_unix.so", "--rewrite"})),
              DiffOf(file, "@@ -1,7 +1,10 @@\n"
                           "-# a comment \xff\n"
                           "-auth  required \t pam_env.so\n"
                           "+#%PAM-1.0\n"
                           " \n"
                           "-  auth [success=1   default=ignore]\tpam_unix.so nullok # note\n"
                           "-account required pam_unix.so\n"
                           "-auth required pam_env.so debug\n"
                           "-account required pam_last.so\n"
                           "\\ No newline at end of file\n"
                           "+account\trequired\tpam_unix.so\t\n"
                           "+account\trequired\tpam_last.so\t\n"
                           "+\n"
                           "+auth\trequired\tpam_env.so\t\n"
                           "+auth\t[success=1 default=ignore]\tpam_unix.so\tnullok # note \n"
                           "+auth\trequired\tx.so\t\n"
                           "+auth\trequired\tpam_env.so\tdebug \n"
                           "+\n") +
                  ChangedLine(file));
    EXPECT_EQ(Text(), Done(Pam("show")));
    const std::string before = Text();
    Done(Pam("remove", {"auth", "x.so", "--rewrite"}));
    std::string expected = before;
    const std::string line = "auth\trequired\tx.so\t\n";
    EXPECT_EQ(Text(), expected.erase(expected.find(line), line.size()));
    EXPECT_EQ(scripted::ReadFile(backup), policy);
}

TEST_F(PamTest, ADryRunOnlyShows) {
    for (const Words& words :
         {Pam("add", {"auth", "required", "x.so"}), Pam("remove", {"auth", "pam_env.so"}),
          Pam("add", {"auth", "required", "x.so", "--rewrite"})}) {
        const std::string shown = Done(words + Words{"--dry-run"});
        ExpectUntouched();
        const Json json = JsonOf(Ctl(words + Words{"--dry-run", "--json"}));
        EXPECT_EQ(json["changed"], false);
        EXPECT_EQ(json["backup"], Json());
        ExpectUntouched();
        EXPECT_EQ(Done(words), shown + ChangedLine(file));
        Done(Pam("restore"));
    }
}

TEST_F(PamTest, TheJsonAnswerHasTheDifference) {
    Fill("auth required a.so\n");
    const Json json = JsonOf(Ctl(Pam("add", {"auth", "required", "b.so", "--json"})));
    EXPECT_EQ(json, Json({{"file", file},
                          {"diff", DiffOf(file, "@@ -1 +1,2 @@\n auth required a.so\n"
                                                "+auth\trequired\tb.so\n")},
                          {"changed", true},
                          {"backup", backup}}));
}

struct Refused {
    const char* text;
    int line;
    const char* word;
};

class PamRefusalTest : public PamTest, public testing::WithParamInterface<Refused> {};

TEST_P(PamRefusalTest, LeavesTheFileAlone) {
    Fill(GetParam().text);
    const std::string told = "tesauthctl: " + file + ":" + std::to_string(GetParam().line) + ": ";
    for (const Words& words :
         {Pam("show"), Pam("find", {"auth", "a.so"}), Pam("add", {"auth", "required", "x.so"}),
          Pam("add", {"auth", "required", "x.so", "--rewrite"}), Pam("remove", {"auth", "a.so"}),
          Pam("remove", {"auth", "a.so", "--rewrite", "--dry-run"})}) {
        const Result result = Ctl(words);
        ExpectFailure(result, 1, told);
        ExpectFailure(result, 1, GetParam().word);
        ExpectFailure(result, 1, "\nhint: ");
        EXPECT_EQ(result.out, "");
        ExpectUntouched();
    }
    const Json error = Json::parse(Ctl(Pam("show", {"--json"})).out)["error"];
    EXPECT_THAT(error["text"], HasSubstr(GetParam().word));
}

INSTANTIATE_TEST_SUITE_P(
    Lines, PamRefusalTest,
    testing::Values(Refused{"auth required a.so\n\n@include common-auth\n", 3, "'@include'"},
                    Refused{"# c\n-session optional a.so\nauth required a.so\n", 2, "'-session'"},
                    Refused{"auth required a.so\nAuth required a.so", 2, "'Auth'"},
                    Refused{"auth required a.so\r\nauth Required a.so\r\n", 2, "'Required'"},
                    Refused{"auth \xff a.so\nauth required a.so\n", 1, "is no control"},
                    Refused{"auth\nrequired a.so\n", 1, "the control is missing"},
                    Refused{"auth required a.so\nauth required\na.so\n", 2,
                            "the module is missing"},
                    Refused{"auth required a.so\nauth required", 2, "the module is missing"},
                    Refused{"auth required a.so\nauth\n", 2, "the control is missing"},
                    Refused{"auth [a=1\nb=2] a.so\n", 1, "'[a=1'"},
                    Refused{"auth required a.so\nauth [a=1] \n", 2, "the module is missing"},
                    Refused{"auth required a.so\nauth [a=1 b\x1b[0m\n", 2, "does not end"},
                    Refused{"auth required a.so\nauth a]\n", 2, "'a]'"}));

TEST_F(PamTest, ALineThatGoesOnElsewhereIsShownButNotEdited) {
    Fill("auth required b.so\nauth required a.so x \\\n");
    EXPECT_THAT(Done(Pam("show")), HasSubstr("a.so\tx \\ \n"));
    for (const Words& words :
         {Pam("add", {"auth", "required", "x.so"}), Pam("remove", {"auth", "b.so"})}) {
        ExpectFailure(Ctl(words), 1, file + ":2: '\\' at the end of the line");
        ExpectFailure(Ctl(words + Words{"--rewrite"}), 1, file + ":2: '\\'");
    }
    ExpectUntouched();
}

class PamUsageTest : public PamTest, public testing::WithParamInterface<Words> {};

TEST_P(PamUsageTest, IsWrong) {
    ExpectWrongUsage("pam", GetParam());
}

INSTANTIATE_TEST_SUITE_P(
    Lines, PamUsageTest,
    testing::Values(
        Words{"flub"}, Words{"show"}, Words{"show", "F", "x"}, Words{"show", "F", "--rewrite"},
        Words{"find", "F", "auth"}, Words{"find", "F", "Auth", "a.so"},
        Words{"find", "F", "auth", "a.so", "--dry-run"}, Words{"add", "F", "auth", "required"},
        Words{"add", "F", "flub", "required", "a.so"}, Words{"add", "F", "auth", "flub", "a.so"},
        Words{"add", "F", "auth", "[a", "a.so"}, Words{"add", "F", "auth", "[a] b]", "a.so"},
        Words{"add", "F", "auth", "", "a.so"}, Words{"add", "F", "auth", "required", ""},
        Words{"add", "F", "auth", "required", "a b"},
        Words{"add", "F", "auth", "required", "a.so", ""},
        Words{"add", "F", "auth", "required", "a.so", "b\nauth"},
        Words{"add", "F", "auth", "required", "a.so", "b", "c\\"},
        Words{"add", "F", "auth", "required", "a.so\\"},
        Words{"add", "F", "auth", "required", "a.so", "\nb"},
        Words{"add", "F", "auth", "required", "\na.so"},
        Words{"add", "F", "auth", "required", "a.so", "--flub"},
        Words{"add", "F", "auth", "required", "a.so", "--before", ""},
        Words{"add", "F", "auth", "required", "a.so", "--before", "b", "--after", "c"},
        Words{"add", "F", "auth", "required", "a.so", "--first", "--after", "c"},
        Words{"add", "F", "auth", "required", "a.so", "--first", "--before", "c"},
        Words{"add", "F", "auth", "required", "a.so", "--before"}, Words{"remove", "F", "auth"},
        Words{"remove", "F", "flub", "a.so"}, Words{"remove", "F", "auth", "a.so", "b.so"},
        Words{"remove", "F", "auth", "a.so", "--first"}, Words{"restore"},
        Words{"restore", "F", "auth"}, Words{"restore", "F", "--rewrite"}));

TEST_F(PamTest, WhatIsAddedCanBeEditedAgain) {
    ExpectFailure(Ctl(Pam("add", {"auth", "required", "a.so", "b\\"})), 2,
                  "the last of them does not end in a backslash");
    Done(Pam("add", {"auth", "required", "a.so", "b\\", "c"})); // only at the end it goes on
    Done(Pam("remove", {"auth", "a.so"}));
    EXPECT_EQ(Text(), policy);
}

TEST_F(PamTest, TheHelpNamesTheWayAndWhy) {
    for (const char* verb : {"add", "remove"}) {
        const std::string help = Done({"pam", verb, "--help"});
        EXPECT_THAT(help, HasSubstr("Changes only the line concerned"));
        EXPECT_THAT(help, HasSubstr("because comments"));
        EXPECT_THAT(help, HasSubstr("With --rewrite it writes\nthe whole file anew"));
        EXPECT_THAT(help, HasSubstr(".tesauth-backup"));
        EXPECT_THAT(help,
                    HasSubstr("Exit codes: 0 done, 1 failed, 2 wrong usage, 3 not permitted"));
    }
    for (const char* verb : {"show", "find"}) {
        EXPECT_THAT(Done({"pam", verb, "--help"}), HasSubstr("as the library does"));
    }
    EXPECT_THAT(Done({"pam", "restore", "--help"}), HasSubstr("Puts back every byte"));
    EXPECT_THAT(Done({"pam", "--help"}), HasSubstr("restore"));
}

TEST_F(PamTest, AHundredThousandLines) {
    std::string lines;
    for (int i = 0; i < 100'000; ++i) {
        lines += "auth required module" + std::to_string(i) + ".so # kept\n";
    }
    Fill(lines);
    EXPECT_EQ(Done(Pam("add", {"auth", "required", "x.so", "--after", "module49999.so"})),
              DiffOf(file, "@@ -49998,6 +49998,7 @@\n"
                           " auth required module49997.so # kept\n"
                           " auth required module49998.so # kept\n"
                           " auth required module49999.so # kept\n"
                           "+auth\trequired\tx.so\n"
                           " auth required module50000.so # kept\n"
                           " auth required module50001.so # kept\n"
                           " auth required module50002.so # kept\n") +
                  ChangedLine(file));
    Done(Pam("remove", {"auth", "x.so"}));
    EXPECT_TRUE(Text() == lines); // too much to be told
    const std::string shown = Done(Pam("remove", {"auth", "module0.so", "--rewrite"}));
    EXPECT_THAT(shown.substr(0, 200), HasSubstr("@@ -1,100000 +1,100002 @@\n"));
    const std::string text = Text();
    EXPECT_THAT(text.substr(text.size() - 100),
                HasSubstr("\nauth\trequired\tmodule99999.so\t# kept \n\n"));
}

} // namespace
} // namespace ctl_test
