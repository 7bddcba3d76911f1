/// A directory provider plug-in that does on demand what a real directory does not.
///
/// Unless told otherwise it plays a host joined to corp.example. It is told by a script file,
/// /etc/tessary/scripted-provider.conf, read once when the plug-in is loaded, and by a test in the
/// same process through scripted_provider.h. One key=value a line, "#" begins a comment line; keys
/// of an operation begin with its name (joinDomain, partDomain, getActiveDomain,
/// setPreferredDomainControllers, getPreferredDomainControllers, getDomainTrustState,
/// getTrustedDomains, getMachineAccountDN, getAnyDomainController, convertCanonicalUsername,
/// joinDomainWithMachineAccount, getHostPrincipalForDomain, getDomainTrustRelationship,
/// setSmartCardEnabledServices, getSmartCardEnabledServices; and of the maintenance table
/// describeFailure, diagnose, rotateMachineKey). Numbers are decimal or 0x-hexadecimal. A
/// vertical tab in a value of the file stands for a line end.
///
///   OPERATION.status=5                what it returns; a list such as 1326,1326,0 is for
///   successive
///                                     calls, and its last number for all further ones
///   OPERATION.value=7                 the same, for getDomainTrustState and
///                                     getDomainTrustRelationship, which have no status
///   getDomainTrustRelationship.value.lab.example=2    for one domain
///   OPERATION.random_failure=30:1355  fails that many times in a hundred, with that status
///   OPERATION.delay_ms=200            waits before it answers; 0-50 for a random wait
///   OPERATION.hang=1                  does not return, until this is set to 0
///   OPERATION.exit_thread=1           ends the thread with pthread_exit after the wait
///   OPERATION.missing=1               its table entry is null
///   OPERATION.null=1                  succeeds with null results
///   getActiveDomain.dns=corp.example  getActiveDomain.netbios=CORP
///                                     the text (null) stands for a null pointer, here and below
///   OPERATION.text=...                for the operations that return one string
///   OPERATION.items=a,b               for those that return an array;
///                                     getTrustedDomains.items=lab.example:LAB,dev.example:DEV
///   metadata.version=4  metadata.pam_module=...  metadata.pam_parameters=...
///   metadata.nss_module=...  metadata.nss_parameters=...  table.version=1
///   maintenance.version=2             of the maintenance table
///   describeFailure.cause.1311=...    the sentence for one status; others have none
///   diagnose.finding=1|CHECK|TEXT|REMEDY      severity 1; one more finding each time it is set,
///                                     all of which are reported before the call waits or hangs
///   rotateMachineKey.key_stays=1      the key is young enough to be left alone
///   log=/run/provider.log             appends a line a call: operation and arguments, separated by
///                                     tabs, null ones as (null)
///
/// A hanging or waiting call has been counted and recorded already. Only an array's release frees
/// what the array holds.
#include "scripted_provider.h"

#include <stdlib.h>
#include <string.h>

#include "scripted_calls.h"
#include "scripted_maintenance.h"
#include "scripted_records.h"
#include "tesauth/plugin/maintenance_plugin.h"
#include "tesauth/plugin/provider_plugin.h"

#define EXPORTED __attribute__((visibility("default")))

static void Release(void* buffer) {
    NoteReleased(buffer);
    free(buffer);
}

static char* Returned(const char* text) {
    char* copy = strdup(text);
    NoteReturned(copy);
    return copy;
}

static uint32_t ReturnText(const struct Plan* plan, char** text,
                           ActiveDirectoryReleaseFunction* release) {
    if (plan->answer == 0) {
        *text = plan->rule.null || plan->rule.textIsNull ? NULL : Returned(plan->rule.text);
        *release = Release;
    }
    return plan->answer;
}

/// One block that holds the array and its strings, so that one release frees all.
static char** ArrayOf(const struct Rule* rule) {
    const size_t head = (rule->itemCount + 1) * sizeof(char*);
    char** array = malloc(head + sizeof rule->items);
    memcpy((char*)array + head, rule->items, sizeof rule->items);
    for (unsigned i = 0; i < rule->itemCount; ++i) {
        array[i] = (char*)array + head + i * sizeof *rule->items;
    }
    array[rule->itemCount] = NULL;
    NoteReturned(array);
    return array;
}

static uint32_t ReturnArray(const struct Plan* plan, char*** array,
                            ActiveDirectoryReleaseFunction* release) {
    if (plan->answer == 0) {
        *array = plan->rule.null ? NULL : ArrayOf(&plan->rule);
        *release = Release;
    }
    return plan->answer;
}

/// The elements of a null-terminated array as arguments.
static struct Plan PerformOnArray(enum Operation operation, const char* const* array) {
    unsigned count = 0;
    while (array[count] != NULL) {
        ++count;
    }
    return Perform(operation, array, count, array);
}

static uint32_t JoinDomain(const char* domain, const char* organizationalUnit,
                           const struct Credentials* credentials) {
    const char* const arguments[] = {domain, organizationalUnit, credentials->userName,
                                     credentials->password};
    return Perform(joinDomain, arguments, 4, credentials).answer;
}

static uint32_t PartDomain(const struct Credentials* credentials) {
    const char* arguments[2] = {NULL, NULL};
    if (credentials != NULL) {
        arguments[0] = credentials->userName;
        arguments[1] = credentials->password;
    }
    return Perform(partDomain, arguments, 2, credentials).answer;
}

static uint32_t GetActiveDomain(struct ActiveDirectoryDomainNames* domain,
                                ActiveDirectoryReleaseFunction* release) {
    const struct Plan plan = Perform(getActiveDomain, NULL, 0, NULL);
    if (plan.answer == 0) {
        const struct Rule* rule = &plan.rule;
        domain->dnsName = rule->null || rule->textIsNull ? NULL : Returned(rule->text);
        domain->netbiosName = rule->null || rule->netbiosIsNull ? NULL : Returned(rule->netbios);
        *release = Release;
    }
    return plan.answer;
}

static uint32_t SetPreferredDomainControllers(const char* const* controllers) {
    return PerformOnArray(setPreferredDomainControllers, controllers).answer;
}

static uint32_t GetPreferredDomainControllers(char*** controllers,
                                              ActiveDirectoryReleaseFunction* release) {
    const struct Plan plan = Perform(getPreferredDomainControllers, NULL, 0, NULL);
    return ReturnArray(&plan, controllers, release);
}

static TrustState GetDomainTrustState(void) {
    return (TrustState)Perform(getDomainTrustState, NULL, 0, NULL).answer;
}

static uint32_t GetTrustedDomains(struct ActiveDirectoryDomainNames*** domains,
                                  ActiveDirectoryReleaseFunction* release) {
    const struct Plan plan = Perform(getTrustedDomains, NULL, 0, NULL);
    if (plan.answer != 0) {
        return plan.answer;
    }
    *release = Release;
    *domains = NULL;
    if (plan.rule.null) {
        return 0;
    }
    struct Block {
        struct ActiveDirectoryDomainNames* array[maximumItems + 1];
        struct ActiveDirectoryDomainNames names[maximumItems];
        char text[maximumItems][maximumText];
    }* block = calloc(1, sizeof *block);
    memcpy(block->text, plan.rule.items, sizeof block->text);
    for (unsigned i = 0; i < plan.rule.itemCount; ++i) {
        char* colon = strchr(block->text[i], ':');
        block->array[i] = &block->names[i];
        block->names[i].dnsName = block->text[i];
        block->names[i].netbiosName = colon != NULL ? colon + 1 : strchr(block->text[i], '\0');
        if (colon != NULL) {
            *colon = '\0';
        }
    }
    NoteReturned(block);
    *domains = block->array;
    return 0;
}

static uint32_t GetMachineAccountDN(char** name, ActiveDirectoryReleaseFunction* release) {
    const struct Plan plan = Perform(getMachineAccountDN, NULL, 0, NULL);
    return ReturnText(&plan, name, release);
}

static uint32_t GetAnyDomainController(const char* first, const char* domain, char** controller,
                                       ActiveDirectoryReleaseFunction* release) {
    const char* const arguments[] = {first, domain};
    const struct Plan plan = Perform(getAnyDomainController, arguments, 2, NULL);
    return ReturnText(&plan, controller, release);
}

static uint32_t ConvertCanonicalUsername(const char* userName, char** canonicalName,
                                         ActiveDirectoryReleaseFunction* release) {
    const struct Plan plan = Perform(convertCanonicalUsername, &userName, 1, NULL);
    return ReturnText(&plan, canonicalName, release);
}

static uint32_t JoinDomainWithMachineAccount(const struct ActiveDirectoryDomainInfo* domain,
                                             const struct ActiveDirectoryMachineAccount* account) {
    const char* const arguments[] = {
        domain->reserved,  domain->netbiosName,  domain->dnsName,
        domain->sid,       account->hostName,    account->dnsDomainName,
        account->reserved, account->accountName, account->password};
    return Perform(joinDomainWithMachineAccount, arguments, 9, domain).answer;
}

static uint32_t GetHostPrincipalForDomain(const char* domain, char** principal,
                                          ActiveDirectoryReleaseFunction* release) {
    const struct Plan plan = Perform(getHostPrincipalForDomain, &domain, 1, NULL);
    return ReturnText(&plan, principal, release);
}

static TrustRelationship GetDomainTrustRelationship(const char* domain) {
    return (TrustRelationship)Perform(getDomainTrustRelationship, &domain, 1, NULL).answer;
}

static uint32_t SetSmartCardEnabledServices(const char* const* services) {
    return PerformOnArray(setSmartCardEnabledServices, services).answer;
}

static uint32_t GetSmartCardEnabledServices(char*** services,
                                            ActiveDirectoryReleaseFunction* release) {
    const struct Plan plan = Perform(getSmartCardEnabledServices, NULL, 0, NULL);
    return ReturnArray(&plan, services, release);
}

#ifndef SCRIPTED_WITHOUT_MAINTENANCE
EXPORTED struct ActiveDirectoryClientMaintenance ActiveDirectoryClientMaintenance;
#endif
#ifndef SCRIPTED_WITHOUT_METADATA
EXPORTED struct ActiveDirectoryClientMetadata ActiveDirectoryClientMetadata;
#endif
#ifndef SCRIPTED_WITHOUT_OPERATIONS
EXPORTED struct ActiveDirectoryClientOperations ActiveDirectoryClientOperations;
#endif

static const struct ActiveDirectoryClientOperations everyOperation = {
    0,
    JoinDomain,
    PartDomain,
    GetActiveDomain,
    SetPreferredDomainControllers,
    GetPreferredDomainControllers,
    NULL,
    GetDomainTrustState,
    GetTrustedDomains,
    GetMachineAccountDN,
    GetAnyDomainController,
    ConvertCanonicalUsername,
    JoinDomainWithMachineAccount,
    GetHostPrincipalForDomain,
    GetDomainTrustRelationship,
    SetSmartCardEnabledServices,
    GetSmartCardEnabledServices,
};

/// Brings the exported records up to date with the rules. Hold the lock.
static void Publish(void) {
    const struct Rules* rules = &scriptRules;
#ifndef SCRIPTED_WITHOUT_METADATA
    ActiveDirectoryClientMetadata = (struct ActiveDirectoryClientMetadata){
        rules->metadataVersion,
        rules->pamModuleIsNull ? NULL : rules->pamModule,
        rules->pamParametersAreNull ? NULL : rules->pamParameters,
        rules->nssModuleIsNull ? NULL : rules->nssModule,
        rules->nssParametersAreNull ? NULL : rules->nssParameters,
    };
#endif
#ifndef SCRIPTED_WITHOUT_OPERATIONS
    struct ActiveDirectoryClientOperations* table = &ActiveDirectoryClientOperations;
    table->apiVersion = rules->tableVersion;
#define PUBLISH(NAME) table->NAME = rules->of[NAME].missing ? NULL : everyOperation.NAME
    PUBLISH(joinDomain);
    PUBLISH(partDomain);
    PUBLISH(getActiveDomain);
    PUBLISH(setPreferredDomainControllers);
    PUBLISH(getPreferredDomainControllers);
    PUBLISH(getDomainTrustState);
    PUBLISH(getTrustedDomains);
    PUBLISH(getMachineAccountDN);
    PUBLISH(getAnyDomainController);
    PUBLISH(convertCanonicalUsername);
    PUBLISH(joinDomainWithMachineAccount);
    PUBLISH(getHostPrincipalForDomain);
    PUBLISH(getDomainTrustRelationship);
    PUBLISH(setSmartCardEnabledServices);
    PUBLISH(getSmartCardEnabledServices);
#undef PUBLISH
#else
    (void)everyOperation;
#endif
#ifndef SCRIPTED_WITHOUT_MAINTENANCE
    ActiveDirectoryClientMaintenance = ScriptedMaintenance();
#endif
}

static void Set(const char* key, const char* value) {
    pthread_mutex_lock(&scriptLock);
    SetRule(key, value);
    Publish();
    pthread_cond_broadcast(&scriptChanged);
    pthread_mutex_unlock(&scriptLock);
}

static void Reset(void) {
    pthread_mutex_lock(&scriptLock);
    ResetRules();
    ResetRecords();
    Publish();
    pthread_cond_broadcast(&scriptChanged);
    pthread_mutex_unlock(&scriptLock);
}

EXPORTED const struct ScriptedProvider* scripted_provider(void) {
    static const struct ScriptedProvider api = {
        Set,           Reset,          CallCount,     RunningCount,    OverlapCount,
        WaitForCalls,  WaitForReturns, ArgumentOf,    ArgumentCountOf, LastRecord,
        ReturnedCount, ReturnedAt,     ReleasedCount, ReleasedAt,
    };
    return &api;
}

#ifdef SCRIPTED_UNRESOLVED
/// Calls what nobody defines.
void function_that_is_nowhere(void);
EXPORTED void scripted_provider_call_nowhere(void);
void scripted_provider_call_nowhere(void) {
    function_that_is_nowhere();
}
#endif

__attribute__((constructor)) static void Load(void) {
    pthread_mutex_lock(&scriptLock);
    ResetRules();
    ReadScript("/etc/tessary/scripted-provider.conf");
    Publish();
    pthread_mutex_unlock(&scriptLock);
}
