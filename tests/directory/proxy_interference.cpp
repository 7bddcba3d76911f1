#include "proxy_interference.h"

#include <dlfcn.h>
#include <ldap.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <utility>

namespace {

using interference::Point;

Point killAt = Point::None;
bool changed = false;
bool losesAnswer = false;
bool refuses = false;
std::string busyFor;
std::function<void()> afterChange;
std::atomic<int> searches{0};

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

int Change(const char* name, LDAP* handle, const char* dn, LDAPMod** changes,
           LDAPControl** serverControls, LDAPControl** clientControls, int* message) {
    if (killAt == Point::BeforeChange)
        Die();
    if (refuses) {
        refuses = false;
        return LDAP_INSUFFICIENT_ACCESS;
    }
    if (!busyFor.empty() && std::string(dn).find(busyFor) != std::string::npos)
        return LDAP_BUSY;
    changed = true;
    const int result =
        Real<ChangeCall>(name)(handle, dn, changes, serverControls, clientControls, message);
    if (losesAnswer) {
        losesAnswer = false;
        LoseAnswer(handle);
    }
    return result;
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

void AfterNextChange(std::function<void()> what) {
    changed = false;
    afterChange = std::move(what);
}

int Searches() {
    return searches;
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

// The first thing that is asked after a change is what has come of it.
int ldap_search_ext(LDAP* handle, const char* base, int scope, const char* filter,
                    char** attributes, int namesOnly, LDAPControl** serverControls,
                    LDAPControl** clientControls, struct timeval* time, int limit, int* message) {
    if (killAt == Point::AfterChange && changed)
        Die();
    if (afterChange && changed)
        std::exchange(afterChange, nullptr)();
    searches += *base ? 1 : 0;
    return Real<decltype(ldap_search_ext)*>("ldap_search_ext")(
        handle, base, scope, filter, attributes, namesOnly, serverControls, clientControls, time,
        limit, message);
}
}
