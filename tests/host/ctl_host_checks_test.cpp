#include <gmock/gmock.h>

#include "ctl_host.h"

namespace ctl_test {
namespace {

using scripted::ReadFile;
using scripted::Shell;
using testing::HasSubstr;

/// What the diagnosis finds in the host's own files.
class HostChecksTest : public CtlTest {
protected:
    HostChecksTest() { Clear(); }
    ~HostChecksTest() override { Clear(); }

    /// The findings of one check, one a line: severity, text, remedy.
    static std::string Findings(const std::string& check, bool asNobody = false) {
        const Result result = Ctl({"diagnose", "--json"}, {.asNobody = asNobody});
        std::string found;
        const Json json = Json::parse(result.out, nullptr, false);
        if (json.is_discarded()) {
            return "(no JSON) " + result.out + result.err;
        }
        for (const Json& finding : json["findings"]) {
            if (finding["check"] == check) {
                found +=
                    finding["severity"].get<std::string>() + ": " +
                    finding["text"].get<std::string>() +
                    (finding["remedy"].is_null() ? ""
                                                 : " -> " + finding["remedy"].get<std::string>()) +
                    '\n';
            }
        }
        EXPECT_EQ(result.status, json["worst"] == "failure" ? 1 : 0);
        return found;
    }

private:
    static void Clear() { Shell("rm -rf /etc/krb5.keytab /var/lib/tessary"); }
};

/// Something that is wrong, and, where a command mends it, that it does.
struct Fault {
    friend void PrintTo(const Fault& fault, std::ostream* stream) { *stream << fault.make; }

    const char* name;
    const char* make;
    const char* check;
    const char* finding; ///< all findings of the check
    const char* mend;    ///< null when the remedy is no command
};

class FaultTest : public HostChecksTest, public testing::WithParamInterface<Fault> {};

TEST_P(FaultTest, IsFoundAndItsRemedyMendsIt) {
    const auto& [name, make, check, finding, mend] = GetParam();
    Shell(make);
    EXPECT_EQ(Findings(check), finding);
    if (mend != nullptr) {
        EXPECT_THAT(std::string(finding), HasSubstr(std::string(" -> ") + mend + "\n"));
        Shell(mend);
        EXPECT_THAT(Findings(check), testing::StartsWith("ok: "));
    }
}

#define CONF "/etc/tessary/tesauth/"
#define STATE "/var/lib/tessary"
#define STORE STATE "/configstore.db"

/// A configuration store as the library makes it.
#define MAKE_STORE                                                                                 \
    "/usr/bin/tesauthctl option set UserVars.ActiveDirectoryVerifyAPXCertificate 1 && "

INSTANTIATE_TEST_SUITE_P(
    Faults, FaultTest,
    testing::Values(
        Fault{"SettingsWritable", "chmod 0666 " CONF "provider.conf", "provider.conf",
              "failure: others than its owner may change " CONF "provider.conf (mode 0666) -> "
              "chmod 0644 " CONF "provider.conf\n",
              "chmod 0644 " CONF "provider.conf"},
        Fault{"SettingsGroupWritable", "chmod 0664 " CONF "apxprovider.conf", "apxprovider.conf",
              "failure: others than its owner may change " CONF "apxprovider.conf (mode 0664) -> "
              "chmod 0644 " CONF "apxprovider.conf\n",
              "chmod 0644 " CONF "apxprovider.conf"},
        Fault{"SettingsOwner", "chown 1000 " CONF "authentication.conf", "authentication.conf",
              "failure: " CONF "authentication.conf belongs to user 1000, not to root -> "
              "chown root " CONF "authentication.conf\n",
              "chown root " CONF "authentication.conf"},
        Fault{"SettingsMissing", "rm " CONF "authentication.conf", "authentication.conf",
              "failure: " CONF "authentication.conf is missing -> "
              "echo 'remote-authentication-store = \"None\"' > " CONF "authentication.conf\n",
              "echo 'remote-authentication-store = \"None\"' > " CONF "authentication.conf"},
        Fault{"ProxySettingsMissing", "rm " CONF "apxprovider.conf", "apxprovider.conf",
              "failure: " CONF "apxprovider.conf is missing -> "
              "echo 'provider = \"apxhttps\"' > " CONF "apxprovider.conf\n",
              "echo 'provider = \"apxhttps\"' > " CONF "apxprovider.conf"},
        Fault{"SettingsWithoutKey", "echo 'store = None' > " CONF "authentication.conf",
              "authentication.conf",
              "failure: " CONF "authentication.conf: The specified key "
              "'remote-authentication-store' was not found in this configuration -> "
              "echo 'remote-authentication-store = \"None\"' > " CONF "authentication.conf\n",
              "echo 'remote-authentication-store = \"None\"' > " CONF "authentication.conf"},
        Fault{"SettingsWithAnUnknownStore",
              "echo 'remote-authentication-store = \"Old\"' > " CONF "authentication.conf",
              "authentication.conf",
              "failure: the active store is \"Old\", which does not exist -> "
              "tesauthctl store activate NAME, with a name from `tesauthctl store list`\n",
              nullptr},
        Fault{"SettingsAreAFolder", "rm " CONF "apxprovider.conf && mkdir " CONF "apxprovider.conf",
              "apxprovider.conf",
              "failure: " CONF "apxprovider.conf is no file -> move it away, then "
              "echo 'provider = \"apxhttps\"' > " CONF "apxprovider.conf\n",
              nullptr},
        Fault{"TwoFaultsAtOnce",
              "echo nonsense > " CONF "apxprovider.conf && chmod 0646 " CONF "apxprovider.conf",
              "apxprovider.conf",
              "failure: others than its owner may change " CONF "apxprovider.conf (mode 0646) -> "
              "chmod 0644 " CONF "apxprovider.conf\n"
              "failure: " CONF
              "apxprovider.conf: Error parsing configuration on line 1: no delimiter found -> "
              "echo 'provider = \"apxhttps\"' > " CONF "apxprovider.conf\n",
              nullptr},
        Fault{"ProviderWritable", "chmod 0757 /usr/libexec/tesauth/libscripted.so", "provider",
              "failure: others than its owner may change /usr/libexec/tesauth/libscripted.so "
              "(mode 0757) -> chmod go-w /usr/libexec/tesauth/libscripted.so\n",
              "chmod go-w /usr/libexec/tesauth/libscripted.so"},
        Fault{"KeytabReadable", "echo x > /etc/krb5.keytab && chmod 0644 /etc/krb5.keytab",
              "keytab's permissions",
              "failure: others than its owner may look into /etc/krb5.keytab (mode 0644) -> "
              "chmod 0600 /etc/krb5.keytab\n",
              "chmod 0600 /etc/krb5.keytab"},
        Fault{"KeytabOwner",
              "echo x > /etc/krb5.keytab && chmod 0600 /etc/krb5.keytab && "
              "chown 1000 /etc/krb5.keytab",
              "keytab's permissions",
              "failure: /etc/krb5.keytab belongs to user 1000, not to root -> "
              "chown root /etc/krb5.keytab\n",
              "chown root /etc/krb5.keytab"},
        Fault{"SettingsAreALinkToNowhere", "ln -sf /nowhere " CONF "provider.conf", "provider.conf",
              "failure: " CONF "provider.conf could not be looked at: No such file or directory -> "
              "ls -l " CONF "provider.conf shows where it leads\n",
              nullptr},
        Fault{"StateFolderOpen", "mkdir -m 0755 " STATE, "state folder",
              "failure: others than its owner may look into " STATE " (mode 0755) -> "
              "chmod 0700 " STATE "\n",
              "chmod 0700 " STATE},
        Fault{"StoreIsNoDatabase",
              "mkdir -m 0700 " STATE " && echo nonsense > " STORE " && chmod 0600 " STORE,
              "configuration store",
              "failure: " STORE ": cannot open the configuration store: file is not a database -> "
              "mv " STORE " " STORE ".old && tesauthctl join DOMAIN -U USER\n",
              nullptr},
        Fault{"StoreIsAFolder", "mkdir -m 0700 " STATE " " STORE, "configuration store",
              "failure: " STORE " is no regular file -> mv " STORE " " STORE
              ".old && tesauthctl join DOMAIN -U USER\n",
              nullptr},
        Fault{"StoreOpen", MAKE_STORE "chmod 0640 " STORE, "configuration store",
              "failure: others than its owner may look into " STORE " (mode 0640) -> "
              "chmod 0600 " STORE "\n",
              "chmod 0600 " STORE},
        Fault{"StoreInAnOpenFolder", MAKE_STORE "chmod 0755 " STATE, "configuration store",
              "warning: it was not opened, since that would change the state folder's permissions "
              "-> mend the state folder first\n",
              nullptr},
        Fault{"StoreWithAChangeCutOff", MAKE_STORE "touch " STORE "-journal", "configuration store",
              "warning: a change to it is going on or was cut off; the next use settles that -> "
              "tesauthctl status\n",
              nullptr}),
    [](const auto& instance) { return std::string(instance.param.name); });

TEST_F(HostChecksTest, WhatIsInOrderIsToldSo) {
    Shell("echo x > /etc/krb5.keytab && chmod 0600 /etc/krb5.keytab");
    Shell(MAKE_STORE "echo 'provider = \"\"' > " CONF "apxprovider.conf");
    EXPECT_EQ(Findings("keytab's permissions"), "ok: /etc/krb5.keytab is root's alone\n");
    EXPECT_EQ(Findings("state folder"), "ok: " STATE " is root's alone\n");
    EXPECT_EQ(Findings("configuration store"), "ok: it opens, and no domain is on record\n");
    EXPECT_EQ(Findings("apxprovider.conf"), "ok: it names no authentication-proxy client\n");
    Join("corp.example");
    EXPECT_EQ(Findings("configuration store"), "ok: it opens, and corp.example is on record\n");
}

TEST_F(HostChecksTest, AKeytabIsYetToBeWhereALinkLeads) {
    Shell("ln -s /nowhere /etc/krb5.keytab");
    EXPECT_EQ(Findings("keytab's permissions"), "ok: there is no /etc/krb5.keytab\n");
}

TEST_F(HostChecksTest, ADamagedStoreIsMendedByBothCommands) {
    Shell("mkdir -m 0700 " STATE " && echo nonsense > " STORE " && chmod 0600 " STORE);
    Shell("mv " STORE " " STORE ".old");
    Join("corp.example");
    EXPECT_EQ(Findings("configuration store"), "ok: it opens, and corp.example is on record\n");
}

TEST_F(HostChecksTest, AStoreThatIsStillEmptyIsInOrder) {
    Shell("mkdir -m 0700 " STATE " && touch " STORE " && chmod 0600 " STORE);
    EXPECT_EQ(Findings("configuration store"), "ok: " STORE " is still empty\n");
}

TEST_F(HostChecksTest, AProxyClientThatIsInstalledIsToldSo) {
    Shell("mkdir /usr/libexec/tesauth/lib64 && touch /usr/libexec/tesauth/lib64/libapxhttps.so");
    EXPECT_EQ(Findings("apxprovider.conf"),
              "ok: the authentication-proxy client is \"apxhttps\"\n");
}

TEST_F(HostChecksTest, NobodyIsToldWhatHeMayNotLookAt) {
    Join("corp.example");
    Shell("chmod 0600 " CONF "apxprovider.conf");
    Shell("echo x > /etc/krb5.keytab && chmod 0600 /etc/krb5.keytab");
    const char* const asRoot = " -> run as root: tesauthctl diagnose\n";
    EXPECT_EQ(Findings("apxprovider.conf", true),
              std::string("warning: this user may not read " CONF "apxprovider.conf") + asRoot);
    EXPECT_EQ(Findings("configuration store", true),
              std::string("warning: only root may read it") + asRoot);
    EXPECT_EQ(Findings("state folder", true), "ok: " STATE " is root's alone\n");
    EXPECT_EQ(Findings("keytab's permissions", true), "ok: /etc/krb5.keytab is root's alone\n");
    Shell("chmod 0700 " CONF);
    EXPECT_THAT(Findings("provider.conf", true), HasSubstr("Permission denied"));
    EXPECT_THAT(Findings("provider.conf", true), HasSubstr(asRoot));
    Shell("chmod 0755 " CONF);
}

/// The content and all that `ls` tells of the host's settings and state.
std::string Snapshot() {
    Shell("find /etc /var/lib -printf '%p %y %m %U %G %s %T@ %C@ %l\\n' | sort > /run/snapshot && "
          "find /etc /var/lib -type f -exec sha256sum {} + | sort >> /run/snapshot");
    return ReadFile("/run/snapshot");
}

class NothingChangesTest : public HostChecksTest,
                           public testing::WithParamInterface<const char*> {};

TEST_P(NothingChangesTest, WhateverTheStateOfTheHost) {
    Shell(GetParam());
    const std::string before = Snapshot();
    ASSERT_THAT(before, HasSubstr(CONF "authentication.conf f 644 0 0 "));
    const Result result = Ctl({"diagnose"});
    EXPECT_THAT(result.out, HasSubstr("configuration store: "));
    EXPECT_TRUE(Snapshot() == before) << "something in /etc or /var/lib is another";
}

INSTANTIATE_TEST_SUITE_P(
    Hosts, NothingChangesTest,
    testing::Values(":", "mkdir -m 0755 " STATE, MAKE_STORE ":", MAKE_STORE "chmod 0755 " STATE,
                    MAKE_STORE "chmod 0666 " STORE,
                    "mkdir -m 0700 " STATE " && touch " STORE " && chmod 0600 " STORE,
                    "mkdir -m 0700 " STATE " && echo nonsense > " STORE " && chmod 0600 " STORE,
                    MAKE_STORE "printf x > " STORE "-journal",
                    "echo x > /etc/krb5.keytab && chmod 0644 /etc/krb5.keytab && "
                    "rm " CONF "provider.conf",
                    "echo nonsense > " CONF "provider.conf && chmod 0600 " CONF "*provider.conf"));

} // namespace
} // namespace ctl_test
