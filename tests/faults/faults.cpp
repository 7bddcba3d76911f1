#include "faults.h"

#include <dlfcn.h>
#include <pthread.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>

#define INTERPOSED extern "C" __attribute__((visibility("default")))

namespace faults {

Hooks hooks;

namespace {

/// The function of that name that would be called without this file.
template <typename Function>
Function* Real(Function*, const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

/// Whether a call of this path is to fail; errno is set then.
bool Fails(const std::function<int(const char*)>& hook, const char* path) {
    const int error = hook ? hook(path) : 0;
    if (error != 0) {
        errno = error;
    }
    return error != 0;
}

} // namespace

} // namespace faults

using faults::Fails;
using faults::hooks;
using faults::Real;

INTERPOSED unsigned sleep(unsigned seconds) {
    return hooks.sleep ? hooks.sleep(seconds) : Real(&sleep, "sleep")(seconds);
}

INTERPOSED int pthread_create(pthread_t* thread, const pthread_attr_t* attributes,
                              void* (*start)(void*), void* argument) {
    const int problem = hooks.createThread ? hooks.createThread() : 0;
    static auto* const real = Real(&pthread_create, "pthread_create");
    return problem != 0 ? problem : real(thread, attributes, start, argument);
}

INTERPOSED int pthread_cond_timedwait(pthread_cond_t* condition, pthread_mutex_t* mutex,
                                      const timespec* deadline) {
    const int result = hooks.waitOnCondition ? hooks.waitOnCondition(*deadline) : -1;
    static auto* const real = Real(&pthread_cond_timedwait, "pthread_cond_timedwait");
    return result >= 0 ? result : real(condition, mutex, deadline);
}

INTERPOSED int gethostname(char* name, std::size_t size) noexcept {
    return hooks.getHostName ? hooks.getHostName(name, size)
                             : Real(&gethostname, "gethostname")(name, size);
}

INTERPOSED int gethostbyname_r(const char* name, hostent* entry, char* buffer, std::size_t size,
                               hostent** result, int* error) {
    return hooks.resolveReentrantly ? hooks.resolveReentrantly(name, result, error)
                                    : Real(&gethostbyname_r, "gethostbyname_r")(
                                          name, entry, buffer, size, result, error);
}

INTERPOSED int chmod(const char* path, mode_t mode) noexcept {
    return Fails(hooks.chmod, path) ? -1 : Real(&chmod, "chmod")(path, mode);
}

INTERPOSED int stat(const char* path, struct stat* status) noexcept {
    using Stat = int(const char*, struct stat*);
    return Fails(hooks.stat, path) ? -1 : Real(static_cast<Stat*>(nullptr), "stat")(path, status);
}

INTERPOSED int rename(const char* from, const char* to) noexcept {
    return Fails(hooks.rename, from) ? -1 : Real(&rename, "rename")(from, to);
}

INTERPOSED int mkstemp(char* path) {
    return Fails(hooks.mkstemp, path) ? -1 : Real(&mkstemp, "mkstemp")(path);
}

INTERPOSED void syslog(int priority, const char* format, ...) {
    if (hooks.seeLog) {
        hooks.seeLog(priority, format);
    }
    va_list arguments;
    va_start(arguments, format);
    vsyslog(priority, format, arguments);
    va_end(arguments);
}
