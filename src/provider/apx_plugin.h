/// The interface between libtesauth and an authentication-proxy client plug-in.
///
/// A client is a shared object "lib<name>.so" in /usr/libexec/tesauth/lib64/ or
/// /usr/libexec/tesauth/ that exports one data symbol under its plain name:
///
///     const struct APXProxyClientOperations APXProxyClientOperations = { ... };
///
/// Strings are NUL-terminated UTF-8. What the library passes in is valid only during the call. A
/// string that an operation returns is the plug-in's: the library copies it and gives it back once
/// through freeString. An operation that fails returns a non-zero status (a Win32, Winsock or
/// security-support-provider error number); its out arguments are then neither read nor given back.
/// The operations must not throw. They may take as long as the exchange with the proxy does: its
/// time limit is the plug-in's.
///
/// Plain C11, also valid C++17.
#ifndef TESAUTH_PLUGIN_APX_PLUGIN_H
#define TESAUTH_PLUGIN_APX_PLUGIN_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#else
#include <stdbool.h>
#endif

/// The statuses that the library knows, beside 0 for success. Any other is passed on as a number.
#define TESAUTH_APX_STATUS_OUT_OF_MEMORY 8u
#define TESAUTH_APX_STATUS_CONNECTION_REFUSED 1225u
#define TESAUTH_APX_STATUS_CONNECTION_INVALID 1229u
#define TESAUTH_APX_STATUS_TIMED_OUT 10060u
#define TESAUTH_APX_STATUS_UNTRUSTED_CERTIFICATE 0x80090325u

/// What a client does. All entries but the first one are needed.
struct APXProxyClientOperations {
    /// The library ignores it; a plug-in may put anything here.
    void (*reserved)(void);

    /// Asks the proxy which domain it serves.
    /// \param serverAddress     the proxy's address
    /// \param verifyCertificate whether the proxy's certificate must be the trusted one
    /// \param thumbprint        of the trusted certificate: SHA-1, upper-case hexadecimal pairs
    ///                          with ":" between them; may be empty, never null
    /// \param certificate       the trusted certificate as PEM text, or null
    /// \param netbiosName       receives the domain's NetBIOS name
    /// \param dnsName           receives the domain's DNS name
    /// \param domainSid         receives the domain's SID in text form
    uint32_t (*getDomainInfo)(const char* serverAddress, bool verifyCertificate,
                              const char* thumbprint, const char* certificate, char** netbiosName,
                              char** dnsName, char** domainSid);

    /// Has the proxy create a machine account for this host.
    /// \param hostName    the host's fully qualified name
    /// \param container   where in the directory, or null for the proxy's default
    /// \param accountName receives the account's name
    /// \param password    receives the account's password; a join replaces it
    uint32_t (*createMachineAccount)(const char* serverAddress, const char* hostName,
                                     const char* container, bool verifyCertificate,
                                     const char* thumbprint, const char* certificate,
                                     char** accountName, char** password);

    /// Takes back a string that one of the operations returned; never null. One of them is a
    /// password: overwrite it before its memory goes.
    void (*freeString)(char* text);
};

#ifdef __cplusplus
}
#endif

#endif
