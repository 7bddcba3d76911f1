// A new machine key while something goes wrong.

#include "directory/operation.h"
#include "lab_key_rotation.h"

#include <netinet/in.h>
#include <sys/socket.h>

namespace lab_key_rotation {
namespace {

using testing::ElementsAre;

TEST_F(LabKeyRotation, RefusalLeavesTheKeytabAsItWas) {
    const std::string before = Content(hostKeytab);
    atChange = [](const auto&, int* result) {
        *result = KRB5_KPASSWD_SOFTERROR;
        return 0;
    };
    EXPECT_EQ(StatusOfRotation(), Status::PasswordRefused);
    EXPECT_EQ(Content(hostKeytab), before);
    atChange = [](const auto&, int* result) {
        *result = KRB5_KPASSWD_ACCESSDENIED;
        return 0;
    };
    EXPECT_EQ(StatusOfRotation(), Status::AccessDenied);
    EXPECT_EQ(Content(hostKeytab), before);
    ExpectAllWorks();
}

TEST_F(LabKeyRotation, FailureOfTheServiceIsNoRefusal) {
    for (const int result : {KRB5_KPASSWD_HARDERROR, KRB5_KPASSWD_AUTHERROR}) {
        const int before = VersionInDomain();
        atChange = [&](const auto& real, int* told) {
            EXPECT_EQ(real(), 0);
            *told = result;
            return 0;
        };
        EXPECT_EQ(StatusOfRotation(), Status::Success) << "it was asked whether the key is taken";
        EXPECT_EQ(VersionInDomain(), before + 1);
        ExpectAllWorks();
    }
}

TEST_F(LabKeyRotation, KeyOfTheFutureIsNotYoung) {
    // The clock was a year ahead when the key came.
    std::string keytab = Content(hostKeytab);
    const std::uint32_t now = htonl(static_cast<std::uint32_t>(std::time(nullptr)));
    const std::string century(reinterpret_cast<const char*>(&now), 2);
    for (std::size_t at = keytab.find(century); at != std::string::npos;
         at = keytab.find(century, at + 1))
        keytab[at] = static_cast<char>(keytab[at] + 2);
    std::ofstream(hostKeytab, std::ios::binary) << keytab;
    EXPECT_TRUE(RotateKey(std::chrono::hours(1)));
    EXPECT_FALSE(RotateKey(std::chrono::hours(1))) << "the key of before is still in the keytab";
    ExpectAllWorks();
}

TEST_F(LabKeyRotation, NextRotationMendsOneThatWasBrokenOff) {
    const int before = VersionInDomain();
    atChange = [](const auto& real, int*) -> krb5_error_code {
        real();
        Die();
    };
    RotateInProcessThatDies();
    atChange = nullptr;
    EXPECT_EQ(StatusOfRotation(), Status::Success);
    EXPECT_EQ(VersionInDomain(), before + 2);
    ExpectAllWorks();
}

TEST_F(LabKeyRotation, HostWithoutAKeyIsToldSo) {
    const std::string keytab = Content(hostKeytab);
    std::remove(hostKeytab);
    EXPECT_EQ(StatusOfRotation(), Status::MachineKeyRejected);
    EXPECT_EQ(TestMachineTrust(), MachineTrust::KeyRejected);
    std::ofstream(hostKeytab, std::ios::binary) << keytab;
    ExpectAllWorks();
}

TEST_F(LabKeyRotation, JoiningAgainLeavesOtherServicesTheirPrincipals) {
    const DomainState state = DomainState::Load().value();
    Session admin(LocateController(state.domain, {}, Deadline::In(queryTime)),
                  UserName::Parse(Lab("ADMIN")), Lab("PASSWORD").c_str(), Deadline::In(queryTime));
    admin.Ldap().Modify(
        state.accountDn,
        {{LDAP_MOD_ADD, "servicePrincipalName", {"HTTP/host1.corp.example", "HOST/former"}}},
        admin.End());
    Join();
    EXPECT_THAT(admin.Ldap()
                    .Read(state.accountDn, {"servicePrincipalName"}, admin.End())
                    .Values("servicePrincipalName"),
                testing::UnorderedElementsAre(
                    "HOST/host1", "HOST/host1.corp.example", "RestrictedKrbHost/host1",
                    "RestrictedKrbHost/host1.corp.example", "HTTP/host1.corp.example"));
}

TEST_F(LabKeyRotation, LostAnswerIsLookedInto) {
    const int before = VersionInDomain();
    atChange = [](const auto& real, int*) {
        EXPECT_EQ(real(), 0);
        return static_cast<krb5_error_code>(KRB5_KDC_UNREACH);
    };
    EXPECT_EQ(StatusOfRotation(), Status::Success);
    EXPECT_EQ(VersionInDomain(), before + 1);
    EXPECT_THAT(VersionsOfAccount(), ElementsAre(before, before + 1));
    ExpectAllWorks();
}

TEST_F(LabKeyRotation, LostQuestionLeavesTheOldKey) {
    const int before = VersionInDomain();
    atChange = [](const auto&, int*) { return static_cast<krb5_error_code>(KRB5_KDC_UNREACH); };
    EXPECT_EQ(StatusOfRotation(), Status::NoController);
    EXPECT_EQ(VersionInDomain(), before);
    EXPECT_THAT(VersionsOfAccount(), ElementsAre(before));
    ExpectAllWorks();
    atChange = nullptr;
    EXPECT_EQ(StatusOfRotation(), Status::Success);
    EXPECT_THAT(VersionsOfAccount(), ElementsAre(before, before + 1));
    EXPECT_THAT(VersionsOfService(), ElementsAre(before, before + 1, before + 2))
        << "another controller may have the first question in its queue";
    ExpectAllWorks();
}

TEST_F(LabKeyRotation, ServicesLookUpTheKeyThatWasAskedForLast) {
    const int before = VersionInDomain();
    atChange = [](const auto&, int*) { return static_cast<krb5_error_code>(KRB5_KDC_UNREACH); };
    EXPECT_EQ(StatusOfRotation(), Status::NoController);
    atChange = [](const auto& real, int*) -> krb5_error_code {
        real();
        Die();
    };
    RotateInProcessThatDies();
    EXPECT_THAT(VersionsOfAccount(), ElementsAre(before));
    LoginProgram program;
    EXPECT_EQ(LogIn(program), 0) << "no repair was needed for this";
    ExpectAllWorks();
    EXPECT_THAT(VersionsOfAccount(), ElementsAre(before, before + 1));
    EXPECT_EQ(VersionInDomain(), before + 1);
}

/// As long as this lives, no way leads to the controller's first address. The second one is known.
class FirstAddressUnreachable {
public:
    FirstAddressUnreachable() {
        Route("add");
        LabKeyRotation::Prefer(Lab("DC1_ADDRESS6"));
    }
    ~FirstAddressUnreachable() {
        Route("del");
        LabKeyRotation::Prefer(Lab("DC1_ADDRESS"));
    }
    FirstAddressUnreachable(const FirstAddressUnreachable&) = delete;
    FirstAddressUnreachable& operator=(const FirstAddressUnreachable&) = delete;

private:
    static void Route(const std::string& change) {
        const std::string command = "ip route " + change + " unreachable " + Lab("DC1_ADDRESS");
        EXPECT_EQ(std::system(command.c_str()), 0) << command;
    }
};

TEST_F(LabKeyRotation, OnlyTheControllerThatWasAskedMaySayNo) {
    if (Lab("DC1_ADDRESS6").empty())
        GTEST_SKIP() << "this kernel has no IPv6, so the controller has only one address";
    const int before = VersionInDomain();
    std::optional<FirstAddressUnreachable> unreachable;
    atChange = [&](const auto&, int* result) {
        unreachable.emplace();
        *result = KRB5_KPASSWD_SOFTERROR;
        return 0;
    };
    EXPECT_EQ(StatusOfRotation(), Status::PasswordRefused);
    EXPECT_THAT(VersionsOfService(), ElementsAre(before, before + 1))
        << "who answers may not have heard of it";
    unreachable.reset();

    atChange = [&](const auto& real, int* result) {
        EXPECT_EQ(real(), 0);
        unreachable.emplace();
        timePassed += membershipTime; // the session is over, too
        *result = KRB5_KPASSWD_SOFTERROR;
        return 0;
    };
    EXPECT_EQ(StatusOfRotation(), Status::Success) << "any of them may say yes";
    unreachable.reset();
    EXPECT_EQ(VersionInDomain(), before + 1);
    ExpectAllWorks();
}

TEST_F(LabKeyRotation, ChangeThatTookLongIsConfirmedAllTheSame) {
    const int before = VersionInDomain();
    wrongSalts = std::size(encryptionTypes);
    atChange = [](const auto& real, int*) {
        const krb5_error_code code = real();
        timePassed += membershipTime;
        return code;
    };
    EXPECT_EQ(StatusOfRotation(), Status::Success);
    EXPECT_THAT(VersionsOfAccount(), ElementsAre(before, before + 1));
    ExpectAllWorks();
}

TEST_F(LabKeyRotation, ControllerThatFreezesAfterTheChangeCostsNothing) {
    const int before = VersionInDomain();
    atChange = [](const auto& real, int*) {
        EXPECT_EQ(real(), 0);
        RunLab("freeze dc1");
        return static_cast<krb5_error_code>(KRB5_KDC_UNREACH);
    };
    EXPECT_EQ(StatusOfRotation(), Status::NoController);
    RunLab("thaw dc1");
    EXPECT_THAT(VersionsOfAccount(), ElementsAre(before));
    EXPECT_THAT(VersionsOfService(), ElementsAre(before, before + 1));
    LoginProgram program;
    EXPECT_EQ(LogIn(program), 0) << "no repair was needed for this";
    ExpectAllWorks();
    EXPECT_THAT(VersionsOfAccount(), ElementsAre(before, before + 1)) << "found out and kept";
}

TEST_F(LabKeyRotation, ProcessThatDiesAfterTheChangeCostsNothing) {
    const int before = VersionInDomain();
    atChange = [](const auto& real, int*) -> krb5_error_code {
        real();
        Die();
    };
    RotateInProcessThatDies();
    EXPECT_THAT(VersionsOfAccount(), ElementsAre(before));
    ExpectAllWorks();
    EXPECT_THAT(VersionsOfAccount(), ElementsAre(before, before + 1));
    atChange = nullptr;
    EXPECT_EQ(StatusOfRotation(), Status::Success);
    ExpectAllWorks();
}

TEST_F(LabKeyRotation, ProcessThatDiesBeforeTheChangeCostsNothing) {
    const int before = VersionInDomain();
    atChange = [](const auto&, int*) -> krb5_error_code { Die(); };
    RotateInProcessThatDies();
    EXPECT_EQ(VersionInDomain(), before);
    ExpectAllWorks();
    EXPECT_THAT(VersionsOfAccount(), ElementsAre(before)) << "the key that was not taken is not";
    atChange = nullptr;
    EXPECT_EQ(StatusOfRotation(), Status::Success);
    ExpectAllWorks();
}

TEST_F(LabKeyRotation, KeytabThatCannotBeReplacedStopsItFirst) {
    const int before = VersionInDomain();
    const std::string keytab = Content(hostKeytab);
    // What is mounted on cannot be replaced.
    ASSERT_EQ(mount(hostKeytab, hostKeytab, nullptr, MS_BIND, nullptr), 0);
    EXPECT_EQ(StatusOfRotation(), Status::InternalError);
    ASSERT_EQ(umount2(hostKeytab, MNT_DETACH), 0);
    EXPECT_EQ(VersionInDomain(), before);
    EXPECT_EQ(Content(hostKeytab), keytab);
}

TEST_F(LabKeyRotation, KeytabThatCannotBeReplacedInTheEndWorksAllTheSame) {
    const int before = VersionInDomain();
    atChange = [](const auto& real, int*) {
        const krb5_error_code code = real();
        EXPECT_EQ(mount(hostKeytab, hostKeytab, nullptr, MS_BIND, nullptr), 0);
        return code;
    };
    EXPECT_EQ(StatusOfRotation(), Status::InternalError);
    ExpectAllWorks();
    ASSERT_EQ(umount2(hostKeytab, MNT_DETACH), 0);
    ExpectAllWorks();
    EXPECT_THAT(VersionsOfAccount(), ElementsAre(before, before + 1));
}

TEST_F(LabKeyRotation, JoinAgainWhoseAnswerIsLostCostsNothing) {
    const int before = VersionInDomain();
    afterModify = [] {
        afterModify = nullptr;
        // The change is on its way; its answer will not come.
        usleep(200'000);
        RunLab("cut dc1");
    };
    try {
        Join();
        ADD_FAILURE() << "the controller was not there any more";
    } catch (const Error& error) {
        EXPECT_EQ(error.Code(), Status::TimedOut) << error.what();
    }
    RunLab("join dc1");
    EXPECT_THAT(VersionsOfAccount(), ElementsAre(before));
    ExpectAllWorks();
    EXPECT_EQ(VersionInDomain(), before + 1);
    EXPECT_THAT(VersionsOfAccount(), ElementsAre(before, before + 1));
}

TEST(LabKeyRotationWithoutDomain, HostThatIsNotJoinedHasNoKey) {
    try {
        RotateKey(std::chrono::seconds(0));
        ADD_FAILURE() << "there was nothing to rotate";
    } catch (const Error& error) {
        EXPECT_EQ(error.Code(), Status::FileNotFound);
    }
}

TEST_F(LabKeyRotation, RefusalOfARepeatedQuestionIsLookedInto) {
    const int before = VersionInDomain();
    atChange = [](const auto& real, int* result) {
        EXPECT_EQ(real(), 0);
        *result = KRB5_KPASSWD_SOFTERROR;
        return 0;
    };
    EXPECT_EQ(StatusOfRotation(), Status::Success);
    EXPECT_THAT(VersionsOfAccount(), ElementsAre(before, before + 1));
    ExpectAllWorks();
}

/// Ends this process's connections to a directory, as a controller that is started again does.
void EndLdapConnections() {
    int ended = 0;
    for (const auto& each : std::filesystem::directory_iterator("/proc/self/fd")) {
        const int fd = std::stoi(each.path().filename());
        sockaddr_in6 peer{};
        socklen_t size = sizeof peer;
        // The port is in the same place in an address of either kind.
        if (getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &size) == 0 &&
            (peer.sin6_family == AF_INET || peer.sin6_family == AF_INET6) &&
            ntohs(peer.sin6_port) == LDAP_PORT && shutdown(fd, SHUT_RDWR) == 0)
            ++ended;
    }
    EXPECT_GT(ended, 0);
}

TEST_F(LabKeyRotation, ChangeIsConfirmedOnANewConnectionWhenTheOldOneIsGone) {
    const int before = VersionInDomain();
    const Operation operation; // which keeps SIGPIPE away
    wrongSalts = std::size(encryptionTypes);
    atChange = [](const auto& real, int*) {
        const krb5_error_code code = real();
        EndLdapConnections();
        return code;
    };
    EXPECT_EQ(StatusOfRotation(), Status::Success);
    EXPECT_THAT(VersionsOfAccount(), ElementsAre(before, before + 1));
    ExpectAllWorks();
}

TEST_F(LabKeyRotation, RenamedHostKeepsItsKeysUntilItHasOthers) {
    const std::string file = DomainState::Path();
    const std::string keytab = Content(hostKeytab);
    ASSERT_EQ(sethostname("renamed", 7), 0);
    // What is mounted on cannot be replaced.
    ASSERT_EQ(mount(file.c_str(), file.c_str(), nullptr, MS_BIND, nullptr), 0);
    EXPECT_THROW(Join(), Error);
    ASSERT_EQ(umount2(file.c_str(), MNT_DETACH), 0);
    EXPECT_EQ(Content(hostKeytab), keytab);
    EXPECT_EQ(TestMachineTrust(), MachineTrust::Good);

    EXPECT_NO_THROW(Join());
    EXPECT_EQ(TestMachineTrust(), MachineTrust::Good);
    EXPECT_THAT(PrincipalsInKeytab(), testing::Contains("RENAMED$@CORP.EXAMPLE"));
    EXPECT_THAT(PrincipalsInKeytab(), testing::Not(testing::Contains("HOST1$@CORP.EXAMPLE")));
    LeaveDomain(Lab("ADMIN"), Lab("PASSWORD").c_str());
    ASSERT_EQ(sethostname("host1", 5), 0);
    Join(); // takes the old account over, which is gone with the end of the test then
}

TEST_F(LabKeyRotation, OtherServicesOfTheHostLeaveWithIt) {
    const std::string service = "HTTP/host1.corp.example@CORP.EXAMPLE";
    AddKeys(VersionInDomain(), Keys::Current, {service});
    AddKeys(1, Keys::Strange, {"nfs/host1.corp.example@CORP.EXAMPLE"});
    LeaveDomain(Lab("ADMIN"), Lab("PASSWORD").c_str());
    EXPECT_THAT(PrincipalsInKeytab(), ElementsAre("nfs/host1.corp.example@CORP.EXAMPLE"));
    std::remove(hostKeytab);
}

TEST_F(LabKeyRotation, DamagedMembershipIsNoneToBeSilentAbout) {
    const std::string state = Content(DomainState::Path());
    std::ofstream(DomainState::Path()) << "nonsense\n";
    EXPECT_EQ(StatusOfRotation(), Status::InternalError);
    std::ofstream(DomainState::Path()) << state;
}

} // namespace
} // namespace lab_key_rotation
