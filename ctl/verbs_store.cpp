#include "verbs.h"

#include "host_settings.h"
#include "tesauth/active_directory_store.h"
#include "tesauth/exceptions.h"
#include "tesauth/store_factory.h"

namespace ctl {

namespace auth = tessary::authentication;

namespace {

/// A store that becomes active or inactive asks the directory for everything, to fill a cache that
/// ends with this process. So it is not given long for it.
constexpr int cacheFillSeconds = 2;

void WaitLittle(auth::AuthenticationStoreFactory& factory) {
    factory.RegisterType("Active Directory", [] {
        return std::make_unique<auth::ActiveDirectoryStore>(cacheFillSeconds);
    });
}

std::string QuotedNames(const std::vector<std::string>& names) {
    std::string text;
    for (const std::string& name : names) {
        text += (text.empty() ? "\"" : ", \"") + name + '"';
    }
    return text;
}

/// Activates the store. When that failed after the choice was recorded, the caller learns it.
void Activate(auth::AuthenticationStore& store) {
    try {
        store.MakeActive();
    } catch (const std::exception& failure) {
        if (!store.IsActive()) {
            throw;
        }
        throw HintedError(failure.what(),
                          '"' + store.GetDisplayName() +
                              "\" is recorded as the active store; only the store that was active "
                              "before could not be torn down");
    }
}

} // namespace

Answer ListStores(const Arguments&) {
    const std::string active = ActiveStoreName();
    Answer answer = {"", {{"stores", Json::array()}}};
    for (const std::string& name : auth::AuthenticationStoreFactory().GetRegisteredStores()) {
        const bool isActive = name == active;
        answer.text +=
            (answer.text.empty() ? "" : "\n") + std::string(isActive ? "* " : "  ") + name;
        answer.json["stores"].push_back({{"name", name}, {"active", isActive}});
    }
    return answer;
}

Answer ShowStore(const Arguments&) {
    const std::string active = ActiveStoreName();
    return {active, {{"store", active}}};
}

Answer ActivateStore(const Arguments& arguments) {
    auth::AuthenticationStoreFactory factory;
    WaitLittle(factory);
    const auto store = factory.CreateInstance(arguments.name);
    if (store == nullptr) {
        throw HintedError(auth::UnknownRemoteAuthenticationStoreException(arguments.name).what(),
                          "the stores are " + QuotedNames(factory.GetRegisteredStores()));
    }
    Activate(*store);
    return {"activated " + arguments.name, {{"store", arguments.name}}};
}

} // namespace ctl
