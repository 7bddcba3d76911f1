#pragma once

#include <netdb.h>

#include <cstddef>
#include <ctime>
#include <functional>

/// Functions of the C library that a test can make fail, or end at once, on demand.
///
/// A test binary that links this defines them, and the library under test, like everything else in
/// the process, calls the binary's. Each goes on to the C library's own unless its hook is set.
namespace faults {

struct Hooks {
    /// Takes the place of sleep(); returns what sleep() is to return.
    std::function<unsigned(unsigned seconds)> sleep;
    /// What pthread_create() returns; 0 goes on to the real one.
    std::function<int()> createThread;
    /// What pthread_cond_timedwait() returns; negative goes on to the real one.
    std::function<int(const timespec& deadline)> waitOnCondition;
    /// Take the place of the functions.
    std::function<int(char* name, std::size_t size)> getHostName;
    std::function<int(const char* name, hostent** result, int* error)> resolveReentrantly;
    /// Sees each call of syslog(), which goes on to the real one.
    std::function<void(int priority, const char* format)> seeLog;
    /// The errno that a call of this path fails with; 0 goes on to the real one.
    std::function<int(const char*path)> chmod, stat, rename, mkstemp;
};

/// Set while only one thread runs.
extern Hooks hooks;

/// Takes all hooks away at the end of a scope.
class Scope {
public:
    Scope() = default;
    ~Scope() { hooks = Hooks(); }
    Scope(const Scope&) = delete;
    Scope& operator=(const Scope&) = delete;
};

} // namespace faults
