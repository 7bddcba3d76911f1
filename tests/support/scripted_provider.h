/// How a test drives the scripted directory provider, which see.
///
/// A test in the same process finds the API by name, since the library opens plug-ins for all to
/// see: dlsym(RTLD_DEFAULT, "scripted_provider"). What is set and recorded lives as long as the
/// plug-in is loaded; a test that wants more than that keeps it loaded with a dlopen of its own.
/// All functions may be called from any thread. An unknown key or operation ends the process.
#ifndef TESAUTH_TESTS_SCRIPTED_PROVIDER_H
#define TESAUTH_TESTS_SCRIPTED_PROVIDER_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

struct ScriptedProvider {
    /// Sets one key as a line of the script file does; scripted_provider.c lists the keys.
    void (*set)(const char* key, const char* value);
    /// Back to the state after loading without a script: a host joined to corp.example. Forgets
    /// what was recorded and lets go of the calls that hang.
    void (*reset)(void);
    /// How often an operation has been entered.
    unsigned (*calls)(const char* operation);
    /// How many calls of an operation are running now.
    unsigned (*running)(const char* operation);
    /// How often a call was entered while another one with the same first argument was running.
    unsigned (*overlaps)(const char* operation);
    /// Waits, at most ten seconds, until an operation has been entered that often, or has been
    /// left that often; zero when the time ran out.
    int (*waitForCalls)(const char* operation, unsigned calls);
    int (*waitForReturns)(const char* operation, unsigned returns);
    /// One argument of one call, both counted from 0, as a copy that lasts until reset(). Null for
    /// an argument that was null and for one that was not there; argumentCount tells which. The
    /// fields of a record and the elements of an array count as arguments of their own.
    const char* (*argument)(const char* operation, unsigned call, unsigned index);
    unsigned (*argumentCount)(const char* operation, unsigned call);
    /// The address of the credentials or of the first record that the last call was given.
    const void* (*lastRecord)(const char* operation);
    /// Buffers handed out and buffers given back, in order of their going and coming.
    unsigned (*returnedCount)(void);
    const void* (*returned)(unsigned index);
    unsigned (*releasedCount)(void);
    const void* (*released)(unsigned index);
};

const struct ScriptedProvider* scripted_provider(void);

#ifdef __cplusplus
}
#endif

#endif
