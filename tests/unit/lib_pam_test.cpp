// PAM policies: the values, what is read and what is written.

#include <list>
#include <sstream>
#include <string>
#include <utility>

#include <gmock/gmock.h>

#include "systemconfiguration/pam.h"

namespace {

using namespace SystemConfiguration;
using testing::ElementsAre;
using testing::IsEmpty;

template <typename Function>
std::string MessageOfControl(Function function) {
    try {
        function();
    } catch (const InvalidControlException& exception) {
        return exception.what();
    }
    return "nothing was thrown";
}

template <typename Function>
std::string MessageOfFacility(Function function) {
    try {
        function();
    } catch (const InvalidFacilityException& exception) {
        return exception.what();
    }
    return "nothing was thrown";
}

template <typename Value>
std::string Written(const Value& value) {
    std::ostringstream out;
    out << value;
    return out.str();
}

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

struct ControlKeyword {
    PAMControl::Control value;
    unsigned number;
    const char* keyword;
};

class ControlTest : public testing::TestWithParam<ControlKeyword> {};

TEST_P(ControlTest, HasItsKeyword) {
    const auto& [value, number, keyword] = GetParam();
    EXPECT_EQ(static_cast<unsigned>(value), number);
    const PAMControl parsed{std::string(keyword)};
    EXPECT_EQ(static_cast<PAMControl::Control>(parsed), value);
    EXPECT_EQ(Text(parsed), keyword);
    EXPECT_EQ(Text(PAMControl(value)), keyword);
    PAMControl assigned;
    assigned = value;
    EXPECT_TRUE(assigned == parsed);
    EXPECT_TRUE(assigned == std::string(keyword));
    EXPECT_TRUE(assigned == value);
    EXPECT_FALSE(assigned == PAMControl());
    EXPECT_FALSE(PAMControl() == std::string(keyword));
    EXPECT_FALSE(assigned == PAMControl::None);
    EXPECT_TRUE(assigned != PAMControl::None);
    EXPECT_TRUE(std::string(keyword) == assigned);
}

INSTANTIATE_TEST_SUITE_P(Table, ControlTest,
                         testing::Values(ControlKeyword{PAMControl::Required, 1, "required"},
                                         ControlKeyword{PAMControl::Requisite, 2, "requisite"},
                                         ControlKeyword{PAMControl::Sufficient, 3, "sufficient"},
                                         ControlKeyword{PAMControl::Optional, 4, "optional"},
                                         ControlKeyword{PAMControl::Include, 5, "include"},
                                         ControlKeyword{PAMControl::Substack, 6, "substack"}),
                         [](const auto& instance) { return instance.param.keyword; });

TEST(PAMControlTest, TakesTheRoomOf32BitsForItsKind) {
    EXPECT_EQ(sizeof(PAMControl::Control), 4u);
    EXPECT_EQ(PAMControl::None, 0u);
    EXPECT_EQ(PAMControl::Bracketed, 7u);
    EXPECT_EQ(static_cast<PAMControl::Control>(PAMControl()), PAMControl::None);
}

TEST(PAMControlTest, OtherTextsAreNone) {
    for (const std::string text :
         {"Required", "REQUIRED", "require", "requiredx", " required", "required ", "", "none",
          "[ok", "ok]", "x[ok]", "[", "]", "[ok] "}) {
        const std::string message = "Invalid Control: " + text;
        EXPECT_EQ(MessageOfControl([&] { PAMControl control(text); }), message);
        PAMControl control(PAMControl::Optional);
        EXPECT_EQ(MessageOfControl([&] { control = text; }), message);
        EXPECT_TRUE(control == PAMControl::Optional) << "it is left as it was";
        EXPECT_EQ(MessageOfControl([&] { (void)(control == text); }), message);
    }
}

TEST(PAMControlTest, ListOfActionsIsKeptAsItIs) {
    for (const std::string text : {"[]", "[default=ok]", "[ a\t b ]", "[[x]", "[]]"}) {
        const PAMControl control(text);
        EXPECT_TRUE(control == PAMControl::Bracketed) << text;
        EXPECT_EQ(Text(control), text);
    }
}

TEST(PAMControlTest, MessageIsShortenedByTheValue) {
    const std::string message = "Invalid Control: ";
    ASSERT_EQ(message.size(), 17u);
    const auto messageFor = [](unsigned value) {
        return MessageOfControl([&] { Text(PAMControl(static_cast<PAMControl::Control>(value))); });
    };
    EXPECT_EQ(messageFor(0), message);
    EXPECT_EQ(MessageOfControl([] { Text(PAMControl()); }), message);
    EXPECT_EQ(messageFor(8), "Control: ");
    EXPECT_EQ(messageFor(9), "ontrol: ");
    EXPECT_EQ(messageFor(16), " ");
    EXPECT_EQ(messageFor(17), "");
    EXPECT_EQ(messageFor(18), "");
    EXPECT_EQ(messageFor(1000000), "");
    EXPECT_EQ(messageFor(0x7fffffff), "");
    EXPECT_EQ(messageFor(0xffffffff), "");
}

TEST(PAMControlTest, TextThatWasGivenIsNotLookedAt) {
    EXPECT_EQ(Text(PAMControl(PAMControl::Bracketed, "anything")), "anything");
    EXPECT_EQ(Text(PAMControl(PAMControl::Bracketed)), "");
    PAMControl control(PAMControl::Required, "[ok]");
    EXPECT_EQ(Text(control), "required");
    control = PAMControl::Bracketed;
    EXPECT_EQ(Text(control), "[ok]");
}

TEST(PAMControlTest, StaleTextStaysUnused) {
    PAMControl control(std::string("[default=ok]"));
    control = std::string("required");
    EXPECT_EQ(Text(control), "required");
    EXPECT_TRUE(control == PAMControl(PAMControl::Required)) << "whatever the text";
    control = PAMControl::Bracketed;
    EXPECT_EQ(Text(control), "[default=ok]") << "it was never taken away";
    control = std::string("[x]");
    EXPECT_EQ(Text(control), "[x]");
}

TEST(PAMControlTest, ComparesListsOfActionsByTheirTexts) {
    const PAMControl one(std::string("[a=1]")), other(std::string("[a=2]"));
    EXPECT_TRUE(one == PAMControl(std::string("[a=1]")));
    EXPECT_FALSE(one == other);
    EXPECT_TRUE(one != other);
    EXPECT_FALSE(one == PAMControl(PAMControl::Required, "[a=1]"));
    EXPECT_FALSE(PAMControl(PAMControl::Required, "[a=1]") == one);
    EXPECT_TRUE(one == std::string("[a=1]"));
    EXPECT_FALSE(one == std::string("[a=2]"));
    EXPECT_FALSE(one == std::string("no control at all")) << "it is compared, not looked up";
    EXPECT_FALSE(PAMControl(PAMControl::Required) == std::string("[a=1]"));
}

struct FacilityKeyword {
    PAMFacility::Facility value;
    unsigned number;
    const char* keyword;
};

class FacilityTest : public testing::TestWithParam<FacilityKeyword> {};

TEST_P(FacilityTest, HasItsKeyword) {
    const auto& [value, number, keyword] = GetParam();
    EXPECT_EQ(static_cast<unsigned>(value), number);
    const PAMFacility parsed{std::string(keyword)};
    EXPECT_EQ(static_cast<PAMFacility::Facility>(parsed), value);
    EXPECT_EQ(static_cast<std::string>(PAMFacility(value)), keyword);
    EXPECT_EQ(Written(parsed), keyword);
    PAMFacility assigned;
    assigned = std::string(keyword);
    EXPECT_TRUE(assigned == parsed);
    assigned = PAMFacility::None;
    EXPECT_FALSE(assigned == parsed);
    assigned = value;
    EXPECT_TRUE(assigned == std::string(keyword));
    EXPECT_TRUE(assigned == value);
    EXPECT_FALSE(assigned == PAMFacility::None);
    const std::string another = value == PAMFacility::Auth ? "session" : "auth";
    EXPECT_FALSE(assigned == another);
    EXPECT_TRUE(assigned != another);
    EXPECT_TRUE(value == assigned);
}

INSTANTIATE_TEST_SUITE_P(Table, FacilityTest,
                         testing::Values(FacilityKeyword{PAMFacility::Account, 1, "account"},
                                         FacilityKeyword{PAMFacility::Auth, 2, "auth"},
                                         FacilityKeyword{PAMFacility::Password, 3, "password"},
                                         FacilityKeyword{PAMFacility::Session, 4, "session"}),
                         [](const auto& instance) { return instance.param.keyword; });

TEST(PAMFacilityTest, OtherTextsAreNone) {
    EXPECT_EQ(sizeof(PAMFacility::Facility), 4u);
    for (const std::string text : {"Auth", "auths", "", "-session", "@include", "none"}) {
        const std::string message = "Invalid Facility: " + text;
        EXPECT_EQ(MessageOfFacility([&] { PAMFacility facility(text); }), message);
        PAMFacility facility(PAMFacility::Auth);
        EXPECT_EQ(MessageOfFacility([&] { facility = text; }), message);
        EXPECT_EQ(MessageOfFacility([&] { (void)(facility == text); }), message);
        std::istringstream in(text);
        EXPECT_EQ(MessageOfFacility([&] { in >> facility; }), message);
        EXPECT_TRUE(facility == PAMFacility::Auth) << "it is left as it was";
    }
}

TEST(PAMFacilityTest, MessageIsShortenedByTheValue) {
    const auto messageFor = [](unsigned value) {
        return MessageOfFacility(
            [&] { Written(PAMFacility(static_cast<PAMFacility::Facility>(value))); });
    };
    EXPECT_EQ(MessageOfFacility([] { Written(PAMFacility()); }), "Invalid Facility: ");
    EXPECT_EQ(messageFor(5), "id Facility: ");
    EXPECT_EQ(messageFor(17), " ");
    EXPECT_EQ(messageFor(18), "");
    EXPECT_EQ(messageFor(0xffffffff), "");
}

TEST(PAMFacilityTest, IsReadAsAWord) {
    std::istringstream in("\n\t auth\nsession");
    PAMFacility facility;
    in >> facility;
    EXPECT_TRUE(facility == PAMFacility::Auth);
    in >> facility;
    EXPECT_TRUE(facility == PAMFacility::Session);
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
    EXPECT_EQ(MessageOfControl([] { Written(PAMEntry()); }), "Invalid Control: ");
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
    EXPECT_EQ(MessageOfControl([] { EntryOf("[a  b x.so\n"); }), "Invalid Control: [a b x.so");
    EXPECT_EQ(MessageOfControl([] { EntryOf("[a"); }), "Invalid Control: [a");
}

TEST(PAMEntryTest, StreamStandsBehindAControlThatIsNone) {
    PAMEntry entry;
    std::istringstream in("maybe x.so y");
    EXPECT_EQ(MessageOfControl([&] { in >> entry; }), "Invalid Control: maybe");
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
    EXPECT_EQ(MessageOfFacility([&] { Written(unset); }), "Invalid Facility: ");
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
    EXPECT_EQ(MessageOfControl([] { PolicyOf("auth # required a.so\n"); }), "Invalid Control: #");
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
    EXPECT_EQ(MessageOfControl([&] { in >> policy; }), "Invalid Control: maybe");
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
        EXPECT_EQ(control ? MessageOfControl(read) : MessageOfFacility(read), message);
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

TEST(PAMExceptionTest, BelongToTheStandardFamilyAlone) {
    const InvalidControlException control("one");
    const InvalidFacilityException facility("two");
    EXPECT_STREQ(static_cast<const std::exception&>(control).what(), "one");
    EXPECT_STREQ(static_cast<const std::exception&>(facility).what(), "two");
}

} // namespace
