// Machine keys that the host, its services and the domain's controllers count otherwise.

#include "directory/diagnosis_membership.h"
#include "lab_key_rotation.h"

namespace lab_key_rotation {
namespace {

using testing::ElementsAre;

TEST_F(LabKeyRotation, KeyThatTheDomainHasCountedOtherwiseIsFoundByAnyLogin) {
    const int before = VersionInDomain();
    const DomainState state = DomainState::Load().value();
    atChange = [&](const auto& real, int*) -> krb5_error_code {
        SetPassword(state, "Another.Password.1234"); // which counts as well
        real();
        Die();
    };
    RotateInProcessThatDies();
    EXPECT_THAT(VersionsOfService(), ElementsAre(before, before + 1));
    EXPECT_EQ(TestMachineTrust(), MachineTrust::Good);
    EXPECT_EQ(VersionInDomain(), before + 2);
    for (const auto& [principal, each] : Versions())
        EXPECT_THAT(each, ElementsAre(before, before + 2)) << principal;
    ExpectAllWorks();
}

TEST_F(LabKeyRotation, QuestionThatAControllerAnswersLateIsFoundByAnyLogin) {
    const int before = VersionInDomain();
    const DomainState state = DomainState::Load().value();
    std::string late;
    atChange = [&](const auto&, int*) {
        late = askedFor;
        return static_cast<krb5_error_code>(KRB5_KDC_UNREACH);
    };
    EXPECT_EQ(StatusOfRotation(), Status::NoController);
    atChange = nullptr;
    EXPECT_EQ(StatusOfRotation(), Status::Success);
    SetPassword(state, late);
    EXPECT_EQ(TestMachineTrust(), MachineTrust::Good);
    EXPECT_EQ(VersionInDomain(), before + 2);
    EXPECT_THAT(VersionsOfAccount(), ElementsAre(before, before + 1, before + 2));
    ExpectAllWorks();
}

TEST_F(LabKeyRotation, SaltThatWasGuessedWrongIsMended) {
    const int before = VersionInDomain();
    wrongSalts = std::size(encryptionTypes);
    EXPECT_EQ(StatusOfRotation(), Status::Success);
    EXPECT_EQ(wrongSalts, 0);
    EXPECT_THAT(VersionsOfAccount(), ElementsAre(before, before + 1));
    ExpectAllWorks();
}

TEST_F(LabKeyRotation, VersionIsTheOneThatTheDomainCameTo) {
    const int before = VersionInDomain();
    const DomainState state = DomainState::Load().value();
    atChange = [&](const auto& real, int*) {
        SetPassword(state, "Another.Password.1234");
        return real();
    };
    EXPECT_EQ(StatusOfRotation(), Status::Success);
    EXPECT_EQ(VersionInDomain(), before + 2);
    EXPECT_THAT(VersionsOfAccount(), ElementsAre(before, before + 2));
    EXPECT_THAT(VersionsOfService(), ElementsAre(before, before + 2));
    ExpectAllWorks();
}

TEST_F(LabKeyRotation, KeytabThatIsAheadComesBack) {
    const int before = VersionInDomain();
    AddKeys(before + 3, Keys::Current); // as one that another domain counted
    EXPECT_EQ(StatusOfRotation(), Status::Success);
    EXPECT_EQ(VersionInDomain(), before + 1);
    EXPECT_THAT(VersionsOfAccount(), ElementsAre(before, before + 1));
    EXPECT_THAT(VersionsOfService(), ElementsAre(before, before + 1));
    ExpectAllWorks();
}

TEST_F(LabKeyRotation, ControllerThatIsBehindTakesTheFormerKey) {
    const int before = VersionInDomain();
    AddKeys(before + 1, Keys::Strange);
    ExpectAllWorks();
    EXPECT_THAT(VersionsOfAccount(), ElementsAre(before, before + 1)) << "nothing to put in force";
}

TEST_F(LabKeyRotation, ControllerThatIsBehindIsNotAskedForAChange) {
    const std::string keytab = Content(hostKeytab);
    AddKeys(VersionInDomain() + 1, Keys::Strange);
    const std::string ahead = Content(hostKeytab);
    try {
        RotateKey(std::chrono::seconds(0));
        ADD_FAILURE() << "the change would be lost when the controllers have told one another";
    } catch (const Error& error) {
        EXPECT_EQ(error.Code(), Status::NoController);
        EXPECT_THAT(error.what(), testing::HasSubstr("is behind"));
        EXPECT_THAT(error.what(), testing::HasSubstr("join again"));
    }
    EXPECT_EQ(Content(hostKeytab), ahead);
    std::ofstream(hostKeytab, std::ios::binary) << keytab;
}

TEST_F(LabKeyRotation, UnansweredChangeOutlivesTheNextRefusal) {
    const int before = VersionInDomain();
    atChange = [](const auto&, int*) -> krb5_error_code { Die(); };
    RotateInProcessThatDies();
    ASSERT_THAT(VersionsOfService(), ElementsAre(before, before + 1));
    atChange = [](const auto&, int* result) {
        *result = KRB5_KPASSWD_SOFTERROR;
        return 0;
    };
    EXPECT_EQ(StatusOfRotation(), Status::PasswordRefused);
    EXPECT_THAT(VersionsOfService(), ElementsAre(before, before + 1))
        << "another controller may have taken it";
    atChange = nullptr;
    EXPECT_EQ(StatusOfRotation(), Status::Success);
    EXPECT_THAT(VersionsOfAccount(), ElementsAre(before, before + 1));
    EXPECT_THAT(VersionsOfService(), ElementsAre(before, before + 1, before + 2));
    ExpectAllWorks();
}

TEST_F(LabKeyRotation, JoiningAgainAtAControllerThatIsBehindKeepsTheKeysOfTheOthers) {
    const int before = VersionInDomain();
    AddKeys(before + 1, Keys::Strange);
    Join();
    EXPECT_EQ(VersionInDomain(), before + 1);
    EXPECT_THAT(VersionsOfAccount(), ElementsAre(before, before + 1));
    EXPECT_THAT(VersionsOfService(), ElementsAre(before, before + 1, before + 2));
    ExpectAllWorks();
}

TEST_F(LabKeyRotation, KeyThatChangesDuringALoginDoesNotMisleadIt) {
    const int before = VersionInDomain();
    beforeLogin = [&] {
        AddKeys(before + 1, Keys::Strange); // of which this controller has not heard
    };
    EXPECT_EQ(TestMachineTrust(), MachineTrust::Good);
    EXPECT_THAT(VersionsOfAccount(), ElementsAre(before, before + 1));
}

TEST_F(LabKeyRotation, KeyThatChangesDuringADiagnosisDoesNotMisleadIt) {
    const int before = VersionInDomain();
    beforeLogin = [&] { AddKeys(before + 1, Keys::Strange); };
    const DomainState state = DomainState::Load().value();
    const Findings findings =
        CheckMembership(state, Lab("DC1"), Deadline::In(std::chrono::seconds(20)));
    EXPECT_EQ(findings.back().severity, Severity::Ok) << findings.back().text;
    EXPECT_THAT(VersionsOfAccount(), ElementsAre(before, before + 1));
}

TEST_F(LabKeyRotation, ChangeThatADiagnosisRunsIntoIsNoFault) {
    beforeLogin = [] { RotateKey(std::chrono::seconds(0)); };
    const DomainState state = DomainState::Load().value();
    const Findings findings =
        CheckMembership(state, Lab("DC1"), Deadline::In(std::chrono::seconds(20)));
    for (const Finding& finding : findings)
        EXPECT_EQ(finding.severity, Severity::Ok) << finding.check << ": " << finding.text;
    EXPECT_EQ(findings.size(), 2u);
}

TEST_F(LabKeyRotation, AccountThatWasMadeAnewIsLoggedInToWithItsOwnKey) {
    const DomainState state = DomainState::Load().value();
    for (int i = 0; i < 3; ++i)
        ASSERT_EQ(StatusOfRotation(), Status::Success);
    Session admin = AsAdministrator(state);
    admin.Ldap().Delete(state.accountDn, admin.End());
    admin.Ldap().Add(state.accountDn,
                     {{LDAP_MOD_ADD, "objectClass", {"computer"}},
                      {LDAP_MOD_ADD, "sAMAccountName", {state.account}},
                      {LDAP_MOD_ADD, "userAccountControl", {"4096"}}},
                     admin.End());
    Join();
    EXPECT_EQ(*VersionsOfAccount().rbegin(), VersionInDomain());
    ExpectAllWorks();
    EXPECT_EQ(StatusOfRotation(), Status::Success);
    EXPECT_EQ(*VersionsOfAccount().rbegin(), VersionInDomain());
    ExpectAllWorks();
}

} // namespace
} // namespace lab_key_rotation
