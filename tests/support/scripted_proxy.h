/// How a test drives the scripted proxy client plug-in.
///
/// A program that loads it finds its orders in /etc/tessary/scripted-proxy.conf, one key=value a
/// line: domainStatus, accountStatus (numbers), dnsName, sentence (why something failed), log (a
/// file that gets the calls as well). A test in the same process asks for scripted_proxy() by name,
/// see scripted_proxy_host.h. The state lives as long as the plug-in is loaded. Use by one thread.
#ifndef TESAUTH_TESTS_SCRIPTED_PROXY_H
#define TESAUTH_TESTS_SCRIPTED_PROXY_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

struct ScriptedProxy {
    /// What the operations return. A failure of getDomainInfo waits until `domainSuccesses` calls
    /// have succeeded. A call that fails leaves out pointers behind that must not be touched.
    uint32_t domainStatus, accountStatus;
    unsigned domainSuccesses;
    /// The strings that go out; a null one leaves its out pointer alone.
    const char *netbiosName, *dnsName, *domainSid, *accountName, *password;
    /// Why the latest failure came about; may be null.
    const char* sentence;
    /// Called when createMachineAccount has done its work; may be null.
    void (*whenCreated)(void);
    /// Called when getDomainInfo begins, with how often it was called before; may be null.
    void (*whenAsked)(unsigned before);
    unsigned asked;

    /// A line a call: the operation's name and its arguments with "|" between them, null ones as
    /// "(null)". A line each for a string that came back: "freeString|", and the string.
    char calls[65536];
    /// Strings that are out.
    int outstanding;
};

/// The state; after loading, a proxy of the domain corp.example that makes the account WEB1$.
struct ScriptedProxy* scripted_proxy(void);

#ifdef __cplusplus
}
#endif

#endif
