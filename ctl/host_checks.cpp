#include "host_checks.h"

#include <algorithm>
#include <cerrno>
#include <memory>
#include <optional>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

#include "host_settings.h"
#include "path_rule.h"
#include "tesauth/configuration.h"
#include "tesauth/exceptions.h"
#include "tesauth/store_factory.h"

namespace ctl {

namespace auth = tessary::authentication;

namespace {

constexpr const char* settingsFolder = "/etc/tessary/tesauth";
constexpr const char* stateFolder = "/var/lib/tessary";
constexpr const char* storeFile = "/var/lib/tessary/configstore.db";
constexpr const char* keytab = "/etc/krb5.keytab";
constexpr const char* storeRemedy = "mv /var/lib/tessary/configstore.db "
                                    "/var/lib/tessary/configstore.db.old && tesauthctl join "
                                    "DOMAIN -U USER";

bool IsThere(const std::string& path) {
    struct stat status = {};
    return lstat(path.c_str(), &status) == 0 || errno != ENOENT;
}

/// Whether there is nothing at a path, links followed.
bool LeadsNowhere(const std::string& path) {
    struct stat status = {};
    return stat(path.c_str(), &status) != 0 && errno == ENOENT;
}

bool IsRegular(const std::string& path) {
    struct stat status = {};
    return stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode);
}

std::string Quoted(const std::string& text) {
    return '"' + text + '"';
}

/// One settings file: the class that reads it, the key that counts, and what its value means.
struct SettingsFile {
    const char* name;
    std::unique_ptr<auth::Configuration> (*read)();
    const char* key;
    const char* usual;                          ///< the value that a host is shipped with
    Finding (*judge)(const std::string& value); ///< all but `check`
};

Finding JudgeStore(const std::string& value) {
    const auto names = auth::AuthenticationStoreFactory().GetRegisteredStores();
    if (std::find(names.begin(), names.end(), value) != names.end()) {
        return {"", Severity::Ok, "the active store is " + Quoted(value), ""};
    }
    return {"", Severity::Failure,
            "the active store is " + Quoted(value) + ", which does not exist",
            "tesauthctl store activate NAME, with a name from `tesauthctl store list`"};
}

/// Whether the provider can be used is a check of its own.
Finding JudgeProvider(const std::string& value) {
    return {"", Severity::Ok,
            value.empty() ? "it names no directory provider"
                          : "the directory provider is " + Quoted(value),
            ""};
}

/// A host without such a client is in order: it only cannot join through a proxy.
Finding JudgeProxyProvider(const std::string& value) {
    const std::string file = "lib" + value + ".so";
    const bool isInstalled =
        IsThere("/usr/libexec/tesauth/lib64/" + file) || IsThere("/usr/libexec/tesauth/" + file);
    if (value.empty()) {
        return {"", Severity::Ok, "it names no authentication-proxy client", ""};
    }
    return {"", Severity::Ok,
            "the authentication-proxy client is " + Quoted(value) +
                (isInstalled ? "" : ", which is not installed"),
            ""};
}

template <typename T>
std::unique_ptr<auth::Configuration> Read() {
    return std::make_unique<T>();
}

const SettingsFile settingsFiles[] = {
    {"authentication.conf", Read<auth::AuthenticationConfiguration>, "remote-authentication-store",
     "None", JudgeStore},
    {"provider.conf", Read<auth::ProviderConfiguration>, "provider", "adldap", JudgeProvider},
    {"apxprovider.conf", Read<auth::APXProviderConfiguration>, "provider", "apxhttps",
     JudgeProxyProvider},
};

Finding JudgeContent(const SettingsFile& file, const std::string& writeAnew) {
    try {
        return file.judge((*file.read())[file.key]);
    } catch (const auth::IOError& failure) {
        return {"", Severity::Failure, failure.what(), writeAnew};
    } catch (const auth::Exception& failure) { // a line that is no assignment, or no such key
        return {"", Severity::Failure,
                std::string(settingsFolder) + '/' + file.name + ": " + failure.what(), writeAnew};
    }
}

void CheckSettings(const SettingsFile& file, const Report& report) {
    const std::string path = std::string(settingsFolder) + '/' + file.name;
    const std::string makeFolder =
        IsThere(settingsFolder) ? "" : std::string("mkdir -p ") + settingsFolder + " && ";
    const std::string writeAnew =
        makeFolder + "echo '" + file.key + " = " + Quoted(file.usual) + "' > " + path;
    if (!IsThere(path)) {
        report({file.name, Severity::Failure, path + " is missing", writeAnew});
        return;
    }
    const bool orderly = ReportPath(file.name, {path, 0022, "0644"}, report);
    if (!IsRegular(path)) {
        if (orderly) { // else that has been told
            report({file.name, Severity::Failure, path + " is no file",
                    "move it away, then " + writeAnew});
        }
        return;
    }
    if (access(path.c_str(), R_OK) != 0 && errno == EACCES) {
        report({file.name, Severity::Warning, "this user may not read " + path, asRoot});
        return;
    }
    Finding finding = JudgeContent(file, writeAnew);
    if (orderly || finding.severity != Severity::Ok) {
        finding.check = file.name;
        report(finding);
    }
}

/// Returns whether the folder is there and in order.
bool CheckStateFolder(const Report& report) {
    constexpr const char* check = "state folder";
    if (!IsThere(stateFolder)) {
        report({check, Severity::Ok, std::string(stateFolder) + " is not there yet", ""});
        return false;
    }
    const bool orderly = ReportPath(check, {stateFolder, 0077, "0700"}, report);
    if (orderly) {
        report({check, Severity::Ok, std::string(stateFolder) + " is root's alone", ""});
    }
    return orderly;
}

void CheckKeytab(const Report& report) {
    constexpr const char* check = "keytab's permissions";
    if (LeadsNowhere(keytab)) {
        report({check, Severity::Ok, std::string("there is no ") + keytab, ""});
    } else if (ReportPath(check, {keytab, 0077, "0600"}, report)) {
        report({check, Severity::Ok, std::string(keytab) + " is root's alone", ""});
    }
}

/// Why opening the configuration store would change something, if it would; opening it makes what
/// is missing and mends what was cut off.
std::optional<Finding> WhyNotOpened(const char* check, bool folderIsOrderly) {
    struct stat status = {};
    if (geteuid() != 0) {
        return Finding{check, Severity::Warning, "only root may read it", asRoot};
    }
    if (!IsThere(storeFile)) {
        return Finding{check, Severity::Ok, std::string(storeFile) + " is not there yet", ""};
    }
    if (!folderIsOrderly) {
        return Finding{check, Severity::Warning,
                       "it was not opened, since that would change the state folder's permissions",
                       "mend the state folder first"};
    }
    if (lstat(storeFile, &status) != 0 || !S_ISREG(status.st_mode)) {
        return Finding{check, Severity::Failure, std::string(storeFile) + " is no regular file",
                       storeRemedy};
    }
    if (status.st_size == 0) {
        return Finding{check, Severity::Ok, std::string(storeFile) + " is still empty", ""};
    }
    if (IsThere(std::string(storeFile) + "-journal")) {
        return Finding{check, Severity::Warning,
                       "a change to it is going on or was cut off; the next use settles that",
                       "tesauthctl status"};
    }
    return std::nullopt;
}

void CheckConfigurationStore(bool folderIsOrderly, const Report& report) {
    constexpr const char* check = "configuration store";
    if (const auto finding = WhyNotOpened(check, folderIsOrderly)) {
        report(*finding);
        return;
    }
    if (!ReportPath(check, {storeFile, 0077, "0600"}, report)) {
        return;
    }
    try {
        const std::string domain = ReadStoredDomain().name;
        report({check, Severity::Ok,
                domain.empty() ? "it opens, and no domain is on record"
                               : "it opens, and " + domain + " is on record",
                ""});
    } catch (const std::exception& failure) {
        report({check, Severity::Failure, failure.what(), storeRemedy});
    }
}

} // namespace

void CheckHostFiles(const Report& report) {
    for (const SettingsFile& file : settingsFiles) {
        CheckSettings(file, report);
    }
    CheckKeytab(report);
    const bool folderIsOrderly = CheckStateFolder(report);
    CheckConfigurationStore(folderIsOrderly, report);
}

} // namespace ctl
