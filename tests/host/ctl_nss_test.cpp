#include <gmock/gmock.h>

#include "ctl_file_fixture.h"

namespace ctl_test {
namespace {

using testing::HasSubstr;

constexpr const char* configuration = "# comment \xff\n"
                                      "passwd:         files systemd\n"
                                      "group:\tfiles\n"
                                      "gshadow:        files \r\n"
                                      "hosts: files mdns4_minimal [NOTFOUND=return] dns\n"
                                      "\n"
                                      "netgroup:\n"
                                      "shadow: files";

class NssTest : public FileTest {
protected:
    NssTest() { Fill(configuration); }

    Words Nss(const std::string& verb, const Words& more = {}) const {
        return Words{"nss", verb, file} + more;
    }

    /// Expects an edit of the configuration that makes one line another, and no more.
    void ExpectEdit(const std::string& verb, const Words& arguments, const std::string& old,
                    const std::string& changed) {
        Fill(configuration);
        Done(Nss(verb, arguments));
        std::string expected = configuration;
        EXPECT_EQ(Text(), expected.replace(expected.find(old), old.size(), changed));
    }

    /// The same, of a file that is only this.
    void ExpectEditOf(const std::string& text, const std::string& verb, const Words& arguments,
                      const std::string& changed) {
        Fill(text);
        Done(Nss(verb, arguments));
        EXPECT_EQ(Text(), changed);
    }
};

TEST_F(NssTest, ShowPrintsTheConfigurationAsTheLibraryWritesIt) {
    EXPECT_EQ(Done(Nss("show")), "passwd: files systemd\ngroup: files\nshadow: files\n"
                                 "hosts: files\n");
    Fill("# c\nhosts: dns [NOTFOUND=return TRYAGAIN=continue]\nfoo: bar\nnetgroup:\npasswd: a b\n");
    EXPECT_EQ(JsonOf(Ctl(Nss("show", {"--json"}))), Json::parse(R"({"databases": [
        {"database": "passwd", "services": [{"service": "a", "criteria": []},
                                            {"service": "b", "criteria": []}]},
        {"database": "hosts", "services": [{"service": "dns", "criteria":
            ["NOTFOUND=return", "TRYAGAIN=continue"]}]}]})"));
    Fill("");
    EXPECT_EQ(Done(Nss("show")), "");
}

TEST_F(NssTest, AServiceIsAddedBehindTheOthers) {
    EXPECT_EQ(Done(Nss("add", {"passwd", "sss"})),
              DiffOf(file, "@@ -1,5 +1,5 @@\n"
                           " # comment \xff\n"
                           "-passwd:         files systemd\n"
                           "+passwd:         files systemd sss\n"
                           " group:\tfiles\n"
                           " gshadow:        files \r\n"
                           " hosts: files mdns4_minimal [NOTFOUND=return] dns\n") +
                  ChangedLine(file));
    EXPECT_EQ(scripted::ReadFile(backup), configuration);
    ExpectEdit("add", {"passwd", "sss"}, "files systemd", "files systemd sss");
    ExpectEdit("add", {"shadow", "sss"}, "shadow: files", "shadow: files sss");
}

TEST_F(NssTest, AServiceIsAddedWhereItIsTold) {
    ExpectEdit("add", {"passwd", "sss", "--first"}, "files systemd", "sss files systemd");
    ExpectEdit("add", {"passwd", "sss", "--after", "files"}, "files systemd", "files sss systemd");
    ExpectEdit("add", {"passwd", "sss", "--before", "systemd"}, "files systemd",
               "files sss systemd");
    ExpectEdit("add", {"group", "sss", "--criteria", " NOTFOUND=return  SUCCESS=merge "},
               "group:\tfiles", "group:\tfiles sss [NOTFOUND=return SUCCESS=merge]");
    Fill(configuration);
    ExpectFailure(Ctl(Nss("add", {"passwd", "sss", "--after", "dns"})), 1,
                  "has no service 'dns' for passwd\nhint: ");
    ExpectFailure(Ctl(Nss("remove", {"passwd", "dns"})), 1, "has no service 'dns' for passwd");
    EXPECT_EQ(Text(), configuration);
}

TEST_F(NssTest, ServicesBehindBracketsAreKnown) {
    ExpectEdit("add", {"hosts", "x"}, "return] dns", "return] dns x");
    ExpectEdit("add", {"hosts", "x", "--before", "dns"}, "return] dns", "return] x dns");
    ExpectEdit("add", {"hosts", "x", "--after", "mdns4_minimal"}, "return] dns", "return] x dns");
    ExpectEdit("add", {"hosts", "x", "--before", "mdns4_minimal"}, "files mdns4", "files x mdns4");
    ExpectEdit("remove", {"hosts", "dns"}, " dns", "");
    ExpectEdit("remove", {"hosts", "mdns4_minimal"}, " mdns4_minimal [NOTFOUND=return]", "");
    ExpectEdit("remove", {"hosts", "files"}, "files mdns4", "mdns4");
    ExpectEditOf("hosts: a  [x  y]\t[z] b\n", "remove", {"hosts", "a"}, "hosts: b\n");
}

TEST_F(NssTest, ADatabaseWithoutServicesGetsItsFirst) {
    ExpectEdit("add", {"netgroup", "nis"}, "netgroup:", "netgroup: nis");
    ExpectEditOf("netgroup:\t\t\n", "add", {"netgroup", "nis"}, "netgroup:\t\tnis\n");
    ExpectEditOf("netgroup: \n", "add", {"netgroup", "nis", "--first"}, "netgroup: nis\n");
    ExpectEditOf("netgroup:", "add", {"netgroup", "nis"}, "netgroup: nis");
    ExpectEditOf("", "add", {"hosts", "files"}, "hosts: files\n");
    ExpectEditOf("# c\r\n", "add", {"hosts", "files"}, "# c\r\nhosts: files\n");
    Fill(configuration);
    Done(Nss("add", {"services", "files"}));
    EXPECT_EQ(Text(), std::string(configuration) + "\nservices: files");
}

/// The library takes both lines together, other readers only the last.
TEST_F(NssTest, ADatabaseOnTwoLinesIsOnlyRewritten) {
    const std::string text = "passwd: a b\ngroup: x\n passwd: c\npasswd: d\n";
    Fill(text);
    for (const Words& words :
         {Nss("add", {"passwd", "n"}), Nss("add", {"passwd", "n", "--after", "b"}),
          Nss("add", {"passwd", "d"}), Nss("remove", {"passwd", "a"}),
          Nss("remove", {"passwd", "none", "--dry-run"})}) {
        const Result result = Ctl(words);
        ExpectFailure(result, 1,
                      "tesauthctl: " + file +
                          ":3: 'passwd' is on an earlier line, too; other readers take only the "
                          "last\nhint: make one line of them; nothing was changed\n");
        EXPECT_EQ(result.out, "");
        ExpectUntouched();
    }
    ExpectEditOf(text, "add", {"group", "y"}, "passwd: a b\ngroup: x y\n passwd: c\npasswd: d\n");
    const std::string rest = "\ngroup: x\n";
    ExpectEditOf(text, "add", {"passwd", "n", "--rewrite"}, "passwd: a b c d n" + rest);
    ExpectEditOf(text, "remove", {"passwd", "c", "--rewrite"}, "passwd: a b d" + rest);
    ExpectFailure(Ctl(Nss("add", {"passwd", "b", "--rewrite"})), 1, "has 'b' for passwd already");
}

TEST_F(NssTest, AServiceIsRemoved) {
    EXPECT_EQ(Done(Nss("remove", {"passwd", "systemd"})),
              DiffOf(file, "@@ -1,5 +1,5 @@\n"
                           " # comment \xff\n"
                           "-passwd:         files systemd\n"
                           "+passwd:         files\n"
                           " group:\tfiles\n"
                           " gshadow:        files \r\n"
                           " hosts: files mdns4_minimal [NOTFOUND=return] dns\n") +
                  ChangedLine(file));
    ExpectEdit("remove", {"passwd", "files"}, "files systemd", "systemd");
    ExpectEdit("remove", {"shadow", "files"}, "shadow: files", "shadow:");
    ExpectEditOf("hosts: a b c\n", "remove", {"hosts", "b"}, "hosts: a c\n");
}

TEST_F(NssTest, WhatIsThereAlreadyIsNotDoubled) {
    for (const Words& words :
         {Words{"passwd", "systemd"}, Words{"passwd", "systemd", "--first"},
          Words{"hosts", "dns", "--before", "files"}, Words{"passwd", "files", "--rewrite"},
          Words{"hosts", "dns", "--rewrite"}, Words{"group", "files", "--criteria", "a=b"}}) {
        const Result result = Ctl(Nss("add", words));
        ExpectFailure(result, 1, "has '" + words[1] + "' for " + words[0] + " already\nhint: ");
        EXPECT_EQ(result.out, "");
        ExpectUntouched();
    }
}

TEST_F(NssTest, ARewriteIsInTheLibrarysFormAndShowsWhatIsLost) {
    EXPECT_EQ(Done(Nss("add", {"passwd", "sss", "--after", "files", "--rewrite"})),
              DiffOf(file, "@@ -1,8 +1,4 @@\n"
                           "-# comment \xff\n"
                           "-passwd:         files systemd\n"
                           "-group:\tfiles\n"
                           "-gshadow:        files \r\n"
                           "-hosts: files mdns4_minimal [NOTFOUND=return] dns\n"
                           "-\n"
                           "-netgroup:\n"
                           "-shadow: files\n"
                           "\\ No newline at end of file\n"
                           "+passwd: files sss systemd\n"
                           "+group: files\n"
                           "+shadow: files\n"
                           "+hosts: files\n") +
                  ChangedLine(file));
    EXPECT_EQ(Text(), Done(Nss("show")));
    Done(Nss("remove", {"group", "files", "--rewrite"}));
    EXPECT_EQ(Text(), "passwd: files sss systemd\ngroup:\nshadow: files\nhosts: files\n");
    EXPECT_EQ(scripted::ReadFile(backup), configuration);
    Done(Nss("restore"));
    ExpectFailure(Ctl(Nss("remove", {"hosts", "dns", "--rewrite"})), 1,
                  "has no service 'dns' for hosts\nhint: services behind brackets are not seen");
    ExpectFailure(Ctl(Nss("add", {"hosts", "x", "--after", "dns", "--rewrite"})), 1,
                  "services behind brackets are not seen");
    ExpectUntouched();
}

TEST_F(NssTest, ADryRunOnlyShows) {
    for (const Words& words : {Nss("add", {"passwd", "sss"}), Nss("remove", {"group", "files"}),
                               Nss("add", {"passwd", "sss", "--rewrite"})}) {
        const std::string shown = Done(words + Words{"--dry-run"});
        ExpectUntouched();
        EXPECT_EQ(Done(words), shown + ChangedLine(file));
        Done(Nss("restore"));
    }
    Fill("passwd: files\n");
    EXPECT_EQ(JsonOf(Ctl(Nss("add", {"passwd", "sss", "--dry-run", "--json"}))),
              Json({{"file", file},
                    {"diff", DiffOf(file, "@@ -1 +1 @@\n-passwd: files\n+passwd: files sss\n")},
                    {"changed", false},
                    {"backup", Json()}}));
}

struct Refused {
    const char* text;
    int line;
    const char* word;
};

/// Lines that the library fails to read.
class NssUnreadableTest : public NssTest, public testing::WithParamInterface<Refused> {};

TEST_P(NssUnreadableTest, LeavesTheFileAlone) {
    Fill(GetParam().text);
    const std::string told = "tesauthctl: " + file + ":" + std::to_string(GetParam().line) + ": ";
    for (const Words& words :
         {Nss("show"), Nss("add", {"group", "x"}), Nss("add", {"group", "x", "--rewrite"}),
          Nss("remove", {"passwd", "files"}), Nss("remove", {"passwd", "files", "--dry-run"})}) {
        const Result result = Ctl(words);
        ExpectFailure(result, 1, told);
        ExpectFailure(result, 1, GetParam().word);
        ExpectFailure(result, 1, "\nhint: ");
        EXPECT_EQ(result.out, "");
        ExpectUntouched();
    }
}

INSTANTIATE_TEST_SUITE_P(Lines, NssUnreadableTest,
                         testing::Values(Refused{"passwd: files \n", 1, "behind 'files'"},
                                         Refused{"# c\r\npasswd: files\nhosts: files dns\r\n", 3,
                                                 "behind 'dns'"},
                                         Refused{"hosts: a\n\nhosts: b\t", 3, "behind 'b'"}));

/// Lines that the library skips or reads, and that the edit of their database would spoil.
class NssDoubtfulTest : public NssTest, public testing::WithParamInterface<Refused> {};

TEST_P(NssDoubtfulTest, IsNotEditedButNoHindranceElsewhere) {
    Fill(GetParam().text);
    const std::string told = "tesauthctl: " + file + ":" + std::to_string(GetParam().line) + ": ";
    for (const Words& words :
         {Nss("add", {"passwd", "x"}), Nss("add", {"passwd", "x", "--rewrite"}),
          Nss("remove", {"passwd", "files"})}) {
        const Result result = Ctl(words);
        ExpectFailure(result, 1, told + GetParam().word);
        EXPECT_EQ(result.out, "");
        ExpectUntouched();
    }
    Done(Nss("show"));
    Done(Nss("add", {"group", "x"}));
    EXPECT_EQ(Text(), GetParam().text + std::string("group: x\n"));
}

INSTANTIATE_TEST_SUITE_P(
    Lines, NssDoubtfulTest,
    testing::Values(Refused{"\n passwd :files\n", 2, "the colon"},
                    Refused{"passwd: files\npasswd:files\n", 2, "the colon"},
                    Refused{"passwd; files\n", 1, "'passwd;' has no colon"},
                    Refused{"passwd files\n", 1, "'passwd' has no colon"},
                    Refused{"passwd: files\n \tpasswd\t files\n", 2, "'passwd' has no colon"},
                    Refused{"passwd: files # local\n", 1, "'#'"},
                    Refused{"passwd: files[NOTFOUND=return] x\n", 1, "'files[NOTFOUND=return]'"},
                    Refused{"passwd: files [NOTFOUND=return]x\n", 1, "brackets that are not apart"},
                    Refused{"passwd: files [NOTFOUND=return\n", 1, "brackets that are not closed"},
                    Refused{"passwd: files ]  \n", 1, "']'"},
                    Refused{"passwd: [NOTFOUND=return] files\n", 1, "brackets before any"}));

TEST_F(NssTest, AnEditNeverMakesALineThatCannotBeRead) {
    Fill("hosts: files [NOTFOUND=return] dns \n");
    ExpectFailure(Ctl(Nss("remove", {"hosts", "files"})), 1,
                  file + ":1: a single character of white space stands behind 'dns', once this is "
                         "changed\nhint: ");
    ExpectUntouched();
    Fill("hosts:\r\n");
    ExpectFailure(Ctl(Nss("add", {"hosts", "files"})), 1, file + ":1: a single character");
    ExpectUntouched();
}

class NssUsageTest : public NssTest, public testing::WithParamInterface<Words> {};

TEST_P(NssUsageTest, IsWrong) {
    ExpectWrongUsage("nss", GetParam());
}

INSTANTIATE_TEST_SUITE_P(
    Lines, NssUsageTest,
    testing::Values(Words{"flub"}, Words{"show"}, Words{"find", "F"}, Words{"show", "F", "passwd"},
                    Words{"add", "F", "passwd"}, Words{"add", "F", "Passwd", "sss"},
                    Words{"add", "F", "gshadow", "sss"}, Words{"add", "F", "passwd", ""},
                    Words{"add", "F", "passwd", "a b"}, Words{"add", "F", "passwd", "a]"},
                    Words{"add", "F", "passwd", "[a]"}, Words{"add", "F", "passwd", "#a"},
                    Words{"add", "F", "passwd", "a\n"},
                    Words{"add", "F", "passwd", "a", "--criteria", "[b=c]"},
                    Words{"add", "F", "passwd", "a", "b"},
                    Words{"add", "F", "passwd", "a", "--first", "--before", "files"},
                    Words{"add", "F", "passwd", "a", "--after", ""}, Words{"remove", "F", "passwd"},
                    Words{"remove", "F", "flub", "files"},
                    Words{"remove", "F", "passwd", "files", "--criteria", "a=b"},
                    Words{"restore", "F", "passwd"}));

TEST_F(NssTest, TheHelpNamesTheWayAndWhy) {
    for (const char* verb : {"add", "remove"}) {
        const std::string help = Done({"nss", verb, "--help"});
        EXPECT_THAT(help, HasSubstr("Changes only the line concerned"));
        EXPECT_THAT(help, HasSubstr("With --rewrite it writes\nthe whole file anew"));
    }
    EXPECT_THAT(Done({"nss", "show", "--help"}), HasSubstr("as the library does"));
    EXPECT_THAT(Done({"nss", "restore", "--help"}), HasSubstr("Puts back every byte"));
}

TEST_F(NssTest, AHundredThousandLines) {
    std::string lines;
    for (int i = 0; i < 50'000; ++i) {
        lines += "unknown" + std::to_string(i) + ": files \r\n# c\n";
    }
    Fill(lines + "passwd: files\n");
    Done(Nss("add", {"passwd", "sss"}));
    EXPECT_TRUE(Text() == lines + "passwd: files sss\n"); // too much to be told
    const std::string shown = Done(Nss("remove", {"passwd", "sss", "--rewrite"}));
    EXPECT_THAT(shown.substr(0, 200), HasSubstr("@@ -1,100001 +1 @@\n"));
    EXPECT_EQ(Text(), "passwd: files\n");
}

} // namespace
} // namespace ctl_test
