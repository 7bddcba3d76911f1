#include "verbs.h"

#include <chrono>
#include <functional>
#include <future>
#include <thread>
#include <unistd.h>

#include "directory_probe.h"
#include "host_settings.h"
#include "hostctl/host.h"
#include "output.h"
#include "tesauth/active_directory_store.h"
#include "tesauth/config_store.h"

namespace ctl {

namespace auth = tessary::authentication;

namespace {

constexpr std::chrono::seconds reportInterval(5);
constexpr std::chrono::seconds retryInterval(30);
constexpr const char* retryHint =
    "; a join that the directory refuses for the moment is tried 4 times, 30 s apart";

/// For what joining and leaving ask on the side.
constexpr int queryWaitSeconds = 10;

/// Runs the work on a thread and, where a person is looking, says every now and then that it is
/// still going on. What has taken this long is a join that waits before it tries again.
void RunReported(const std::string& whatGoesOn, std::function<void()> work) {
    std::packaged_task<void()> task(std::move(work));
    std::future<void> done = task.get_future();
    std::thread worker(std::move(task));
    if (isatty(STDERR_FILENO)) {
        for (auto passed = reportInterval;
             done.wait_for(reportInterval) == std::future_status::timeout;
             passed += reportInterval) {
            Notify("still " + whatGoesOn + " (" + std::to_string(passed.count()) + " s)" +
                   (passed < retryInterval ? "" : retryHint));
        }
    }
    worker.join();
    done.get();
}

/// The domain that the host is in, as far as it can be told without a controller.
std::string CurrentDomain() {
    const StoredDomain stored = ReadStoredDomain();
    if (!stored.name.empty()) {
        return stored.name;
    }
    const DirectoryProbe probe{std::chrono::seconds(queryWaitSeconds)};
    try {
        probe.Await(probe.AskConfiguration());
    } catch (const auth::Exception&) {
        return ""; // only the answer's wording depends on it
    }
    return probe.Configuration().dnsDomainName;
}

void JoinAs(auth::ActiveDirectoryStore& store, const Arguments& arguments,
            const Password& password) {
    try {
        store.JoinDomain(arguments.domain, {arguments.user.c_str(), password.Text()},
                         arguments.skipHostnameCheck);
    } catch (const HostCtl::Lib::HostCtlException& failure) {
        throw HintedError(failure.what(), "this came up while the host's name was checked; "
                                          "--skip-hostname-check joins without that");
    }
}

void LeaveAs(auth::ActiveDirectoryStore& store, const std::string& user, const Password& password) {
    store.PartDomain({user.c_str(), password.Text()});
    // The library keeps what it has stored about the domain here; who leaves wants it forgotten.
    auth::ActiveDirectoryConfigStore().RemoveDomainInfo();
}

Json TextOrNull(const std::string& text) {
    return text.empty() ? Json() : Json(text);
}

} // namespace

Answer Join(const Arguments& arguments) {
    const auto slash = arguments.domain.find('/');
    const std::string domain = arguments.domain.substr(0, slash);
    if (domain.empty()) {
        throw UsageError("the domain's name is empty");
    }
    Password password;
    ReadPassword(arguments.password, arguments.user, password);
    auth::ActiveDirectoryStore store(queryWaitSeconds);
    RunReported("joining " + domain, [&] { JoinAs(store, arguments, password); });
    const std::string unit = slash == std::string::npos ? "" : arguments.domain.substr(slash + 1);
    return {"joined " + domain, {{"joined", domain}, {"organizationalUnit", TextOrNull(unit)}}};
}

Answer Leave(const Arguments& arguments) {
    Password password;
    if (!arguments.user.empty()) {
        ReadPassword(arguments.password, arguments.user, password);
    }
    auth::ActiveDirectoryStore store(queryWaitSeconds);
    const std::string domain = CurrentDomain();
    RunReported("leaving " + (domain.empty() ? "the domain" : domain), [&] {
        if (arguments.user.empty()) {
            store.PartDomain();
        } else {
            LeaveAs(store, arguments.user, password);
        }
    });
    return {domain.empty() ? "the host was not joined to a domain" : "left " + domain,
            {{"left", TextOrNull(domain)}}};
}

} // namespace ctl
