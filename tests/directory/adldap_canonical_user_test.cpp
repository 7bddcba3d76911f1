// How a user's name is read, and what a trusted forest says of its names, without a directory.

#include "directory/error.h"
#include "directory/forest_trust_info.h"
#include "directory/user_reference.h"

#include <initializer_list>

#include <gmock/gmock.h>

namespace tessary::directory {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using Form = UserReference::Form;

struct Reading {
    const char* text;
    Form form;
    const char* domain;
    const char* name;
    std::vector<std::string> levels;
};

TEST(UserReference, TakesEveryForm) {
    const Reading readings[] = {
        {"alice", Form::AccountName, "", "alice", {}},
        {"CORP\\alice", Form::AccountName, "CORP", "alice", {}},
        {"corp.example\\Anna Lee", Form::AccountName, "corp.example", "Anna Lee", {}},
        {"alice@Corp.Example.", Form::PrincipalName, "corp.example", "alice", {}},
        {"a+b=*(c)@upn.example", Form::PrincipalName, "upn.example", "a+b=*(c)", {}},
        {"corp.example/alice", Form::Path, "corp.example", "", {"alice"}},
        {"Corp.example/Users/alice@x", Form::Path, "corp.example", "", {"Users", "alice@x"}},
        {"c.d/Ops\\/On call/a\\\\b\\c", Form::Path, "c.d", "", {"Ops/On call", "a\\bc"}},
        {"c.d/Sm\xC3\xBCller, M. =*/x", Form::Path, "c.d", "", {"Sm\xC3\xBCller, M. =*", "x"}},
        {"cn=Alice , ou=x, dc=Corp, DC=example",
         Form::DistinguishedName,
         "corp.example",
         "cn=Alice,ou=x,dc=Corp,DC=example",
         {}},
        {"CN=a\\,b\\2a/c,DC=e", Form::DistinguishedName, "e", "CN=a\\2Cb*/c,DC=e", {}},
        {"CN=a,DC=x,CN=b,DC=c,DC=d",
         Form::DistinguishedName,
         "c.d",
         "CN=a,DC=x,CN=b,DC=c,DC=d",
         {}},
    };
    for (const Reading& each : readings) {
        SCOPED_TRACE(each.text);
        const UserReference user = UserReference::Parse(each.text);
        EXPECT_EQ(user.form, each.form);
        EXPECT_EQ(user.domain, each.domain);
        EXPECT_EQ(user.name, each.name);
        EXPECT_EQ(user.levels, each.levels);
    }
}

TEST(UserReference, RefusesWhatIsNoName) {
    const std::initializer_list<std::string> names{
        "",
        "*",
        "ali*",
        "a:b",
        "CORP\\",
        "\\alice",
        ".\\alice",
        "CORP\\a\\b",
        "CORP\\a/b",
        "CORP\\a@b",
        "@corp.example",
        "alice@",
        "alice@x y",
        "a@b@corp.example",
        "/Users/alice",
        "corp.example/",
        "corp.example//alice",
        "corp.example/Users/",
        "corp.example/Users/alice\\",
        "co rp/Users/alice",
        "CN=alice",
        "CN=alice,CN=Users",
        "CN=alice,,DC=c",
        "CN=alice,DC=",
        "CN=alice,DC=x y",
        "CN=a\\zz,DC=c",
        "=alice,DC=c\\",
        "a\nb",
        "a\x7f",
        std::string("ali\0ce", 6),
        std::string("alice@corp.example\0", 19),
        "a\xFF",
        "a\xC3",
        "\xC0\xAF",
        std::string(4097, 'a'),
    };
    for (const std::string& name : names) {
        try {
            UserReference::Parse(name);
            ADD_FAILURE() << "taken: " << name;
        } catch (const Error& error) {
            EXPECT_EQ(error.Code(), Status::InvalidUserName) << name;
        }
    }
    EXPECT_EQ(UserReference::Parse(std::string(4096, 'a')).name.size(), 4096u);
}

/// A forest's names as a directory keeps them.
class InfoBytes {
public:
    InfoBytes& Name(unsigned type, const std::string& name, unsigned flags = 0) {
        return Record(type, flags, Counted(name));
    }
    InfoBytes& Domain(const std::string& dnsName, const std::string& netbiosName,
                      unsigned flags = 0) {
        return Record(2, flags, Counted("sid") + Counted(dnsName) + Counted(netbiosName));
    }
    InfoBytes& Record(unsigned type, unsigned flags, const std::string& data) {
        ++count_;
        const std::string record = Number(flags) + std::string(8, 't') + char(type) + data;
        records_ += Counted(record);
        return *this;
    }
    std::string Get() const { return Number(1) + Number(count_) + records_; }

private:
    static std::string Number(std::size_t number) {
        std::string text;
        for (int i = 0; i < 4; ++i, number >>= 8)
            text += static_cast<char>(number & 0xff);
        return text;
    }
    static std::string Counted(const std::string& text) { return Number(text.size()) + text; }

    std::size_t count_ = 0;
    std::string records_;
};

std::string ExampleForest() {
    return InfoBytes()
        .Name(0, "corp.example")
        .Name(0, "upn.example")
        .Name(1, "far.corp.example")
        .Name(0, "off.example", 2)
        .Record(7, 0, "of a later kind")
        .Domain("corp.example", "CORP")
        .Domain("east.corp.example", "EAST")
        .Domain("off.corp.example", "OFF", 1)
        .Get();
}

TEST(ForestTrustInfo, HasTheForestsNames) {
    const ForestTrustInfo info = ForestTrustInfo::Parse(ExampleForest());
    EXPECT_THAT(info.suffixes, ElementsAre("corp.example", "upn.example"));
    EXPECT_THAT(info.excluded, ElementsAre("far.corp.example"));
    ASSERT_EQ(info.domains.size(), 2u);
    EXPECT_EQ(info.domains[1].dnsName, "east.corp.example");
    EXPECT_EQ(info.domains[1].netbiosName, "EAST");
}

TEST(ForestTrustInfo, SuffixBelongsToItAtOrBelowItsNames) {
    const ForestTrustInfo info = ForestTrustInfo::Parse(ExampleForest());
    EXPECT_EQ(info.Fit("UPN.example"), 11u);
    EXPECT_EQ(info.Fit("east.corp.example"), 12u);
    EXPECT_EQ(info.Fit("xcorp.example"), 0u);
    EXPECT_EQ(info.Fit("example"), 0u);
    EXPECT_EQ(info.Fit("off.example"), 0u);
    EXPECT_EQ(info.Fit("far.corp.example"), 0u);
    EXPECT_EQ(info.Fit("x.far.corp.example"), 0u);
    EXPECT_EQ(info.Fit(""), 0u);
}

TEST(ForestTrustInfo, EndsWhereItIsDamaged) {
    const std::string whole = ExampleForest();
    for (std::size_t size = 0; size < whole.size(); ++size) {
        const ForestTrustInfo info =
            ForestTrustInfo::Parse(std::string_view(whole).substr(0, size));
        EXPECT_LE(info.suffixes.size() + info.domains.size(), 4u) << size;
        for (const std::string& suffix : info.suffixes)
            EXPECT_TRUE(suffix == "corp.example" || suffix == "upn.example") << size;
    }
    std::string huge = InfoBytes().Name(0, "a.b").Name(0, "corp.example").Get();
    huge.replace(8, 4, 4, '\xff'); // the first record's length
    EXPECT_THAT(ForestTrustInfo::Parse(huge).suffixes, IsEmpty());
    std::string other = ExampleForest();
    other[0] = 2;
    EXPECT_THAT(ForestTrustInfo::Parse(other).suffixes, IsEmpty()) << "of another version";
}

} // namespace
} // namespace tessary::directory
