/// A proxy client plug-in that is the installed one, but for a file, /run/spied-password, that gets
/// the password which the proxy hands out.
#include <dlfcn.h>
#include <stdio.h>
#include <stdlib.h>

#include "tesauth/plugin/apx_plugin.h"

static const struct APXProxyClientOperations* Installed(void) {
    void* const library = dlopen("/usr/libexec/tesauth/libapxhttps.so", RTLD_NOW);
    const struct APXProxyClientOperations* const operations =
        library != NULL ? dlsym(library, "APXProxyClientOperations") : NULL;
    if (operations == NULL) {
        abort();
    }
    return operations;
}

static uint32_t GetDomainInfo(const char* serverAddress, bool verifyCertificate,
                              const char* thumbprint, const char* certificate, char** netbiosName,
                              char** dnsName, char** domainSid) {
    return Installed()->getDomainInfo(serverAddress, verifyCertificate, thumbprint, certificate,
                                      netbiosName, dnsName, domainSid);
}

static uint32_t CreateMachineAccount(const char* serverAddress, const char* hostName,
                                     const char* container, bool verifyCertificate,
                                     const char* thumbprint, const char* certificate,
                                     char** accountName, char** password) {
    const uint32_t status =
        Installed()->createMachineAccount(serverAddress, hostName, container, verifyCertificate,
                                          thumbprint, certificate, accountName, password);
    FILE* const file = status == 0 ? fopen("/run/spied-password", "w") : NULL;
    if (file != NULL) {
        fputs(*password, file);
        fclose(file);
    }
    return status;
}

static void FreeString(char* text) {
    Installed()->freeString(text);
}

__attribute__((visibility("default")))
const struct APXProxyClientOperations APXProxyClientOperations = {NULL, GetDomainInfo,
                                                                  CreateMachineAccount, FreeString};
