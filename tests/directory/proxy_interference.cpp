#include "proxy_interference.h"

#include <dlfcn.h>
#include <krb5.h>
#include <ldap.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <utility>

namespace {

using interference::Point;

Point killAt = Point::None;
bool changed = false;
bool losesAnswer = false;
bool refuses = false;
std::string busyFor;
std::function<void()> beforeChange;
std::function<void()> afterChange;
std::string hidden;
std::atomic<int> searches{0};
std::atomic<int> logins{0};
std::atomic<int> ticketLife{0};
std::mutex logMutex;
std::vector<std::string> logged;

using ChangeCall = decltype(ldap_add_ext)*;

template <typename Function>
Function Real(const char* name) {
    return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

void Die() {
    kill(getpid(), SIGKILL);
}

/// Waits for the controller's answer and throws it away with the connection.
void LoseAnswer(LDAP* handle) {
    int socket = -1;
    ldap_get_option(handle, LDAP_OPT_DESC, &socket);
    pollfd waiting{socket, POLLIN, 0};
    poll(&waiting, 1, 10'000);
    char buffer[65536];
    while (recv(socket, buffer, sizeof buffer, MSG_DONTWAIT) > 0) {
    }
    shutdown(socket, SHUT_RDWR);
}

/// \return LDAP_SUCCESS when the change is to be sent
int BeforeChange(const char* dn) {
    if (killAt == Point::BeforeChange)
        Die();
    if (beforeChange)
        std::exchange(beforeChange, nullptr)();
    if (std::exchange(refuses, false))
        return LDAP_INSUFFICIENT_ACCESS;
    if (!busyFor.empty() && std::strstr(dn, busyFor.c_str()))
        return LDAP_BUSY;
    changed = true;
    return LDAP_SUCCESS;
}

int AfterChange(LDAP* handle, int result) {
    if (std::exchange(losesAnswer, false))
        LoseAnswer(handle);
    return result;
}

int Change(const char* name, LDAP* handle, const char* dn, LDAPMod** changes,
           LDAPControl** serverControls, LDAPControl** clientControls, int* message) {
    const int result = BeforeChange(dn);
    return result != LDAP_SUCCESS
               ? result
               : AfterChange(handle, Real<ChangeCall>(name)(handle, dn, changes, serverControls,
                                                            clientControls, message));
}

/// Whether something is to be hidden, and is part of this; then it is hidden no more.
bool Hides(const char* text) {
    if (hidden.empty() || !text || !std::strstr(text, hidden.c_str()))
        return false;
    hidden.clear();
    return true;
}

bool HidesOneOf(char** attributes) {
    for (char** attribute = attributes; attribute && *attribute; ++attribute)
        if (Hides(*attribute))
            return true;
    return false;
}

__attribute__((format(printf, 1, 0))) void Log(const char* format, va_list values) {
    char text[2048];
    std::vsnprintf(text, sizeof text, format, values);
    const std::lock_guard lock(logMutex);
    logged.emplace_back(text);
}

} // namespace

namespace interference {

void KillAt(Point point) {
    changed = false;
    killAt = point;
}

void LoseNextAnswer() {
    losesAnswer = true;
}

void RefuseNextChange() {
    refuses = true;
}

void BusyFor(const std::string& name) {
    busyFor = name;
}

void BeforeNextChange(std::function<void()> what) {
    beforeChange = std::move(what);
}

void AfterNextChange(std::function<void()> what) {
    changed = false;
    afterChange = std::move(what);
}

void HideOnce(const std::string& what) {
    hidden = what;
}

int Searches() {
    return searches;
}

int Logins() {
    return logins;
}

void SetTicketLife(int seconds) {
    ticketLife = seconds;
}

std::vector<std::string> TakeLog() {
    const std::lock_guard lock(logMutex);
    return std::exchange(logged, {});
}

} // namespace interference

extern "C" {

int ldap_add_ext(LDAP* handle, const char* dn, LDAPMod** attributes, LDAPControl** serverControls,
                 LDAPControl** clientControls, int* message) {
    return Change("ldap_add_ext", handle, dn, attributes, serverControls, clientControls, message);
}

int ldap_modify_ext(LDAP* handle, const char* dn, LDAPMod** changes, LDAPControl** serverControls,
                    LDAPControl** clientControls, int* message) {
    return Change("ldap_modify_ext", handle, dn, changes, serverControls, clientControls, message);
}

int ldap_delete_ext(LDAP* handle, const char* dn, LDAPControl** serverControls,
                    LDAPControl** clientControls, int* message) {
    const int result = BeforeChange(dn);
    return result != LDAP_SUCCESS
               ? result
               : AfterChange(handle, Real<decltype(ldap_delete_ext)*>("ldap_delete_ext")(
                                         handle, dn, serverControls, clientControls, message));
}

// The first thing that is asked after a change is what has come of it.
int ldap_search_ext(LDAP* handle, const char* base, int scope, const char* filter,
                    char** attributes, int namesOnly, LDAPControl** serverControls,
                    LDAPControl** clientControls, struct timeval* time, int limit, int* message) {
    if (killAt == Point::AfterChange && changed)
        Die();
    if (afterChange && changed)
        std::exchange(afterChange, nullptr)();
    searches += *base ? 1 : 0;
    if (Hides(base))
        base = "<GUID=00000000000000000000000000000001>";
    if (Hides(filter))
        filter = "(cn=hidden)";
    char none[] = LDAP_NO_ATTRS;
    char* nothing[] = {none, nullptr};
    if (HidesOneOf(attributes))
        attributes = nothing;
    return Real<decltype(ldap_search_ext)*>("ldap_search_ext")(
        handle, base, scope, filter, attributes, namesOnly, serverControls, clientControls, time,
        limit, message);
}

krb5_error_code krb5_init_creds_init(krb5_context context, krb5_principal client,
                                     krb5_prompter_fct prompter, void* data, krb5_deltat start,
                                     krb5_get_init_creds_opt* options,
                                     krb5_init_creds_context* request) {
    ++logins;
    if (ticketLife > 0)
        krb5_get_init_creds_opt_set_tkt_life(options, ticketLife);
    return Real<decltype(krb5_init_creds_init)*>("krb5_init_creds_init")(
        context, client, prompter, data, start, options, request);
}

// By these names, of which the second one is for programs that are built to be careful.
__attribute__((format(printf, 2, 3))) void syslog(int, const char* format, ...) {
    va_list values;
    va_start(values, format);
    Log(format, values);
    va_end(values);
}

__attribute__((format(printf, 3, 4))) void __syslog_chk(int, int, const char* format, ...) {
    va_list values;
    va_start(values, format);
    Log(format, values);
    va_end(values);
}
}
