/* A provider that answers at once, so that what remains is the library's own time. */
#include <stddef.h>

#include "tesauth/plugin/provider_plugin.h"

#define EXPORTED __attribute__((visibility("default")))

static void Release(void* buffer) {
    (void)buffer;
}

static uint32_t GetTrustedDomains(struct ActiveDirectoryDomainNames*** domains,
                                  ActiveDirectoryReleaseFunction* release) {
    static struct ActiveDirectoryDomainNames* none[] = {NULL};
    *domains = none;
    *release = Release;
    return 0;
}

EXPORTED const struct ActiveDirectoryClientMetadata ActiveDirectoryClientMetadata = {
    .apiVersion = TESAUTH_PROVIDER_API_VERSION, .pamModule = "", .nssModule = ""};

EXPORTED const struct ActiveDirectoryClientOperations ActiveDirectoryClientOperations = {
    .apiVersion = TESAUTH_PROVIDER_API_VERSION, .getTrustedDomains = GetTrustedDomains};
