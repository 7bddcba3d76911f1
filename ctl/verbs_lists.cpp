#include "verbs.h"

#include <algorithm>
#include <cstring>
#include <strings.h>

#include "directory_probe.h"
#include "host_store.h"
#include "output.h"

namespace ctl {

namespace {

template <typename Names>
std::string Joined(const Names& names, const char* between) {
    std::string text;
    for (const std::string& name : names) {
        text += (text.empty() ? "" : between) + OneLine(name);
    }
    return text;
}

/// Throws UsageError when a name stands twice in a list: one of the two is a slip.
template <typename Compare>
void RefuseTwins(const std::vector<std::string>& names, Compare compare) {
    for (auto name = names.begin(); name != names.end(); ++name) {
        const auto isTwin = [&](const std::string& earlier) {
            return compare(earlier.c_str(), name->c_str()) == 0;
        };
        if (std::any_of(names.begin(), name, isTwin)) {
            throw UsageError('\'' + *name + "' is named twice");
        }
    }
}

/// The answer to a verb that has set a list.
Answer Told(const std::vector<std::string>& names, const std::string& what, const char* key) {
    return {names.empty() ? "no " + what : what + ": " + Joined(names, ", "), {{key, names}}};
}

/// Changing a list asks no cached question, so the store's wait time does not matter.
constexpr int noWaitSeconds = 0;

constexpr const char* controllersKey = "preferredDomainControllers";
constexpr const char* servicesKey = "smartCardServices";

} // namespace

Answer GetDomainControllers(const Arguments& arguments) {
    const DirectoryProbe probe{std::chrono::seconds(arguments.timeoutSeconds)};
    const auto names = std::make_shared<std::deque<std::string>>();
    probe.Await(probe.AskPreferredDomainControllers(names));
    return {Joined(*names, "\n"), {{controllersKey, *names}, {"live", true}}};
}

Answer SetDomainControllers(const Arguments& arguments) {
    RefuseTwins(arguments.names, strcasecmp);
    // Not by the store's own operation: where the provider has none, that one only logs it.
    HostStore(noWaitSeconds)
        .Provider()
        .SetPreferredDomainControllers({arguments.names.begin(), arguments.names.end()});
    return Told(arguments.names, "preferred domain controllers", controllersKey);
}

Answer GetSmartCardServices(const Arguments& arguments) {
    const DirectoryProbe probe{std::chrono::seconds(arguments.timeoutSeconds)};
    const auto services = std::make_shared<std::vector<std::string>>();
    probe.Await(probe.AskSmartCardServices(services));
    return {Joined(*services, "\n"), {{servicesKey, *services}, {"live", true}}};
}

Answer SetSmartCardServices(const Arguments& arguments) {
    RefuseTwins(arguments.names, strcmp);
    HostStore(noWaitSeconds).SetSmartCardEnabledServices(arguments.names);
    return Told(arguments.names, "smart-card services", servicesKey);
}

} // namespace ctl
