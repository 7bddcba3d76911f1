/// What a provider plug-in may offer to the host's administrator, beside what the library asks of
/// it: why an operation failed, what is wrong with a host and its domain, a new machine key.
///
/// A plug-in that has any of it exports one more data symbol under its plain name:
///
///     const struct ActiveDirectoryClientMaintenance ActiveDirectoryClientMaintenance = { ... };
///
/// The library never looks at it; tools find it, once the library has loaded the plug-in, by
/// dlsym(RTLD_DEFAULT, "ActiveDirectoryClientMaintenance"). Strings are NUL-terminated UTF-8. The
/// functions may be called from many threads at once and do not throw. Statuses are those of
/// provider_plugin.h.
///
/// Plain C11, also valid C++17.
#ifndef TESAUTH_PLUGIN_MAINTENANCE_PLUGIN_H
#define TESAUTH_PLUGIN_MAINTENANCE_PLUGIN_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/// The version of this interface: of the table below.
enum { TESAUTH_MAINTENANCE_API_VERSION = 1 };

/// How much a finding matters: a number of 32 bits in struct ActiveDirectoryFinding.
enum ActiveDirectorySeverity {
    ActiveDirectorySeverityOk = 0,
    ActiveDirectorySeverityWarning = 1, ///< works, but not as it should, or not for long
    ActiveDirectorySeverityFailure = 2  ///< does not work
};

/// One thing that was looked at. The strings are the plug-in's and valid during the call only.
struct ActiveDirectoryFinding {
    const char* check;  ///< what was looked at, in a few words
    uint32_t severity;  ///< an ActiveDirectorySeverity
    const char* text;   ///< what was found and, when it is not in order, the cause
    const char* remedy; ///< the command or the step that mends it; empty when it is in order
};

/// Takes one finding; called on the thread that asked for the diagnosis.
typedef void (*ActiveDirectoryFindingFunction)(void* context,
                                               const struct ActiveDirectoryFinding* finding);

/// What a provider offers. A null entry means "not implemented".
struct ActiveDirectoryClientMaintenance {
    int32_t apiVersion; ///< TESAUTH_MAINTENANCE_API_VERSION

    /// Tells why the latest operation that returned this status did so, in one sentence for a
    /// person. Holds no password and no key.
    /// \param buffer receives the sentence, cut off where `size` says, and a final NUL
    /// \return the sentence's length without the NUL; 0 when no operation has returned the status
    size_t (*describeFailure)(uint32_t status, char* buffer, size_t size);

    /// Looks at the host, the domain and the way between them, and changes nothing. Reports each
    /// finding as soon as it and those before it are known, always in the same order.
    /// \param domain the domain's DNS name; null for the one that the host is joined to
    /// \return 0 whatever was found
    uint32_t (*diagnose)(const char* domain, ActiveDirectoryFindingFunction report, void* context);

    /// Gives the host's machine account a new key. The old one stays in the keytab until the
    /// tickets made with it have expired. Whatever fails, the keytab goes on working.
    /// \param minimumAge seconds; a key that is not that old yet is left alone. 0 for any key
    /// \param rotated    receives 1 when there is a new key, 0 when the old one is young enough
    uint32_t (*rotateMachineKey)(uint32_t minimumAge, int32_t* rotated);
};

/// What a proxy client may offer, in the same way: its symbol is "APXProxyClientMaintenance". A
/// client that has it stays loaded, since its table is asked when the library is done with it.
struct APXProxyClientMaintenance {
    int32_t apiVersion; ///< TESAUTH_MAINTENANCE_API_VERSION

    /// As that of a provider; the sentence may be one that the proxy gave.
    size_t (*describeFailure)(uint32_t status, char* buffer, size_t size);
};

#ifdef __cplusplus
}
#endif

#endif
