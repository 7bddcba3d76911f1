// Which keys a keytab has before, during and after a change of the account's key.

#include "directory/domain_state.h"
#include "directory/kerberos_profile.h"
#include "directory/key_change.h"
#include "directory/keytab.h"

#include <dlfcn.h>
#include <krb5.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <map>
#include <set>
#include <string>
#include <vector>

#include <gmock/gmock.h>

namespace {
time_t timePassed = 0; // since now, in seconds
}

extern "C" __attribute__((visibility("default"))) time_t time(time_t* result) noexcept {
    static const auto real = reinterpret_cast<time_t (*)(time_t*)>(dlsym(RTLD_NEXT, "time"));
    const time_t now = real(nullptr) + timePassed;
    if (result)
        *result = now;
    return now;
}

namespace tessary::directory {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;
using testing::Pair;

constexpr time_t hour = 60 * 60;
constexpr time_t day = 24 * hour;
constexpr time_t week = 7 * day;
constexpr char account[] = "WEB1$@CORP.EXAMPLE";
constexpr char service[] = "host/web1.corp.example@CORP.EXAMPLE";

class KeyChangeTest : public testing::Test {
protected:
    KeyChangeTest() : context_(MakeKerberosContext("CORP.EXAMPLE")) {
        state_.realm = "CORP.EXAMPLE";
        state_.account = "WEB1$";
        state_.shortName = "web1";
        state_.fullName = "web1.corp.example";
    }
    ~KeyChangeTest() override {
        krb5_free_context(context_);
        std::remove(hostKeytab);
    }

    /// Keys that differ from those of every other letter.
    std::vector<AccountKey> Keys(char letter) {
        std::vector<AccountKey> keys;
        for (const krb5_enctype type : encryptionTypes) {
            krb5_keyblock key{};
            std::string text(20, letter);
            krb5_data password{KV5M_DATA, static_cast<unsigned>(text.size()), text.data()};
            krb5_data salt{KV5M_DATA, 1, &letter};
            EXPECT_EQ(krb5_c_string_to_key(context_, type, &password, &salt, &key), 0);
            keys.emplace_back(context_, key);
        }
        return keys;
    }

    static std::string Bytes(const AccountKey& key) {
        return {reinterpret_cast<const char*>(key.Get().contents), key.Get().length};
    }
    static bool HasKey(const std::vector<AccountKey>& keys, const AccountKey& wanted) {
        return std::any_of(keys.begin(), keys.end(),
                           [&](const AccountKey& key) { return Bytes(key) == Bytes(wanted); });
    }

    /// One change after the other, that of version N + 1 after so much time.
    void Change(int version, time_t after) {
        timePassed += after;
        KeyChange change(context_, state_, version);
        change.Stage(Keys('a'));
        change.Finished(Keys('a'), version + 1)->Commit();
    }

    static std::uint32_t Now() { return static_cast<std::uint32_t>(std::time(nullptr)); }

    /// Which letter's keys each version has; '?' for keys of two letters, or no letter's.
    std::map<int, char> Letters(const std::string& principal) {
        std::map<int, char> letters;
        for (const KeytabKey& key : ReadHostKeys(context_, {principal})) {
            char letter = 'a';
            while (letter <= 'z' && !HasKey(Keys(letter), key.key))
                ++letter;
            if (letter > 'z')
                letter = '?';
            const auto [known, isNew] = letters.emplace(key.name.version, letter);
            if (known->second != letter)
                known->second = '?';
        }
        return letters;
    }

    std::set<int> Versions(const std::string& principal) const {
        std::set<int> versions;
        for (const KeytabKey& key : ReadHostKeys(context_, {principal}))
            versions.insert(key.name.version);
        return versions;
    }

    krb5_context context_;
    DomainState state_;
};

TEST_F(KeyChangeTest, NewKeyIsTheServicesFirst) {
    Change(0, 0);
    KeyChange change(context_, state_, 1);
    change.Stage(Keys('b'));
    EXPECT_THAT(Versions(account), ElementsAre(1));
    EXPECT_THAT(Versions(service), ElementsAre(1, 2));
    change.Finished(Keys('b'), 2)->Commit();
    EXPECT_THAT(Versions(account), ElementsAre(1, 2));
    EXPECT_THAT(Versions(service), ElementsAre(1, 2));
}

TEST_F(KeyChangeTest, KeyThatWasTakenBackIsGone) {
    Change(0, 0);
    KeyChange change(context_, state_, 1);
    change.Stage(Keys('b'));
    change.TakeBack();
    EXPECT_THAT(Versions(account), ElementsAre(1));
    EXPECT_THAT(Versions(service), ElementsAre(1));
}

TEST_F(KeyChangeTest, LatestQuestionHasTheVersionThatComesNext) {
    Change(0, 0);
    KeyChange(context_, state_, 1).Stage(Keys('b'));
    timePassed += hour;
    KeyChange refused(context_, state_, 1);
    refused.Stage(Keys('c'));
    EXPECT_THAT(Letters(service), ElementsAre(Pair(1, 'a'), Pair(2, 'c'), Pair(3, 'b')));
    EXPECT_THAT(Versions(account), ElementsAre(1));
    refused.TakeBack();
    EXPECT_THAT(Letters(service), ElementsAre(Pair(1, 'a'), Pair(2, 'b')));
}

TEST_F(KeyChangeTest, QuestionThatWasNotAnsweredKeepsItsTime) {
    Change(0, 0);
    const std::uint32_t asked = Now();
    KeyChange(context_, state_, 1).Stage(Keys('b'));
    timePassed += hour;
    KeyChange(context_, state_, 1).Stage(Keys('c'));
    for (const KeytabKey& key : ReadHostKeys(context_, {service})) {
        if (key.name.version == 3) {
            EXPECT_NEAR(key.name.time, asked, 60);
        }
    }
    EXPECT_THAT(Letters(service), Contains(Pair(3, 'b')));
}

TEST_F(KeyChangeTest, ChangesThatAreNeverAnsweredDoNotPileUp) {
    Change(0, 0);
    for (const char letter : std::string("bcdefghijkl")) {
        KeyChange(context_, state_, 1).Stage(Keys(letter));
        timePassed += 24 * hour + 1;
    }
    EXPECT_THAT(Letters(service),
                ElementsAre(Pair(1, 'a'), Pair(2, 'l'), Pair(3, 'k'), Pair(4, 'j'), Pair(5, 'i'),
                            Pair(6, 'h'), Pair(7, 'g'), Pair(8, 'f')));
}

TEST_F(KeyChangeTest, ControllerMayHaveAQuestionInItsQueueWhenALaterOneIsAnswered) {
    Change(0, 0);
    KeyChange(context_, state_, 1).Stage(Keys('b'));
    timePassed += 4 * day;
    KeyChange(context_, state_, 1).Stage(Keys('c'));
    timePassed += 4 * day;
    KeyChange taken(context_, state_, 1);
    taken.Stage(Keys('d'));
    taken.Finished(Keys('d'), 2)->Commit();
    EXPECT_THAT(Letters(service), ElementsAre(Pair(1, 'a'), Pair(2, 'd'), Pair(3, 'c')))
        << "the first question is a week old";
    EXPECT_THAT(Letters(account), ElementsAre(Pair(1, 'a'), Pair(2, 'd')));
}

TEST_F(KeyChangeTest, KeyThatTurnsOutToBeTheAccountsTakesItsPlace) {
    Change(0, 0);
    KeyChange(context_, state_, 1).Stage(Keys('b'));
    timePassed += hour;
    KeyChange taken(context_, state_, 1);
    taken.Stage(Keys('d'));
    taken.Finished(Keys('d'), 2)->Commit();
    timePassed += 2 * week;
    // A controller that hung has made the first change on top of what it knew.
    const std::uint32_t before = Now();
    KeyChange(context_, state_, 0).Finished(Keys('b'), 2)->Commit();
    EXPECT_THAT(Letters(account), ElementsAre(Pair(2, 'b')));
    EXPECT_THAT(Letters(service), ElementsAre(Pair(2, 'b'), Pair(3, 'd')))
        << "controllers that have not heard of it use the other";
    for (const KeytabKey& key : ReadHostKeys(context_, {account})) {
        if (key.name.version == 2) {
            EXPECT_GE(key.name.time, before) << "tickets are made with it from now on";
        }
    }
    KeyChange(context_, state_, 2).Stage(Keys('e'));
    EXPECT_THAT(Letters(service), Contains(Pair(4, 'd'))) << "it waits since it was replaced";
    timePassed += week + hour;
    KeyChange(context_, state_, 2).Stage(Keys('f'));
    EXPECT_THAT(Letters(service), Not(Contains(Pair(testing::_, 'd'))));
}

TEST_F(KeyChangeTest, TimesBeyondTheYear2038AreLater) {
    constexpr std::uint32_t earlier = 0x7fffffff;
    constexpr std::uint32_t later = 0x80000001;
    const std::string moved = "HTTP/web1.corp.example@CORP.EXAMPLE";
    Change(0, 0);
    KeytabReplacement others(context_, std::vector<std::string>());
    others.Add({moved}, 6, Keys('a'), earlier);
    others.Add({moved}, 2, Keys('n'), later);
    others.Add({service}, 7, Keys('b'), later);
    others.Add({account}, 7, Keys('b'), earlier);
    others.Commit();
    EXPECT_THAT(PrincipalsWithKeysOf(context_, state_), Not(Contains(moved)))
        << "its latest key is another account's";
    EXPECT_EQ(ReadKeyGenerations(context_, {account, service}).back().since, earlier);
}

TEST_F(KeyChangeTest, ControllersThatKnowALaterKeyMayStillUseIt) {
    Change(0, 0);
    KeyChange known(context_, state_, 1);
    known.Stage(Keys('b'));
    known.Finished(Keys('b'), 2)->Commit();
    timePassed += 2 * week;
    KeyChange behind(context_, state_, 1);
    EXPECT_EQ(behind.Told(), 1);
    behind.Stage(Keys('c'));
    behind.Finished(Keys('c'), 2)->Commit();
    EXPECT_THAT(Letters(account), ElementsAre(Pair(2, 'c')));
    EXPECT_THAT(Letters(service), ElementsAre(Pair(2, 'c'), Pair(3, 'b')));
}

TEST_F(KeyChangeTest, OfTheKeysThatOthersMayUseTheLatestComesFirst) {
    Change(0, 0);
    KeyChange(context_, state_, 1).Finished(Keys('b'), 2)->Commit();
    KeyChange(context_, state_, 2).Finished(Keys('c'), 3)->Commit();
    KeyChange(context_, state_, 1).Finished(Keys('d'), 2)->Commit(); // it is behind by two
    EXPECT_THAT(Letters(account), ElementsAre(Pair(1, 'a'), Pair(2, 'd')));
    EXPECT_THAT(Letters(service),
                ElementsAre(Pair(1, 'a'), Pair(2, 'd'), Pair(3, 'c'), Pair(4, 'b')));
}

TEST_F(KeyChangeTest, KeysThatWereMadeWithAWrongSaltDoNotStay) {
    Change(0, 0);
    KeyChange change(context_, state_, 1);
    change.Stage(Keys('w'));
    change.Finished(Keys('w'), 2)->Commit();
    change.Finished(Keys('r'), 2)->Commit();
    EXPECT_THAT(Letters(service), ElementsAre(Pair(1, 'a'), Pair(2, 'r')));
    EXPECT_THAT(Letters(account), ElementsAre(Pair(1, 'a'), Pair(2, 'r')));
}

TEST_F(KeyChangeTest, OldKeyStaysAWeekBeyondTheNext) {
    Change(0, 0);
    Change(1, 30 * 24 * hour);
    EXPECT_THAT(Versions(service), ElementsAre(1, 2)) << "its age does not matter";
    Change(2, week - hour);
    EXPECT_THAT(Versions(service), ElementsAre(1, 2, 3));
    Change(3, 2 * hour);
    EXPECT_THAT(Versions(service), ElementsAre(2, 3, 4));
    EXPECT_THAT(Versions(account), ElementsAre(2, 3, 4));
    Change(4, week + hour);
    EXPECT_THAT(Versions(service), ElementsAre(4, 5));
}

TEST_F(KeyChangeTest, KeysOfOthersStay) {
    KeytabReplacement others(context_, std::vector<std::string>());
    others.Add({"nfs/web1@OTHER.EXAMPLE"}, 900, Keys('o'));
    others.Commit();
    Change(0, 0);
    Change(1, 2 * week);
    Change(2, 2 * week);
    EXPECT_THAT(Versions("nfs/web1@OTHER.EXAMPLE"), ElementsAre(900));
    EXPECT_THAT(Versions(service), ElementsAre(2, 3));
}

TEST_F(KeyChangeTest, OtherServicesWithTheAccountsKeyGetTheNewOne) {
    Change(0, 0);
    KeytabReplacement others(context_, std::vector<std::string>());
    others.Add({"HTTP/web1.corp.example@CORP.EXAMPLE"}, 1, Keys('a'));
    others.Add({"nfs/web1.corp.example@CORP.EXAMPLE"}, 1, Keys('n'));
    others.Commit();
    KeyChange change(context_, state_, 1);
    change.Stage(Keys('b'));
    EXPECT_THAT(Versions("HTTP/web1.corp.example@CORP.EXAMPLE"), ElementsAre(1, 2));
    change.Finished(Keys('b'), 2)->Commit();
    EXPECT_THAT(Versions("HTTP/web1.corp.example@CORP.EXAMPLE"), ElementsAre(1, 2));
    EXPECT_THAT(Versions("nfs/web1.corp.example@CORP.EXAMPLE"), ElementsAre(1))
        << "this one is another account's";
}

TEST_F(KeyChangeTest, ServiceThatHasAnotherAccountNowKeepsItsKeys) {
    const std::string moved = "HTTP/web1.corp.example@CORP.EXAMPLE";
    Change(0, 0);
    KeytabReplacement others(context_, std::vector<std::string>());
    others.Add({moved}, 1, Keys('a'));
    others.Add({moved}, 12, Keys('n'));
    others.Commit();
    Change(1, 0);
    EXPECT_THAT(Versions(moved), ElementsAre(1, 12));
    EXPECT_THAT(PrincipalsWithKeysOf(context_, state_), Not(Contains(moved)));
}

TEST_F(KeyChangeTest, VersionsOfTwoAccountsDoNotCompare) {
    const std::string moved = "HTTP/web1.corp.example@CORP.EXAMPLE";
    Change(5, 0); // version 6
    KeytabReplacement others(context_, std::vector<std::string>());
    others.Add({moved}, 6, Keys('a'));
    timePassed += hour;
    others.Add({moved}, 2, Keys('n'));
    others.Commit();
    Change(6, 2 * week);
    Change(7, 2 * week);
    EXPECT_THAT(Letters(moved), ElementsAre(Pair(2, 'n'), Pair(6, 'a')));
}

TEST_F(KeyChangeTest, ControllerThatIsBehindIsNotBelieved) {
    Change(0, 0);
    Change(1, 0);
    KeyChange change(context_, state_, 1);
    EXPECT_EQ(change.Version(), 2) << "the keytab knows better";
    change.Stage(Keys('b'));
    change.TakeBack();
    EXPECT_THAT(Versions(account), ElementsAre(1, 2)) << "the key that the host logs in with";
}

TEST_F(KeyChangeTest, KeysOfAnAccountThatIsNoMoreAreLeftOut) {
    Change(0, 0);
    Change(1, 0);
    Change(2, 0);
    KeyChange(context_, state_, 3).Finished(Keys('b'), 2)->Commit();
    EXPECT_THAT(Versions(account), ElementsAre(1, 2)) << "a newer version would be taken for right";
}

TEST_F(KeyChangeTest, KeytabIsForRootOnly) {
    Change(0, 0);
    struct stat information {};
    ASSERT_EQ(stat(hostKeytab, &information), 0);
    EXPECT_EQ(information.st_mode & 07777, 0600u);
}

TEST_F(KeyChangeTest, OnlyADomainThatHasAnsweredHasRefused) {
    EXPECT_FALSE(KeyChange::MayStillHappen(Error(Status::PasswordRefused, "")));
    EXPECT_FALSE(KeyChange::MayStillHappen(Error(Status::AccessDenied, "")));
    EXPECT_TRUE(KeyChange::MayStillHappen(Error(Status::TimedOut, "")));
    EXPECT_TRUE(KeyChange::MayStillHappen(Error(Status::NoController, "")));
    EXPECT_TRUE(KeyChange::MayStillHappen(Error(Status::ConnectionRefused, "")));
    EXPECT_TRUE(KeyChange::MayStillHappen(Error(Status::InternalError, "")));
}

TEST_F(KeyChangeTest, HostWithoutAKeytabHasNoKeys) {
    EXPECT_THAT(ReadHostKeys(context_, {account, service}), IsEmpty());
}

} // namespace
} // namespace tessary::directory
