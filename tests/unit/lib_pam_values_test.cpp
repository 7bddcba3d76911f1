// PAM controls and facilities: values and their keywords.

#include <sstream>
#include <string>

#include <gmock/gmock.h>

#include "lib_systemconfiguration.h"
#include "systemconfiguration/pam.h"

namespace {

using namespace SystemConfiguration;

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
        EXPECT_EQ(MessageOf<InvalidControlException>([&] { PAMControl control(text); }), message);
        PAMControl control(PAMControl::Optional);
        EXPECT_EQ(MessageOf<InvalidControlException>([&] { control = text; }), message);
        EXPECT_TRUE(control == PAMControl::Optional) << "it is left as it was";
        EXPECT_EQ(MessageOf<InvalidControlException>([&] { (void)(control == text); }), message);
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
        return MessageOf<InvalidControlException>(
            [&] { Text(PAMControl(static_cast<PAMControl::Control>(value))); });
    };
    EXPECT_EQ(messageFor(0), message);
    EXPECT_EQ(MessageOf<InvalidControlException>([] { Text(PAMControl()); }), message);
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

TEST(PAMControlTest, ValueThatIsNoListOfActionsHasNoText) {
    PAMControl control(std::string("[x]"));
    control = PAMControl::Bracketed;
    EXPECT_EQ(Text(control), "[x]");
    control = PAMControl::Required;
    control = PAMControl::Bracketed;
    EXPECT_EQ(Text(control), "");
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
        EXPECT_EQ(MessageOf<InvalidFacilityException>([&] { PAMFacility facility(text); }),
                  message);
        PAMFacility facility(PAMFacility::Auth);
        EXPECT_EQ(MessageOf<InvalidFacilityException>([&] { facility = text; }), message);
        EXPECT_EQ(MessageOf<InvalidFacilityException>([&] { (void)(facility == text); }), message);
        std::istringstream in(text);
        EXPECT_EQ(MessageOf<InvalidFacilityException>([&] { in >> facility; }), message);
        EXPECT_TRUE(facility == PAMFacility::Auth) << "it is left as it was";
    }
}

TEST(PAMFacilityTest, MessageIsShortenedByTheValue) {
    const auto messageFor = [](unsigned value) {
        return MessageOf<InvalidFacilityException>(
            [&] { Written(PAMFacility(static_cast<PAMFacility::Facility>(value))); });
    };
    EXPECT_EQ(MessageOf<InvalidFacilityException>([] { Written(PAMFacility()); }),
              "Invalid Facility: ");
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

TEST(PAMExceptionTest, BelongToTheStandardFamilyAlone) {
    const InvalidControlException control("one");
    const InvalidFacilityException facility("two");
    EXPECT_STREQ(static_cast<const std::exception&>(control).what(), "one");
    EXPECT_STREQ(static_cast<const std::exception&>(facility).what(), "two");
}

} // namespace
