#include "kerberos_profile.h"

#include "error.h"

#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <memory>
#include <new>
#include <string_view>
#include <vector>

namespace tessary::directory {
namespace {

/// What differs from context to context.
struct Particulars {
    std::string realm;
    std::string passwordServer;
};

struct Setting {
    std::initializer_list<const char*> path;
    const char* value; // null: `particular`
    std::string Particulars::*particular = nullptr;
};

constexpr char anyName[] = "*";
constexpr char aes[] = "aes256-cts-hmac-sha1-96 aes128-cts-hmac-sha1-96";

const Setting settings[] = {
    {{"libdefaults", "default_realm"}, nullptr, &Particulars::realm},
    {{"libdefaults", "dns_lookup_kdc"}, "false"},
    {{"libdefaults", "dns_lookup_realm"}, "false"},
    {{"libdefaults", "dns_uri_lookup"}, "false"},
    {{"libdefaults", "dns_canonicalize_hostname"}, "false"},
    {{"libdefaults", "rdns"}, "false"},
    {{"libdefaults", "permitted_enctypes"}, aes},
    {{"libdefaults", "default_tkt_enctypes"}, aes},
    {{"libdefaults", "default_tgs_enctypes"}, aes},
    // A host whose clock is off is told so, not carried over its first login by the controller's
    // clock: it would be unusable afterwards.
    {{"libdefaults", "kdc_timesync"}, "0"},
    {{"libdefaults", "clockskew"}, "300"},
    // Built in; the others are separate modules for other ways to log in.
    {{"plugins", "clpreauth", "enable_only"}, "encrypted_timestamp"},
    // Every realm has an address that is never used: the library wants to see one before it calls
    // the function that does the exchange in its place.
    {{"realms", anyName, "kdc"}, "127.0.0.1"},
    {{"realms", anyName, "kpasswd_server"}, nullptr, &Particulars::passwordServer},
};

bool SamePath(const char* const* names, const std::initializer_list<const char*>& path) {
    for (const char* name : path) {
        if (!*names || (name != anyName && std::strcmp(*names, name) != 0))
            return false;
        ++names;
    }
    return !*names;
}

long GetValues(void* particulars, const char* const* names, char*** result) {
    for (const Setting& setting : settings) {
        if (!SamePath(names, setting.path))
            continue;
        const char* value =
            setting.value
                ? setting.value
                : (static_cast<const Particulars*>(particulars)->*setting.particular).c_str();
        if (!*value)
            return PROF_NO_RELATION;
        const auto values = static_cast<char**>(std::calloc(2, sizeof(char*)));
        if (!values)
            return ENOMEM;
        values[0] = strdup(value);
        if (!values[0]) {
            std::free(values);
            return ENOMEM;
        }
        *result = values;
        return 0;
    }
    return PROF_NO_RELATION;
}

void FreeValues(void*, char** values) {
    for (char** value = values; value && *value; ++value)
        std::free(*value);
    std::free(values);
}

void Cleanup(void* particulars) {
    delete static_cast<Particulars*>(particulars);
}

long Copy(void* particulars, void** copy) {
    *copy = new (std::nothrow) Particulars(*static_cast<const Particulars*>(particulars));
    return *copy ? 0 : ENOMEM;
}

struct ProfileDeleter {
    void operator()(profile_t profile) const { profile_release(profile); }
};

} // namespace

krb5_context MakeKerberosContext(const std::string& realm, const std::string& passwordServer) {
    profile_vtable table{};
    table.minor_ver = 1;
    table.get_values = GetValues;
    table.free_values = FreeValues;
    table.cleanup = Cleanup;
    table.copy = Copy;

    auto data = std::make_unique<Particulars>(Particulars{realm, passwordServer});
    profile_t profile = nullptr;
    long code = profile_init_vtable(&table, data.get(), &profile);
    if (code != 0)
        throw Error(code == ENOMEM ? Status::NotEnoughMemory : Status::InternalError,
                    "cannot set up Kerberos");
    static_cast<void>(data.release()); // the profile's now
    const std::unique_ptr<std::remove_pointer_t<profile_t>, ProfileDeleter> owned(profile);

    krb5_context context = nullptr;
    code = krb5_init_context_profile(profile, KRB5_INIT_CONTEXT_SECURE, &context);
    if (code != 0)
        throw Error(code == ENOMEM ? Status::NotEnoughMemory : Status::InternalError,
                    "cannot set up Kerberos");
    return context;
}

} // namespace tessary::directory
