// The name-service switch: the values, what is read and what is written.

#include <cstring>
#include <new>
#include <sstream>
#include <stdexcept>
#include <string>

#include <gmock/gmock.h>

#include "lib_systemconfiguration.h"
#include "systemconfiguration/nss.h"

namespace {

using namespace SystemConfiguration;
using testing::ElementsAre;
using testing::IsEmpty;

/// Reads a text; what cannot be read is thrown.
void Read(const std::string& text, NSSConfiguration& configuration) {
    std::istringstream in(text);
    in >> configuration;
}

std::string Rewritten(const std::string& text) {
    NSSConfiguration configuration;
    Read(text, configuration);
    return Written(configuration);
}

struct Name {
    NSSDatabase::Database value;
    unsigned number;
    const char* text;
};

constexpr Name names[] = {
    {NSSDatabase::Passwd, 1, "passwd"},        {NSSDatabase::Group, 2, "group"},
    {NSSDatabase::Shadow, 3, "shadow"},        {NSSDatabase::Hosts, 4, "hosts"},
    {NSSDatabase::Netmasks, 5, "netmasks"},    {NSSDatabase::Networks, 6, "networks"},
    {NSSDatabase::Protocols, 7, "protocols"},  {NSSDatabase::Services, 8, "services"},
    {NSSDatabase::Ethers, 9, "ethers"},        {NSSDatabase::Rpc, 10, "rpc"},
    {NSSDatabase::Netgroup, 11, "netgroup"},   {NSSDatabase::Bootparams, 12, "bootparams"},
    {NSSDatabase::Publickey, 13, "publickey"}, {NSSDatabase::Automount, 14, "automount"},
    {NSSDatabase::Aliases, 15, "aliases"},
};

class DatabaseTest : public testing::TestWithParam<Name> {};

TEST_P(DatabaseTest, HasItsName) {
    const auto& [value, number, text] = GetParam();
    EXPECT_EQ(static_cast<unsigned>(value), number);
    const NSSDatabase parsed{std::string(text)};
    EXPECT_EQ(static_cast<NSSDatabase::Database>(parsed), value);
    EXPECT_EQ(static_cast<std::string>(NSSDatabase(value)), text);
    NSSDatabase assigned(value == NSSDatabase::Passwd ? NSSDatabase::Group : NSSDatabase::Passwd);
    EXPECT_FALSE(assigned == parsed);
    assigned = std::string(text);
    EXPECT_TRUE(assigned == parsed);
    assigned = NSSDatabase::Passwd;
    assigned = value;
    EXPECT_TRUE(assigned == std::string(text));
    EXPECT_TRUE(assigned == value);
    const NSSDatabase::Database another =
        value == NSSDatabase::Rpc ? NSSDatabase::Hosts : NSSDatabase::Rpc;
    EXPECT_FALSE(assigned == another);
    EXPECT_FALSE(assigned == static_cast<std::string>(NSSDatabase(another)));
    EXPECT_TRUE(assigned != another);
    EXPECT_TRUE(std::string(text) == assigned);
    EXPECT_EQ(Rewritten(std::string(text) + ": files"), std::string(text) + ": files\n");
}

INSTANTIATE_TEST_SUITE_P(Table, DatabaseTest, testing::ValuesIn(names),
                         [](const auto& instance) { return instance.param.text; });

TEST(NSSDatabaseTest, OtherTextsAreNone) {
    EXPECT_EQ(sizeof(NSSDatabase::Database), 4u);
    for (const std::string text : {"Passwd", "", "passwd:", " passwd", "gshadow", "sudoers"}) {
        const std::string message = "Invalid Database: " + text;
        EXPECT_EQ(MessageOf<InvalidDatabaseException>([&] { NSSDatabase database(text); }),
                  message);
        NSSDatabase database(NSSDatabase::Rpc);
        EXPECT_EQ(MessageOf<InvalidDatabaseException>([&] { database = text; }), message);
        EXPECT_EQ(MessageOf<InvalidDatabaseException>([&] { (void)(database == text); }), message);
        EXPECT_TRUE(database == NSSDatabase::Rpc) << "it is left as it was";
    }
}

TEST(NSSDatabaseTest, MessageIsShortenedByTheValue) {
    const std::string message = "Invalid Database: ";
    ASSERT_EQ(message.size(), 18u);
    const auto messageFor = [](unsigned value) {
        return MessageOf<InvalidDatabaseException>([&] {
            (void)static_cast<std::string>(NSSDatabase(static_cast<NSSDatabase::Database>(value)));
        });
    };
    EXPECT_EQ(messageFor(0), message);
    EXPECT_EQ(messageFor(16), ": ");
    EXPECT_EQ(messageFor(17), " ");
    EXPECT_EQ(messageFor(18), "");
    EXPECT_EQ(messageFor(19), "");
    EXPECT_EQ(messageFor(0xffffffff), "");
}

TEST(NSSDatabaseTest, DefaultConstructorLeavesTheValueUnset) {
    alignas(NSSDatabase) unsigned char memory[sizeof(NSSDatabase)];
    const NSSDatabase::Database before = NSSDatabase::Ethers;
    std::memcpy(memory, &before, sizeof before);
    // The compiler is not to know what the memory was written for.
    unsigned char* volatile place = memory;
    NSSDatabase* database = new (place) NSSDatabase;
    EXPECT_TRUE(*database == NSSDatabase::Ethers);
}

TEST(NSSServiceTest, ComparesModuleAndParameters) {
    NSSService one("files"), other("files");
    EXPECT_TRUE(one == other);
    EXPECT_FALSE(one == NSSService("Files"));
    EXPECT_EQ(one.module(), "files");
    EXPECT_THAT(one.parameters(), IsEmpty());
    one.parameters() = {"a", "b"};
    EXPECT_FALSE(one == other);
    other.parameters() = {"a"};
    EXPECT_FALSE(one == other);
    other.parameters() = {"b", "a"};
    EXPECT_FALSE(one == other);
    other.parameters() = {"a", "b"};
    EXPECT_TRUE(one == other);
}

TEST(NSSServiceTest, IsWrittenWithItsParametersInBrackets) {
    NSSService service("files");
    EXPECT_EQ(Written(service), "files");
    service.parameters() = {"NOTFOUND=return"};
    EXPECT_EQ(Written(service), "files [NOTFOUND=return]");
    service.parameters().push_back("UNAVAIL=continue");
    EXPECT_EQ(Written(service), "files [NOTFOUND=return UNAVAIL=continue]");
    NSSConfiguration configuration;
    configuration[NSSDatabase::Hosts].push_back(service);
    EXPECT_EQ(Written(configuration), "hosts: files [NOTFOUND=return UNAVAIL=continue]\n");
}

TEST(NSSConfigurationTest, ExampleOfALine) {
    NSSConfiguration configuration;
    Read("hosts: files dns\n", configuration);
    EXPECT_THAT(configuration[NSSDatabase::Hosts],
                ElementsAre(NSSService("files"), NSSService("dns")));
    EXPECT_EQ(Written(configuration), "hosts: files dns\n");
}

struct Line {
    const char* what;
    const char* text;
    const char* written;
};

class LineTest : public testing::TestWithParam<Line> {};

TEST_P(LineTest, IsReadAndWritten) {
    EXPECT_EQ(Rewritten(GetParam().text), GetParam().written);
}

INSTANTIATE_TEST_SUITE_P(
    Lines, LineTest,
    testing::Values(
        Line{"Blanks", "passwd:   files", "passwd: files\n"},
        Line{"LeadingSpace", " \t\r passwd: files", "passwd: files\n"},
        Line{"Tabs", "passwd:\tfiles\t\tdns", "passwd: files dns\n"},
        Line{"OtherSpace", "\vpasswd:\ffiles\v\vdns", "passwd: files dns\n"},
        Line{"NoFinalNewline", "passwd: files\ngroup: x", "passwd: files\ngroup: x\n"},
        Line{"Empty", "\n\n \n\t\r\n\v\n", ""}, Line{"Comment", "#passwd: files\n# x\n", ""},
        Line{"IndentedComment", "  # note\n passwd: files", "passwd: files\n"},
        Line{"IndentedHashBeforeADatabase", " #passwd: files\n", ""},
        Line{"HashAmongServices", "passwd: files # note", "passwd: files # note\n"},
        Line{"BlankBeforeTheColon", "passwd : files\n", ""},
        Line{"NothingBehindTheColon", "passwd:files\n", ""},
        Line{"AnyLastCharacterWillDo", "passwdX files\n", "passwd: files\n"},
        Line{"ColonAlone", ": files\n", ""}, Line{"OneCharacter", "x\n", ""},
        Line{"UnknownDatabase", "sudoers: files\npasswd: files\n", "passwd: files\n"},
        Line{"CapitalLetters", "Passwd: files\n", ""},
        Line{"NoServices", "passwd:\ngroup: \nshadow:   \n", ""},
        Line{"TwoLinesOfOne", "passwd: a\ngroup: g\npasswd: b\n", "passwd: a b\ngroup: g\n"},
        Line{"OrderOfNumbers", "aliases: z\nrpc: y\npasswd: x\n",
             "passwd: x\nrpc: y\naliases: z\n"},
        Line{"TwoTrailingBlanks", "hosts: files dns  \n", "hosts: files dns\n"},
        Line{"Criteria", "hosts: files [NOTFOUND=return]\n", "hosts: files [NOTFOUND=return]\n"},
        Line{"CriteriaInWords", "hosts: files [ A=b \t C=d ]\n", "hosts: files [A=b C=d]\n"},
        Line{"EmptyCriteria", "hosts: files []\n", "hosts: files\n"},
        Line{"WhatFollowsBracketsIsLost", "hosts: files [NOTFOUND=return] dns\n",
             "hosts: files [NOTFOUND=return]\n"},
        // Behind "files" reading goes on as far behind the bracket as "files" is from the start.
        Line{"BracketsFurtherOnEndTheLineToo", "hosts: files dns [NOTFOUND=return] nis\n",
             "hosts: files\n"},
        Line{"PositionIsCountedFromTheStart", "rpc: a [x] bcdefghij klm nop", // 7 + 9 = 16
             "rpc: a [x] ghij klm nop\n"},
        Line{"PositionIsThatWithoutACarriageReturn", "\rrpc: a [x] bcdefghij klm nop",
             "rpc: a [x] ghij klm nop\n"},
        Line{"PositionIsThatWithOtherLeadingSpace", "\vrpc: a [x] bcdefghij klm nop", // 8 + 10
             "rpc: a [x] hij klm nop\n"},
        Line{"PositionIsThatWithoutLeadingSpace", "   rpc: a [x] bcdefghij klm nop",
             "rpc: a [x] ghij klm nop\n"},
        Line{"PositionAtTheEnd", "rpc: a [x] bcdef", "rpc: a [x]\n"}, // 16 characters
        Line{"PositionInTheLastWord", "rpc: a [x] bcdefg", "rpc: a [x] g\n"},
        Line{"TwoBlanksBeforeABracket", "hosts: files  [NOTFOUND=return]\n", "hosts: files\n"},
        Line{"BracketAtOnce", "hosts: files[NOTFOUND=return]\n", "hosts: files[NOTFOUND=return]\n"},
        Line{"OpenBracket", "hosts: files [a b\n", "hosts: files [a b] [a b\n"},
        Line{"BracketAlone", "hosts: a  [\n", "hosts: a [\n"},
        // "g" begins at 16; what closes is at 18, and 18 + 18 is the "G".
        Line{"ClosingBracketBehindALaterService", "rpc: a [x] bcdefg ] 0123456789ABCDEFGHIJ",
             "rpc: a [x] g GHIJ\n"},
        Line{"ClosingBracketInTheWord", "hosts: a]  b\n", "hosts: a] b\n"}),
    [](const auto& instance) { return instance.param.what; });

TEST(NSSConfigurationTest, OneCharacterBehindAServiceIsTheStandardError) {
    for (const auto& [text, before, position] :
         {std::tuple("group: g\nhosts: files dns \npasswd: x\n", "group: g\nhosts: files\n", 17),
          std::tuple("group: g\nhosts: files dns\r\npasswd: x\n", "group: g\nhosts: files\n", 17),
          std::tuple("hosts: files\t", "", 13), std::tuple("  hosts: files ", "", 13)}) {
        NSSConfiguration configuration;
        std::string message;
        try {
            Read(text, configuration);
        } catch (const std::out_of_range& exception) {
            message = exception.what();
        }
        const std::string number = std::to_string(position);
        EXPECT_EQ(message, "basic_string::at: __n (which is " + number +
                               ") >= this->size() (which is " + number + ")");
        EXPECT_EQ(Written(configuration), before) << "what was read before";
    }
}

TEST(NSSConfigurationTest, ListThatIsAskedForIsThere) {
    NSSConfiguration configuration;
    EXPECT_EQ(Written(configuration), "");
    EXPECT_THAT(configuration[NSSDatabase::Shadow], IsEmpty());
    EXPECT_EQ(Written(configuration), "shadow:\n");
    configuration[NSSDatabase::Passwd].push_front(NSSService("x"));
    EXPECT_EQ(Written(configuration), "passwd: x\nshadow:\n");
    configuration[static_cast<NSSDatabase::Database>(16)];
    EXPECT_EQ(MessageOf<InvalidDatabaseException>([&] { Written(configuration); }), ": ");
}

TEST(NSSConfigurationTest, AddsToWhatItHas) {
    NSSConfiguration configuration;
    Read("passwd: a\n", configuration);
    Read("passwd: b\n", configuration);
    EXPECT_EQ(Written(configuration), "passwd: a b\n");
}

TEST(NSSConfigurationTest, ReadingEndsWithALineThatCannotBeRead) {
    NSSConfiguration configuration;
    std::istringstream in("passwd: a\n");
    in >> configuration;
    EXPECT_TRUE(in.eof() && in.fail());
}

TEST(NSSConfigurationTest, StreamThatHasFailedIsLeftAlone) {
    NSSConfiguration configuration;
    std::istringstream in("passwd: a\n");
    in.setstate(std::ios::failbit);
    in >> configuration;
    EXPECT_EQ(Written(configuration), "");
    in.clear();
    in >> configuration;
    EXPECT_EQ(Written(configuration), "passwd: a\n");
}

TEST(NSSExceptionTest, BelongsToTheStandardFamilyAlone) {
    const InvalidDatabaseException exception("one");
    EXPECT_STREQ(static_cast<const std::exception&>(exception).what(), "one");
}

} // namespace
