#include "directory_diagnosis.h"

#include <condition_variable>
#include <deque>
#include <dlfcn.h>
#include <mutex>
#include <system_error>
#include <thread>

#include "host_store.h"
#include "path_rule.h"
#include "tesauth/configuration.h"
#include "tesauth/exceptions.h"

namespace ctl {

namespace auth = tessary::authentication;

namespace {

constexpr const char* directoryCheck = "directory";
constexpr const char* providerCheck = "provider";

/// What the provider has found and nobody has told yet. The provider's thread may outlive whoever
/// waits for it.
class Findings {
public:
    void Add(const Finding& finding) {
        const std::lock_guard guard(lock_);
        waiting_.push_back(finding);
        changed_.notify_one();
    }

    void End() {
        const std::lock_guard guard(lock_);
        ended_ = true;
        changed_.notify_one();
    }

    /// Reports until the end; false when the deadline comes first.
    bool ReportAll(std::chrono::steady_clock::time_point deadline, const Report& report) {
        std::unique_lock guard(lock_);
        for (;;) {
            if (!changed_.wait_until(guard, deadline,
                                     [&] { return ended_ || !waiting_.empty(); })) {
                return false;
            }
            if (waiting_.empty()) {
                return true;
            }
            const Finding finding = std::move(waiting_.front());
            waiting_.pop_front();
            guard.unlock();
            report(finding);
            guard.lock();
        }
    }

private:
    std::mutex lock_;
    std::condition_variable changed_;
    std::deque<Finding> waiting_;
    bool ended_ = false;
};

void Look(const Maintenance& maintenance, const std::string& domain, Findings& findings) {
    const uint32_t status =
        maintenance.Diagnose(domain, [&](const Finding& finding) { findings.Add(finding); });
    if (status != 0) {
        const std::string cause = maintenance.DescribeFailure(status);
        findings.Add({directoryCheck, Severity::Failure,
                      "the provider broke off with status " + std::to_string(status) +
                          (cause.empty() ? "" : ": " + cause),
                      "mend what is said above, then run `tesauthctl diagnose` again"});
    }
    findings.End();
}

/// The file that the loaded provider comes from.
std::string FileOfProvider() {
    Dl_info info = {};
    const void* symbol = dlsym(RTLD_DEFAULT, "ActiveDirectoryClientOperations");
    return symbol != nullptr && dladdr(symbol, &info) != 0 ? info.dli_fname : "";
}

std::string MaintenanceText() {
    const auto version = Maintenance::VersionOfLoadedProvider();
    if (!version) {
        return "without maintenance";
    }
    return "maintenance version " + std::to_string(*version) +
           (*version == TESAUTH_MAINTENANCE_API_VERSION ? "" : ", which this command cannot use");
}

std::string RemedyFor(const std::string& provider) {
    const std::string nameAnother =
        "echo 'provider = \"adldap\"' > /etc/tessary/tesauth/provider.conf";
    return provider.empty()
               ? nameAnother
               : "install lib" + provider +
                     ".so in /usr/libexec/tesauth/, or name another provider: " + nameAnother;
}

/// For what cannot be looked at since something else is not in order.
Finding NotLookedAt(const char* check, const char* other) {
    return {check, Severity::Warning, std::string("not looked at: see ") + other, ""};
}

/// What provider.conf says; nothing when it cannot be read, parsed, or lacks its key.
std::optional<std::string> NamedProvider() {
    try {
        return auth::ProviderConfiguration()["provider"];
    } catch (const auth::Exception&) {
        return std::nullopt;
    }
}

} // namespace

LoadedProvider LoadProvider() {
    LoadedProvider loaded;
    loaded.name = NamedProvider();
    if (!loaded.name) {
        return loaded;
    }
    if (loaded.name->empty()) {
        loaded.whyNot = "the settings name no provider";
        return loaded;
    }
    try {
        loaded.provider = std::make_shared<auth::ActiveDirectoryProvider>(*loaded.name);
        KeepLoaded(loaded.provider);
        loaded.maintenance = Maintenance::OfLoadedProvider();
    } catch (const auth::Exception& failure) {
        loaded.whyNot = failure.what();
    }
    return loaded;
}

void DiagnoseDirectory(const LoadedProvider& loaded, const std::string& domain,
                       std::chrono::seconds limit, const Report& report) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    if (loaded.provider == nullptr) {
        report(NotLookedAt(directoryCheck, providerCheck));
        return;
    }
    if (!loaded.maintenance || !loaded.maintenance->CanDiagnose()) {
        report({directoryCheck, Severity::Warning,
                "it was not looked at: the provider '" + *loaded.name + "' offers no diagnosis",
                "`tesauthctl status` shows how the provider answers"});
        return;
    }
    const auto findings = std::make_shared<Findings>();
    try {
        std::thread([findings, domain, maintenance = *loaded.maintenance] {
            Look(maintenance, domain, *findings);
        }).detach();
    } catch (const std::system_error& failure) {
        report(
            {directoryCheck, Severity::Failure,
             std::string("it was not looked at: the host cannot start a thread: ") + failure.what(),
             "end other processes, then run `tesauthctl diagnose` again"});
        return;
    }
    if (!findings->ReportAll(deadline, report)) {
        report({directoryCheck, Severity::Failure,
                "the provider did not finish within " + std::to_string(limit.count()) +
                    " s: its further checks are missing here",
                "a longer --timeout waits longer"});
    }
}

void CheckProvider(const LoadedProvider& loaded, const Report& report) {
    if (!loaded.name) {
        report(NotLookedAt(providerCheck, "provider.conf"));
        return;
    }
    if (loaded.provider == nullptr) {
        report({providerCheck, Severity::Failure, loaded.whyNot, RemedyFor(*loaded.name)});
        return;
    }
    const std::string file = FileOfProvider();
    const bool orderly = ReportPath(providerCheck, {file, 0022, "go-w"}, report);
    if (orderly) {
        report({providerCheck, Severity::Ok,
                *loaded.name + ", interface version " +
                    std::to_string(loaded.provider->GetAPIVersion()) + ", " + MaintenanceText() +
                    ", " + file,
                ""});
    }
}

} // namespace ctl
