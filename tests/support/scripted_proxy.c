/// A proxy client plug-in that answers what a test tells it to; see scripted_proxy.h. It shows no
/// table when SCRIPTED_PROXY_WITHOUT_TABLE is defined, and has one entry of it null when
/// SCRIPTED_PROXY_WITHOUT_ENTRY is that entry's number.
#include "scripted_proxy.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "tesauth/plugin/apx_plugin.h"
#include "tesauth/plugin/maintenance_plugin.h"

#define EXPORTED __attribute__((visibility("default")))

static struct ScriptedProxy state = {
    .netbiosName = "CORP",
    .dnsName = "corp.example",
    .domainSid = "S-1-5-21-1-2-3",
    .accountName = "WEB1$",
    .password = "one-time password of the account",
};

EXPORTED struct ScriptedProxy* scripted_proxy(void) {
    return &state;
}

static FILE* logFile;

/// Reads the orders, if there are any.
__attribute__((constructor)) static void ReadScript(void) {
    FILE* file = fopen("/etc/tessary/scripted-proxy.conf", "r");
    char line[1024];
    while (file != NULL && fgets(line, sizeof line, file) != NULL) {
        line[strcspn(line, "\n")] = '\0';
        char* const value = strchr(line, '=');
        if (value == NULL) {
            abort();
        }
        *value = '\0';
        if (strcmp(line, "domainStatus") == 0) {
            state.domainStatus = (uint32_t)strtoul(value + 1, NULL, 0);
        } else if (strcmp(line, "accountStatus") == 0) {
            state.accountStatus = (uint32_t)strtoul(value + 1, NULL, 0);
        } else if (strcmp(line, "dnsName") == 0) {
            state.dnsName = strdup(value + 1);
        } else if (strcmp(line, "sentence") == 0) {
            state.sentence = strdup(value + 1);
        } else if (strcmp(line, "log") == 0) {
            logFile = fopen(value + 1, "a");
        } else {
            abort();
        }
    }
    if (file != NULL) {
        fclose(file);
    }
}

static const char* Shown(const char* text) {
    return text != NULL ? text : "(null)";
}

static void Note(const char* line) {
    const size_t used = strlen(state.calls);
    if (used + strlen(line) + 2 > sizeof state.calls) {
        abort();
    }
    snprintf(state.calls + used, sizeof state.calls - used, "%s\n", line);
    if (logFile != NULL) {
        fprintf(logFile, "%s\n", line);
        fflush(logFile);
    }
}

static void Return(const char* text, char** out) {
    if (text != NULL) {
        *out = strdup(text);
        ++state.outstanding;
    }
}

/// An address that nobody may read from or give back.
static void Poison(char** out) {
    *out = (char*)1;
}

static uint32_t GetDomainInfo(const char* serverAddress, bool verifyCertificate,
                              const char* thumbprint, const char* certificate, char** netbiosName,
                              char** dnsName, char** domainSid) {
    char line[8192];
    snprintf(line, sizeof line, "getDomainInfo|%s|%d|%s|%s", Shown(serverAddress),
             verifyCertificate, Shown(thumbprint), Shown(certificate));
    Note(line);
    if (state.whenAsked != NULL) {
        state.whenAsked(state.asked);
    }
    ++state.asked;
    if (state.domainStatus != 0 && state.domainSuccesses == 0) {
        Poison(netbiosName);
        Poison(dnsName);
        Poison(domainSid);
        return state.domainStatus;
    }
    if (state.domainSuccesses > 0) {
        --state.domainSuccesses;
    }
    Return(state.netbiosName, netbiosName);
    Return(state.dnsName, dnsName);
    Return(state.domainSid, domainSid);
    return 0;
}

static uint32_t CreateMachineAccount(const char* serverAddress, const char* hostName,
                                     const char* container, bool verifyCertificate,
                                     const char* thumbprint, const char* certificate,
                                     char** accountName, char** password) {
    char line[8192];
    snprintf(line, sizeof line, "createMachineAccount|%s|%s|%s|%d|%s|%s", Shown(serverAddress),
             Shown(hostName), Shown(container), verifyCertificate, Shown(thumbprint),
             Shown(certificate));
    Note(line);
    if (state.accountStatus != 0) {
        Poison(accountName);
        Poison(password);
        return state.accountStatus;
    }
    Return(state.accountName, accountName);
    Return(state.password, password);
    if (state.whenCreated != NULL) {
        state.whenCreated();
    }
    return 0;
}

static void FreeString(char* text) {
    char line[8192];
    snprintf(line, sizeof line, "freeString|%s", Shown(text));
    Note(line);
    --state.outstanding;
    free(text);
}

static size_t DescribeFailure(uint32_t status, char* buffer, size_t size) {
    if (state.sentence == NULL) {
        return 0;
    }
    return (size_t)snprintf(buffer, size, "%s (%u)", state.sentence, status);
}

EXPORTED const struct APXProxyClientMaintenance APXProxyClientMaintenance = {
    TESAUTH_MAINTENANCE_API_VERSION, DescribeFailure};

#ifndef SCRIPTED_PROXY_WITHOUT_ENTRY
#define SCRIPTED_PROXY_WITHOUT_ENTRY 0
#endif
#ifdef SCRIPTED_PROXY_WITHOUT_TABLE
#define TABLE __attribute__((visibility("hidden")))
#else
#define TABLE EXPORTED
#endif

TABLE const struct APXProxyClientOperations APXProxyClientOperations = {
    NULL,
    SCRIPTED_PROXY_WITHOUT_ENTRY == 1 ? NULL : GetDomainInfo,
    SCRIPTED_PROXY_WITHOUT_ENTRY == 2 ? NULL : CreateMachineAccount,
    SCRIPTED_PROXY_WITHOUT_ENTRY == 3 ? NULL : FreeString,
};
