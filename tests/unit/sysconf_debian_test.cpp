#include <gmock/gmock.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "sysconf_agreement.h"
#include "sysconf_library.h"

namespace {

using namespace SysconfTest;

std::string FileText(const std::string& name) {
    std::ifstream in(std::string(DEBIAN_FILES "/") + name, std::ios::binary);
    if (!in)
        throw std::runtime_error("cannot read " + name);
    return {std::istreambuf_iterator<char>(in), {}};
}

/// A line with its words one blank apart.
std::string SingleSpaced(const std::string& line) {
    std::istringstream in(line);
    std::string spaced, word;
    while (in >> word)
        spaced += (spaced.empty() ? "" : " ") + word;
    return spaced;
}

/// The entries of a policy's text, single-spaced, by facility: all that a policy holds. Works for
/// files with one entry a line, as these have.
std::map<std::string, std::vector<std::string>> Entries(const std::string& text) {
    std::map<std::string, std::vector<std::string>> entries;
    std::istringstream in(text);
    std::string line;
    while (std::getline(in, line)) {
        line = SingleSpaced(line);
        if (!line.empty() && line[0] != '#')
            entries[line.substr(0, line.find(' '))].push_back(line);
    }
    return entries;
}

/// What precedes a line, counted from 1.
std::string LinesBefore(const std::string& text, std::size_t number) {
    std::size_t end = 0;
    while (--number > 0)
        end = text.find('\n', end) + 1;
    return text.substr(0, end);
}

struct DebianPolicy {
    const char* name;
    const char* refused; ///< the first word that the format does not hold; or null
    std::size_t line;    ///< where that is
    std::size_t entries; ///< how many are read: all, or those before that line
};

void PrintTo(const DebianPolicy& policy, std::ostream* out) {
    *out << policy.name;
}

const DebianPolicy kPolicies[] = {
    {"chfn", "@include", 12, 1},       {"chpasswd", "@include", 4, 0},
    {"chsh", "@include", 17, 2},       {"common-account", nullptr, 0, 6},
    {"common-auth", nullptr, 0, 5},    {"common-password", nullptr, 0, 6},
    {"common-session", nullptr, 0, 6}, {"common-session-noninteractive", nullptr, 0, 5},
    {"cron", "@include", 3, 0},        {"login", "@include", 57, 9},
    {"newusers", "@include", 4, 0},    {"other", "@include", 13, 0},
    {"passwd", "@include", 5, 0},      {"runuser", nullptr, 0, 4},
    {"runuser-l", "-session", 4, 2},   {"samba", "@include", 1, 0},
    {"sshd", "@include", 4, 0},        {"sssd-shadowutils", nullptr, 0, 4},
    {"su", "@include", 57, 5},         {"su-l", nullptr, 0, 5},
    {"sudo", "@include", 6, 1},        {"sudo-i", "@include", 6, 1},
};

class DebianPolicyTest : public testing::TestWithParam<DebianPolicy> {
protected:
    DebianPolicyTest() : text_(FileText(std::string("pam.d/") + GetParam().name)) {}

    std::string text_;
};

TEST_P(DebianPolicyTest, IsReadUpToWhatTheFormatDoesNotHold) {
    PAMLibrary library;
    const Reading reading = library.Read(text_);

    std::string readable = text_;
    std::string thrown;
    if (GetParam().refused != nullptr) {
        readable = LinesBefore(text_, GetParam().line);
        thrown = std::string("InvalidFacilityException: Invalid Facility: ") + GetParam().refused;
    }
    EXPECT_EQ(reading.thrown, thrown);
    EXPECT_EQ(text_.substr(readable.size()),
              GetParam().refused != nullptr ? GetParam().refused + reading.unread : "");
    EXPECT_EQ(Entries(reading.written), Entries(readable));

    std::size_t entries = 0;
    for (const auto& [facility, lines] : Entries(reading.written))
        entries += lines.size();
    EXPECT_EQ(entries, GetParam().entries);
}

TEST_P(DebianPolicyTest, IsWrittenAsItWasWrittenBefore) {
    PAMLibrary first, second;
    const std::string written = first.Read(text_).written;
    const Reading again = second.Read(written);
    EXPECT_EQ(again.written, written);
    EXPECT_EQ(again.thrown, "");
    EXPECT_EQ(second.Pieces(), first.Pieces());
}

class ReadableDebianPolicyTest : public DebianPolicyTest {};

/// Comments, empty lines and spacing are lost and nothing else, so once these are taken out of the
/// original by other means it is what is written, byte for byte.
TEST_P(ReadableDebianPolicyTest, LosesCommentsAndSpacingOnly) {
    std::string expected = "#%PAM-1.0\n\n";
    for (const auto& [facility, lines] : Entries(text_)) {
        for (const std::string& line : lines) {
            // The control is one word, or ends at the first "]" of what is in brackets.
            const std::size_t control = facility.size() + 1;
            const std::size_t controlEnd =
                line.find(line[control] == '[' ? "] " : " ", control) + (line[control] == '[');
            const std::size_t moduleEnd = line.find(' ', controlEnd + 1);
            expected += facility + "\t" + line.substr(control, controlEnd - control) + "\t" +
                        line.substr(controlEnd + 1, moduleEnd - controlEnd - 1) + "\t" +
                        (moduleEnd == std::string::npos ? "" : line.substr(moduleEnd + 1) + " ") +
                        "\n";
        }
        expected += "\n";
    }
    PAMLibrary library;
    EXPECT_EQ(library.Read(text_).written, expected);
}

TEST_P(DebianPolicyTest, ModelAgrees) {
    EXPECT_EQ(PAMDisagreement(text_, true), "");
}

std::string TestName(const testing::TestParamInfo<DebianPolicy>& tested) {
    std::string name = tested.param.name;
    std::replace(name.begin(), name.end(), '-', '_');
    return name;
}

std::vector<DebianPolicy> ReadablePolicies() {
    std::vector<DebianPolicy> readable;
    std::copy_if(std::begin(kPolicies), std::end(kPolicies), std::back_inserter(readable),
                 [](const DebianPolicy& policy) { return policy.refused == nullptr; });
    return readable;
}

INSTANTIATE_TEST_SUITE_P(All, DebianPolicyTest, testing::ValuesIn(kPolicies), TestName);
INSTANTIATE_TEST_SUITE_P(All, ReadableDebianPolicyTest, testing::ValuesIn(ReadablePolicies()),
                         TestName);

TEST(DebianPoliciesTest, EveryFileHasItsExpectation) {
    std::vector<std::string> names, expected;
    for (const auto& file : std::filesystem::directory_iterator(DEBIAN_FILES "/pam.d"))
        names.push_back(file.path().filename());
    for (const DebianPolicy& policy : kPolicies)
        expected.push_back(policy.name);
    EXPECT_THAT(names, testing::UnorderedElementsAreArray(expected));
}

TEST(DebianSwitchTest, LosesCommentsSpacingAndUnknownDatabases) {
    const std::string text = FileText("nsswitch.conf");
    ASSERT_NE(text.find("\ngshadow:        files\n"), std::string::npos);
    NSSLibrary library;
    const Reading reading = library.Read(text);
    EXPECT_EQ(reading.thrown, "");
    EXPECT_EQ(reading.written, "passwd: files sss winbind\n"
                               "group: files sss winbind\n"
                               "shadow: files sss\n"
                               "hosts: files dns\n"
                               "networks: files\n"
                               "protocols: db files\n"
                               "services: db files sss\n"
                               "ethers: db files\n"
                               "rpc: db files\n"
                               "netgroup: nis sss\n"
                               "automount: sss\n");
}

TEST(DebianSwitchTest, IsWrittenAsItWasWrittenBefore) {
    NSSLibrary first, second;
    const std::string written = first.Read(FileText("nsswitch.conf")).written;
    const Reading again = second.Read(written);
    EXPECT_EQ(again.thrown, "");
    EXPECT_EQ(again.written, written);
    EXPECT_EQ(second.Pieces(), first.Pieces());
}

TEST(DebianSwitchTest, ModelAgrees) {
    EXPECT_EQ(NSSDisagreement(FileText("nsswitch.conf"), true), "");
}

} // namespace
