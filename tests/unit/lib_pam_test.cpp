// PAM policies: what is read and what is written.

#include <sstream>
#include <string>
#include <tuple>
#include <utility>

#include <gmock/gmock.h>

#include "lib_systemconfiguration.h"
#include "systemconfiguration/pam.h"

namespace {

using namespace SystemConfiguration;
using testing::ElementsAre;
using testing::IsEmpty;

PAMPolicy PolicyOf(const std::string& text) {
    PAMPolicy policy("test");
    std::istringstream in(text);
    in >> policy;
    return policy;
}

/// The policy as it is written, without the two lines before its stacks.
std::string Rewritten(const std::string& text) {
    const std::string written = Written(PolicyOf(text));
    const std::string header = "#%PAM-1.0\n\n";
    EXPECT_EQ(written.substr(0, header.size()), header);
    return written.substr(header.size());
}

PAMEntry EntryOf(const std::string& text) {
    PAMEntry entry;
    std::istringstream in(text);
    in >> entry;
    return entry;
}

std::string Text(const PAMControl& control) {
    return static_cast<std::string>(control);
}

TEST(PAMEntryTest, ComparesControlsByTheirKindsOnly) {
    const PAMEntry one(PAMControl(std::string("[a=1]")), "x.so");
    const PAMEntry other(PAMControl(std::string("[b=2]")), "x.so");
    EXPECT_TRUE(one == other) << "kept on purpose";
    EXPECT_FALSE(one == PAMEntry(PAMControl::Required, "x.so"));
    EXPECT_FALSE(one == PAMEntry(PAMControl(std::string("[a=1]")), "X.so"));
    PAMEntry more = other;
    more.parameters().push_back("debug");
    EXPECT_FALSE(one == more);
    PAMEntry same = one;
    same.parameters() = {"debug"};
    EXPECT_TRUE(same == more);
    same.parameters() = {"Debug"};
    EXPECT_FALSE(same == more);
    same.parameters() = {"debug", "debug"};
    EXPECT_FALSE(same == more);
}

TEST(PAMEntryTest, IsWrittenWithTabsAndAFinalTabOrBlank) {
    PAMEntry entry(PAMControl::Required, "pam_unix.so");
    EXPECT_EQ(Written(entry), "required\tpam_unix.so\t");
    entry.parameters() = {"a", "b=c"};
    EXPECT_EQ(Written(entry), "required\tpam_unix.so\ta b=c ");
    EXPECT_EQ(MessageOf<InvalidControlException>([] { Written(PAMEntry()); }), "Invalid Control: ");
}

TEST(PAMEntryTest, JoinsAListOfActionsWithSingleBlanks) {
    const PAMEntry entry = EntryOf("[success=1 \t\n default=ignore]  x.so nullok\n");
    EXPECT_EQ(Text(entry.control()), "[success=1 default=ignore]");
    EXPECT_EQ(entry.module(), "x.so");
    EXPECT_THAT(entry.parameters(), ElementsAre("nullok"));
    EXPECT_EQ(Text(EntryOf("[ a ] x.so").control()), "[ a ]");
    EXPECT_EQ(Text(EntryOf("[a]] x.so").control()), "[a]]");
    EXPECT_EQ(Text(EntryOf("[a b]c d] x.so").control()), "[a b]c d]") << "only a word's end closes";
}

TEST(PAMEntryTest, ListOfActionsWithoutAnEndIsNone) {
    EXPECT_EQ(MessageOf<InvalidControlException>([] { EntryOf("[a  b x.so\n"); }),
              "Invalid Control: [a b x.so");
    EXPECT_EQ(MessageOf<InvalidControlException>([] { EntryOf("[a"); }), "Invalid Control: [a");
}

TEST(PAMEntryTest, StreamStandsBehindAControlThatIsNone) {
    PAMEntry entry;
    std::istringstream in("maybe x.so y");
    EXPECT_EQ(MessageOf<InvalidControlException>([&] { in >> entry; }), "Invalid Control: maybe");
    std::string rest;
    std::getline(in, rest);
    EXPECT_EQ(rest, " x.so y");
}

TEST(PAMEntryTest, AddsToTheParametersThatItHas) {
    PAMEntry entry(PAMControl::Optional, "old.so");
    entry.parameters() = {"one"};
    std::istringstream in("required new.so two");
    in >> entry;
    EXPECT_EQ(entry.module(), "new.so");
    EXPECT_TRUE(entry.control() == PAMControl::Required);
    EXPECT_THAT(entry.parameters(), ElementsAre("one", "two"));
}

TEST(PAMEntryTest, ParametersAreWordsOfTheRestOfTheLine) {
    EXPECT_THAT(EntryOf("required x.so [a b] \"c d\" e\\\nf").parameters(),
                ElementsAre("[a", "b]", "\"c", "d\"", "e\\"));
    EXPECT_THAT(EntryOf("required x.so\tone\r\n").parameters(), ElementsAre("one"));
    EXPECT_THAT(EntryOf("required x.so \t \n two").parameters(), IsEmpty());
}

TEST(PAMEntryTest, TakesItsLineEndWithIt) {
    std::istringstream in("required x.so p\nrest\n");
    PAMEntry entry;
    in >> entry;
    std::string rest;
    std::getline(in, rest);
    EXPECT_EQ(rest, "rest");
}

TEST(PAMEntryTest, WordsCrossLineEnds) {
    const PAMEntry entry = EntryOf("required\n\n x.so p\n");
    EXPECT_EQ(entry.module(), "x.so");
    EXPECT_THAT(entry.parameters(), ElementsAre("p"));
    EXPECT_EQ(EntryOf("required\n").module(), "") << "nothing is left";
    PAMEntry used(PAMControl::Optional, "old.so");
    std::istringstream in("required");
    in >> used;
    EXPECT_EQ(used.module(), "");
}

TEST(PAMStackTest, FindsTheFirstOfAModule) {
    PAMStack stack{PAMFacility(PAMFacility::Auth)};
    stack.entries().emplace_back(PAMControl::Required, "a.so");
    stack.entries().emplace_back(PAMControl::Optional, "b.so");
    stack.entries().emplace_back(PAMControl::Sufficient, "b.so");
    const auto found = stack.find("b.so");
    EXPECT_EQ(found - stack.begin(), 1);
    EXPECT_TRUE(stack.find("c.so") == stack.end());
    EXPECT_TRUE(stack.find("B.so") == stack.entries().end());
    EXPECT_TRUE(stack.find("b") == stack.entries().end());
    const PAMStack& same = std::as_const(stack);
    EXPECT_EQ(same.find("b.so") - same.begin(), 1);
    EXPECT_TRUE(same.find("c.so") == same.end());
    EXPECT_TRUE(same.find("/b.so") == same.entries().end());
    stack.entries().erase(found);
    stack.entries().insert(stack.find("b.so"), PAMEntry(PAMControl::Include, "c"));
    EXPECT_EQ(Written(stack), "auth\trequired\ta.so\t\n"
                              "auth\tinclude\tc\t\n"
                              "auth\tsufficient\tb.so\t\n");
}

TEST(PAMStackTest, HasAFacility) {
    EXPECT_TRUE(PAMStack().Facility() == PAMFacility::None);
    PAMStack stack{PAMFacility(PAMFacility::Session)};
    EXPECT_TRUE(stack.Facility() == PAMFacility::Session);
    EXPECT_EQ(Written(stack), "");
    EXPECT_EQ(Written(PAMStack()), "") << "no entry asks for its keyword";
    const PAMStack copy(stack);
    EXPECT_TRUE(copy.Facility() == PAMFacility::Session);
    PAMStack unset;
    unset.entries().emplace_back(PAMControl::Required, "a.so");
    EXPECT_EQ(MessageOf<InvalidFacilityException>([&] { Written(unset); }), "Invalid Facility: ");
}

TEST(PAMPolicyTest, GroupsTheStacksInTheOrderOfTheirNumbers) {
    EXPECT_EQ(Rewritten("session optional s.so\n"
                        "auth required a.so x\n"
                        "password include p\n"
                        "account required c.so\n"
                        "auth sufficient b.so\n"),
              "account\trequired\tc.so\t\n\n"
              "auth\trequired\ta.so\tx \n"
              "auth\tsufficient\tb.so\t\n\n"
              "password\tinclude\tp\t\n\n"
              "session\toptional\ts.so\t\n\n");
}

TEST(PAMPolicyTest, ExampleOfAListOfActions) {
    PAMPolicy policy = PolicyOf("auth [success=1   default=ignore] pam_unix.so nullok\n");
    const PAMEntry& entry = policy[PAMFacility::Auth].entries().at(0);
    EXPECT_EQ(Text(entry.control()), "[success=1 default=ignore]");
    EXPECT_EQ(entry.module(), "pam_unix.so");
    EXPECT_THAT(entry.parameters(), ElementsAre("nullok"));
    EXPECT_EQ(Written(policy),
              "#%PAM-1.0\n\nauth\t[success=1 default=ignore]\tpam_unix.so\tnullok \n\n");
}

TEST(PAMPolicyTest, HeaderAloneIsAnEmptyPolicy) {
    EXPECT_EQ(Written(PolicyOf("#%PAM-1.0")), "#%PAM-1.0\n\n");
    EXPECT_EQ(Written(PolicyOf("")), "#%PAM-1.0\n\n");
    EXPECT_EQ(Written(PolicyOf(" \n\t\n\v\f\r\n")), "#%PAM-1.0\n\n");
}

TEST(PAMPolicyTest, OnlyAFirstWordBeginsAComment) {
    PAMPolicy policy = PolicyOf("# one\n  \t# two\n#auth required a.so\n"
                                "session optional pam_x.so # note\n#three");
    const PAMEntry& entry = policy[PAMFacility::Session].entries().at(0);
    EXPECT_THAT(entry.parameters(), ElementsAre("#", "note"));
    EXPECT_EQ(policy[PAMFacility::Session].entries().size(), 1u);
    EXPECT_TRUE(policy[PAMFacility::Auth].entries().empty());
    EXPECT_EQ(MessageOf<InvalidControlException>([] { PolicyOf("auth # required a.so\n"); }),
              "Invalid Control: #");
}

TEST(PAMPolicyTest, StackThatIsAskedForIsThere) {
    PAMPolicy policy("x");
    EXPECT_TRUE(policy[PAMFacility::Password].Facility() == PAMFacility::Password);
    EXPECT_EQ(Written(policy), "#%PAM-1.0\n\n\n") << "an empty line for it";
    policy[PAMFacility::Account];
    EXPECT_EQ(Written(policy), "#%PAM-1.0\n\n\n\n");
}

TEST(PAMPolicyTest, AddsToWhatItHas) {
    PAMPolicy policy = PolicyOf("auth required a.so\n");
    std::istringstream in("auth required b.so");
    in >> policy;
    EXPECT_EQ(Written(policy), "#%PAM-1.0\n\nauth\trequired\ta.so\t\nauth\trequired\tb.so\t\n\n");
}

TEST(PAMPolicyTest, StreamThatHasFailedIsLeftAlone) {
    PAMPolicy policy("x");
    std::istringstream in("auth required a.so\n");
    in.setstate(std::ios::failbit);
    in >> policy;
    EXPECT_EQ(Written(policy), "#%PAM-1.0\n\n");
    in.clear();
    in >> policy;
    EXPECT_EQ(policy[PAMFacility::Auth].entries().size(), 1u) << "nothing was taken from it";
}

TEST(PAMPolicyTest, StreamEndsAsItsTextDoes) {
    PAMPolicy policy("x");
    std::istringstream whole("auth required a.so\n");
    whole >> policy;
    EXPECT_TRUE(whole.eof() && !whole.fail());
    std::istringstream cut("auth required a.so");
    cut >> policy;
    EXPECT_TRUE(cut.eof() && cut.fail());
    EXPECT_EQ(policy[PAMFacility::Auth].entries().size(), 2u);
}

TEST(PAMPolicyTest, EntryThatCannotBeReadMakesNoStack) {
    PAMPolicy policy("x");
    std::istringstream in("session required a.so\nauth maybe b.so\n");
    EXPECT_EQ(MessageOf<InvalidControlException>([&] { in >> policy; }), "Invalid Control: maybe");
    EXPECT_EQ(Written(policy), "#%PAM-1.0\n\nsession\trequired\ta.so\t\n\n");
}

TEST(PAMPolicyTest, KeywordEndsWhereItsTextDoes) {
    EXPECT_THROW(PolicyOf(std::string("auth\0 required a.so\n", 20)), InvalidFacilityException);
    EXPECT_THROW(PAMControl(std::string("required\0", 9)), InvalidControlException);
}

TEST(PAMPolicyTest, WhatWasReadBeforeAnErrorStays) {
    for (const auto& [text, control, message] :
         {std::tuple("auth required a.so\n-session required b.so\nauth required c.so\n", false,
                     "Invalid Facility: -session"),
          std::tuple("auth required a.so\n@include common\n", false, "Invalid Facility: @include"),
          std::tuple("auth required a.so\nauth maybe b.so\n", true, "Invalid Control: maybe"),
          std::tuple("auth required a.so\nauth\n", true, "Invalid Control: "),
          std::tuple("auth required a.so\nauth", true, "Invalid Control: "),
          std::tuple("auth required a.so\nauth\nauth required b.so\n", true,
                     "Invalid Control: auth")}) {
        PAMPolicy policy("x");
        std::istringstream in(text);
        const auto read = [&] { in >> policy; };
        EXPECT_EQ(control ? MessageOf<InvalidControlException>(read)
                          : MessageOf<InvalidFacilityException>(read),
                  message);
        EXPECT_EQ(Written(policy), "#%PAM-1.0\n\nauth\trequired\ta.so\t\n\n") << text;
    }
}

TEST(PAMPolicyTest, WordsCrossLineEnds) {
    EXPECT_EQ(Rewritten("auth\nrequired\n a.so p\nauth required\n# b.so\n"),
              "auth\trequired\ta.so\tp \nauth\trequired\t#\tb.so \n\n");
    EXPECT_EQ(Rewritten("auth required"), "auth\trequired\t\t\n\n") << "an entry without a module";
}

TEST(PAMPolicyTest, ReadsWhatItWrote) {
    const std::string text = "session [a  b] s.so x  y\nauth required a.so\naccount include c";
    const std::string written = Written(PolicyOf(text));
    EXPECT_EQ(Written(PolicyOf(written)), written);
}

} // namespace
