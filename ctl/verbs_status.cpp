#include "verbs.h"

#include "directory_probe.h"
#include "host_settings.h"
#include "names.h"
#include "output.h"
#include "tesauth/exceptions.h"

namespace ctl {

namespace auth = tessary::authentication;

namespace {

/// Something that the provider was asked. It is live when the provider answered in time, be it with
/// a failure.
template <typename T>
struct Answered {
    T value{};
    bool live = false;
    std::optional<Failure> failure = std::nullopt;
};

struct Status {
    std::string store;
    StoredDomain stored;
    std::string whyNotLive;
    std::optional<Failure> noProvider;
    Answered<auth::ActiveDirectoryStoreConfiguration> configuration;
    Answered<std::string> controller;
    Answered<TrustState> trust;

    /// The provider knows, when it answers; until then what the host has stored counts.
    const std::string& Domain() const {
        return configuration.live ? configuration.value.dnsDomainName : stored.name;
    }
    bool Joined() const { return !Domain().empty(); }
};

/// Waits for a request; `read` gives the value that it answered with.
template <typename T, typename Reader>
void Await(const DirectoryProbe& probe, const DirectoryProbe::Request& request,
           Answered<T>& answered, Reader read) {
    try {
        probe.Await(request);
        answered.value = read();
        answered.live = true;
    } catch (const auth::ProviderCallTimedOutException&) {
        answered.live = false;
    } catch (const auth::Exception&) {
        answered.live = true;
        answered.failure = DescribeFailure(std::current_exception());
    }
}

/// The trust state by the store's own rules: the trusted domains are asked for first, and when they
/// cannot be found the host is not joined. No other failure to get them counts.
void AwaitTrustState(const DirectoryProbe& probe, const DirectoryProbe::Request& trustedDomains,
                     const DirectoryProbe::Request& state, Answered<TrustState>& trust) {
    try {
        probe.Await(trustedDomains);
    } catch (const auth::FileNotFoundException&) {
        trust = {TrustStateNotJoined, true};
        return;
    } catch (const auth::Exception&) {
        trust.value = TrustStateUnknown;
    }
    Await(probe, state, trust, [&] { return probe.State(); });
    if (!trust.live) {
        trust.value = TrustStateTimedOut;
    }
}

void AskDirectory(const DirectoryProbe& probe, Status& status) {
    const auto name = std::make_shared<std::string>();
    const auto readName = [&] { return *name; };
    const auto configuration = probe.AskConfiguration();
    const auto trustedDomains = probe.AskTrustedDomains();
    const auto state = probe.AskTrustState();
    DirectoryProbe::Request controller;
    if (!status.stored.name.empty()) {
        controller = probe.AskDomainController(status.stored.name, name);
    }
    Await(probe, configuration, status.configuration, [&] { return probe.Configuration(); });
    if (controller == nullptr && status.Joined()) {
        controller = probe.AskDomainController(status.Domain(), name);
    }
    AwaitTrustState(probe, trustedDomains, state, status.trust);
    if (controller != nullptr) {
        Await(probe, controller, status.controller, readName);
    }
}

Status Collect(const Arguments& arguments) {
    Status status;
    status.store = ActiveStoreName();
    status.stored = ReadStoredDomain();
    status.whyNotLive = "no answer within " + std::to_string(arguments.timeoutSeconds) + " s";
    try {
        AskDirectory(DirectoryProbe(std::chrono::seconds(arguments.timeoutSeconds)), status);
    } catch (const auth::InvalidActiveDirectoryProviderException& failure) {
        status.noProvider = DescribeFailure(std::current_exception());
        status.whyNotLive = failure.what();
        status.trust.value = status.Joined() ? TrustStateUnknown : TrustStateNotJoined;
    }
    return status;
}

std::string Told(const Failure& failure) {
    return failure.text + (failure.cause.empty() ? "" : " (" + failure.cause + ")");
}

template <typename T>
std::string Marked(const std::string& value, const Answered<T>& answered,
                   const std::string& whyNotLive) {
    if (answered.live) {
        return answered.failure ? "none: " + Told(*answered.failure) : value;
    }
    return value + (value.empty() ? "" : " ") + "(not live: " + whyNotLive + ")";
}

std::string Joined(const std::deque<std::string>& names) {
    std::string text;
    for (const std::string& name : names) {
        text += (text.empty() ? "" : ", ") + name;
    }
    return text;
}

std::string ToText(const Status& status) {
    const auto& configuration = status.configuration;
    const auto told = [&](const std::string& value, const char* ifEmpty) {
        return Marked(configuration.live && value.empty() ? ifEmpty : value, configuration,
                      status.whyNotLive);
    };
    Table table;
    table.Add("store", status.store);
    if (!status.Joined()) {
        const std::string leftOver =
            status.stored.name.empty()
                ? ""
                : " (" + status.stored.name + " is still on record; `tesauthctl leave` clears it)";
        table.Add("domain", Marked("not joined" + leftOver, configuration, status.whyNotLive));
        return table.Text();
    }
    table.Add("domain", status.Domain());
    table.Add("NetBIOS name", told(configuration.value.netbiosDomainName, "unknown"));
    table.Add("organisational unit", status.stored.organizationalUnit.empty()
                                         ? "default"
                                         : status.stored.organizationalUnit);
    table.Add("machine account", told(configuration.value.machineAccountDN, "unknown"));
    table.Add("preferred domain controllers",
              told(Joined(configuration.value.preferredDomainControllers), "none"));
    table.Add("domain controller",
              Marked(status.controller.value, status.controller, status.whyNotLive));
    table.Add("trust state", Marked(NameOf(status.trust.value), status.trust, status.whyNotLive));
    return table.Text();
}

Json Errors(const Status& status) {
    Json errors = Json::object();
    const auto add = [&](const char* key, const std::optional<Failure>& failure) {
        if (failure) {
            errors[key] = ToJson(*failure);
        }
    };
    add("provider", status.noProvider);
    add("domainController", status.controller.failure);
    add("trustState", status.trust.failure);
    return errors;
}

Json ToJson(const Status& status) {
    const auto& configuration = status.configuration.value;
    const bool known = status.configuration.live;
    return {{"store", status.store},
            {"joined", status.Joined()},
            {"domain", TextOrNull(status.Domain())},
            {"netbios", TextOrNull(configuration.netbiosDomainName)},
            {"organizationalUnit", TextOrNull(status.stored.organizationalUnit)},
            {"machineAccount", TextOrNull(configuration.machineAccountDN)},
            {"preferredDomainControllers", Json(configuration.preferredDomainControllers)},
            {"domainController", TextOrNull(status.controller.value)},
            {"trustState",
             {{"value", static_cast<uint32_t>(status.trust.value)},
              {"name", NameOf(status.trust.value)},
              {"live", status.trust.live}}},
            {"live",
             {{"netbios", known},
              {"machineAccount", known},
              {"preferredDomainControllers", known},
              {"domainController", status.controller.live},
              {"trustState", status.trust.live}}},
            {"errors", Errors(status)}};
}

} // namespace

Answer ShowStatus(const Arguments& arguments) {
    const Status status = Collect(arguments);
    Answer answer = {ToText(status), ToJson(status)};
    // A host without a provider is a host that is not joined, and nothing is wrong with that.
    if (status.noProvider &&
        (status.Joined() || status.noProvider->exitCode == ExitCode::NotPermitted)) {
        answer.failure = status.noProvider;
    }
    return answer;
}

} // namespace ctl
