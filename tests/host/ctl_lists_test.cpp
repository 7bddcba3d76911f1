#include "ctl_host.h"

namespace ctl_test {
namespace {

/// The two lists that a provider keeps are read and set in the same way.
struct List {
    friend void PrintTo(const List& list, std::ostream* stream) { *stream << list.verb; }

    const char* verb;
    const char* key;
    const char* what; ///< in the answer's text
    const char* getter;
    const char* setter;
};

const List lists[] = {
    {"dcs", "preferredDomainControllers", "preferred domain controllers",
     "getPreferredDomainControllers", "setPreferredDomainControllers"},
    {"smartcard", "smartCardServices", "smart-card services", "getSmartCardEnabledServices",
     "setSmartCardEnabledServices"},
};

class ListTest : public CtlTest, public testing::WithParamInterface<List> {
protected:
    static void ScriptGetter(const std::string& line) {
        Script(std::string(GetParam().getter) + '.' + line + '\n');
    }
    static void ScriptSetter(const std::string& line) {
        Script(std::string(GetParam().setter) + '.' + line + '\n');
    }
    static Result Get(const Words& more = {}) { return Run("get", more); }
    static Result Set(const Words& more = {}) { return Run("set", more); }

private:
    static Result Run(const char* verb, const Words& more) {
        Words words = {GetParam().verb, verb};
        words.insert(words.end(), more.begin(), more.end());
        return Ctl(words);
    }
};

INSTANTIATE_TEST_SUITE_P(Lists, ListTest, testing::ValuesIn(lists),
                         [](const auto& instance) { return std::string(instance.param.verb); });

TEST_P(ListTest, IsPrintedOneNameALine) {
    ScriptGetter("items=one.example,two");
    const Result text = Get();
    EXPECT_EQ(text.status, 0);
    EXPECT_EQ(text.out, "one.example\ntwo\n");
    EXPECT_EQ(text.err, "");
    EXPECT_EQ(JsonOf(Get({"--json"})),
              Json({{GetParam().key, {"one.example", "two"}}, {"live", true}}));
}

TEST_P(ListTest, WithoutNamesPrintsNothing) {
    ScriptGetter("items=");
    EXPECT_EQ(Get().out, "");
    EXPECT_EQ(JsonOf(Get({"--json"})), Json({{GetParam().key, Json::array()}, {"live", true}}));
}

TEST_P(ListTest, IsSetInTheOrderGiven) {
    const Result text = Set({"two.example", "one", "192.0.2.7"});
    EXPECT_EQ(text.status, 0) << text.err;
    EXPECT_EQ(text.out, std::string(GetParam().what) + ": two.example, one, 192.0.2.7\n");
    EXPECT_EQ(text.err, "");
    EXPECT_EQ(Calls(GetParam().setter),
              std::string(GetParam().setter) + "|two.example|one|192.0.2.7\n");
    EXPECT_EQ(JsonOf(Set({"a", "--json"})), Json({{GetParam().key, {"a"}}}));
}

TEST_P(ListTest, IsClearedByNoName) {
    const Result text = Set();
    EXPECT_EQ(text.status, 0) << text.err;
    EXPECT_EQ(text.out, std::string("no ") + GetParam().what + "\n");
    EXPECT_EQ(Calls(GetParam().setter), std::string(GetParam().setter) + "\n");
    EXPECT_EQ(JsonOf(Set({"--json"})), Json({{GetParam().key, Json::array()}}));
}

TEST_P(ListTest, ANameMayHoldBlanksAndAnAddressStandInBrackets) {
    EXPECT_EQ(Set({"[2001:db8::1]", "2001:db8::2", "a b"}).status, 0);
    EXPECT_EQ(Calls(GetParam().setter),
              std::string(GetParam().setter) + "|2001:db8::1|2001:db8::2|a b\n");
}

TEST_P(ListTest, SettingThatTheProviderLacksIsAFailure) {
    ScriptSetter("missing=1");
    const Result result = Set({"one", "--json"});
    ExpectFailure(result, 1,
                  "tesauthctl: Exception 0x00000078: This function is not supported on this "
                  "system.\nhint: the directory provider cannot do this");
    EXPECT_EQ(Json::parse(result.out)["error"]["code"], 120);
}

TEST_P(ListTest, ANameThatTheProviderRefusesIsAFailure) {
    ScriptSetter("status=87");
    const Result result = Set({"one"});
    ExpectFailure(result, 1, "The parameter is incorrect.\nhint: check what was given");
    EXPECT_EQ(result.out, "");
}

TEST_P(ListTest, AListThatMayNotBeReadIsAFailure) {
    ScriptGetter("status=5");
    ExpectFailure(Get(), 1, "Access is denied.\nhint: the host's own account lacks the right");
}

TEST_P(ListTest, ALineEndInANameStartsNoLine) {
    ScriptGetter("items=one\vtwo,three\xc2\x85"
                 "four");
    EXPECT_EQ(Get().out, "one two\nthree?four\n");
}

TEST_P(ListTest, ANameThatStandsTwiceIsWrongUsage) {
    const Result result = Set({"one", "two", "one"});
    ExpectFailure(result, 2, "tesauthctl: 'one' is named twice\n");
    EXPECT_EQ(Calls(GetParam().setter), "");
}

TEST_F(CtlTest, AControllersNameIsTheSameInCapitalsAServicesIsNot) {
    ExpectFailure(Ctl({"dcs", "set", "dc1.example", "DC1.Example"}), 2,
                  "tesauthctl: 'DC1.Example' is named twice\n");
    EXPECT_EQ(Ctl({"smartcard", "set", "login", "LOGIN"}).status, 0);
}

TEST_F(CtlTest, WhoMayNotChangeAListIsToldWhichVerbItWas) {
    ExpectFailure(Ctl({"dcs", "set", "dc1"}, {.asNobody = true}), 3,
                  "tesauthctl: dcs set changes this host and needs root\n");
    ExpectFailure(Ctl({"leave"}, {.asNobody = true}), 3,
                  "tesauthctl: leave changes this host and needs root\n");
}

} // namespace
} // namespace ctl_test
