// The calls of other libraries that the library under test makes, with what happens to them.

#include "lab_key_rotation.h"

#include <dlfcn.h>

#include <utility>

namespace lab_key_rotation {

std::function<krb5_error_code(const std::function<krb5_error_code()>& real, int* result)> atChange;
std::string askedFor;
std::function<void()> afterModify;
std::function<void()> beforeLogin;
int wrongSalts = 0;
std::chrono::seconds timePassed{0};

} // namespace lab_key_rotation

using namespace lab_key_rotation;

// The library under test calls these in place of the ones it was linked with.
extern "C" __attribute__((visibility("default"))) krb5_error_code
krb5_change_password(krb5_context context, krb5_creds* credentials, const char* password,
                     int* result, krb5_data* resultName, krb5_data* explanation) {
    static const auto real =
        reinterpret_cast<decltype(&krb5_change_password)>(dlsym(RTLD_NEXT, "krb5_change_password"));
    askedFor = password;
    const auto call = [&] {
        return real(context, credentials, password, result, resultName, explanation);
    };
    return atChange ? atChange(call, result) : call();
}

extern "C" __attribute__((visibility("default"))) krb5_error_code
krb5_c_string_to_key_with_params(krb5_context context, krb5_enctype type, const krb5_data* password,
                                 const krb5_data* salt, const krb5_data* parameters,
                                 krb5_keyblock* key) {
    static const auto real = reinterpret_cast<decltype(&krb5_c_string_to_key_with_params)>(
        dlsym(RTLD_NEXT, "krb5_c_string_to_key_with_params"));
    krb5_data used = *salt;
    const bool ofHost =
        std::string(salt->data, salt->length).find("hosthost1") != std::string::npos;
    if (ofHost && wrongSalts > 0 && wrongSalts--)
        --used.length;
    return real(context, type, password, &used, parameters, key);
}

extern "C" __attribute__((visibility("default"))) int
ldap_modify_ext(LDAP* handle, const char* dn, LDAPMod** changes, LDAPControl** serverControls,
                LDAPControl** clientControls, int* message) {
    static const auto real =
        reinterpret_cast<decltype(&ldap_modify_ext)>(dlsym(RTLD_NEXT, "ldap_modify_ext"));
    const int code = real(handle, dn, changes, serverControls, clientControls, message);
    if (afterModify)
        afterModify();
    return code;
}

extern "C" __attribute__((visibility("default"))) krb5_error_code
krb5_init_creds_set_keytab(krb5_context context, krb5_init_creds_context request,
                           krb5_keytab keytab) {
    static const auto real = reinterpret_cast<decltype(&krb5_init_creds_set_keytab)>(
        dlsym(RTLD_NEXT, "krb5_init_creds_set_keytab"));
    if (const auto once = std::exchange(beforeLogin, nullptr))
        once();
    return real(context, request, keytab);
}

extern "C" __attribute__((visibility("default"))) int clock_gettime(clockid_t clock,
                                                                    timespec* time) noexcept {
    static const auto real =
        reinterpret_cast<decltype(&clock_gettime)>(dlsym(RTLD_NEXT, "clock_gettime"));
    const int result = real(clock, time);
    if (clock == CLOCK_MONOTONIC)
        time->tv_sec += timePassed.count();
    return result;
}
