// Taking back an account that a join has made, on a host of the lab.

#include "directory/machine_account.h"

#include <cstdlib>

#include <gtest/gtest.h>

namespace tessary::directory {
namespace {

std::string Lab(const char* variable) {
    const char* value = std::getenv((std::string("TESAUTH_LAB_") + variable).c_str());
    return value ? value : "";
}

class MachineAccountsTest : public testing::Test {
protected:
    MachineAccountsTest()
        : session_(LocateController(Lab("DOMAIN"), {}, End()), UserName::Parse(Lab("ADMIN")),
                   Lab("PASSWORD").c_str(), End()),
          dn_("CN=UNDONE,CN=Computers," + session_.Where().baseDn) {}
    void TearDown() override { session_.Ldap().DeleteTree(dn_, End()); }

    static Deadline End() { return Deadline::In(queryTime); }

    void Make(const char* objectClass, std::string_view accountName) {
        std::vector<LdapChange> attributes{{LDAP_MOD_ADD, "objectClass", {objectClass}}};
        if (!accountName.empty()) {
            attributes.push_back({LDAP_MOD_ADD, "sAMAccountName", {accountName}});
            attributes.push_back({LDAP_MOD_ADD, "userAccountControl", {"4096"}});
        }
        session_.Ldap().Add(dn_, attributes, End());
    }

    bool Exists(const std::string& dn) {
        return !session_.Ldap()
                    .Search("CN=Computers," + session_.Where().baseDn, LDAP_SCOPE_SUBTREE,
                            "(distinguishedName=" + EscapeFilterValue(dn) + ")", {"objectClass"},
                            End())
                    .empty();
    }

    Session session_;
    std::string dn_;
};

TEST_F(MachineAccountsTest, UndoDeletesTheAccount) {
    Make("computer", "UNDONE$");
    MachineAccounts(session_).UndoCreation(dn_, "UNDONE$");
    EXPECT_FALSE(Exists(dn_));
}

TEST_F(MachineAccountsTest, UndoDeletesNothingElseOfThatName) {
    Make("container", "");
    MachineAccounts(session_).UndoCreation(dn_, "UNDONE$");
    EXPECT_TRUE(Exists(dn_));
}

TEST_F(MachineAccountsTest, UndoDeletesNoOtherAccountOfThatName) {
    Make("computer", "OTHER$");
    MachineAccounts(session_).UndoCreation(dn_, "UNDONE$");
    EXPECT_TRUE(Exists(dn_));
}

TEST_F(MachineAccountsTest, UndoDeletesNothingBelowTheAccount) {
    Make("computer", "UNDONE$");
    const std::string below = "CN=Below," + dn_;
    session_.Ldap().Add(below, {{LDAP_MOD_ADD, "objectClass", {"serviceConnectionPoint"}}}, End());
    MachineAccounts(session_).UndoCreation(dn_, "UNDONE$");
    EXPECT_TRUE(Exists(below));
}

} // namespace
} // namespace tessary::directory
