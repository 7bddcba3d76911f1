/// The script of the scripted provider: what each operation is to answer.
#ifndef TESAUTH_TESTS_SCRIPTED_RULES_H
#define TESAUTH_TESTS_SCRIPTED_RULES_H

#include <pthread.h>
#include <stdbool.h>
#include <stdint.h>

enum { maximumAnswers = 16, maximumItems = 16, maximumText = 256, maximumSentence = 480 };

/// The operations of the interface, in the order of its table, and those of the maintenance table.
enum Operation {
    joinDomain,
    partDomain,
    getActiveDomain,
    setPreferredDomainControllers,
    getPreferredDomainControllers,
    getDomainTrustState,
    getTrustedDomains,
    getMachineAccountDN,
    getAnyDomainController,
    convertCanonicalUsername,
    joinDomainWithMachineAccount,
    getHostPrincipalForDomain,
    getDomainTrustRelationship,
    setSmartCardEnabledServices,
    getSmartCardEnabledServices,
    describeFailure,
    diagnose,
    rotateMachineKey,
    operationCount
};

struct DomainValue {
    char domain[maximumText];
    uint32_t value;
};

struct Rule {
    uint32_t answers[maximumAnswers]; ///< statuses, or values of the operations without a status
    unsigned answerCount;             ///< the last one holds for all further calls
    uint32_t failureStatus;           ///< what a random failure returns, or a random value
    unsigned failurePercent;
    unsigned leastDelay, mostDelay; ///< milliseconds
    bool hang;
    bool exitThread;
    bool missing;
    bool null;
    char text[maximumText]; ///< the answer of an operation that returns one string
    char netbios[maximumText];
    bool textIsNull, netbiosIsNull;
    char items[maximumItems][maximumText];
    unsigned itemCount;
    struct DomainValue values[maximumItems];
    unsigned valueCount;
};

/// Why a status was returned.
struct Cause {
    uint32_t status;
    char sentence[maximumSentence];
};

struct ScriptedFinding {
    uint32_t severity;
    char check[maximumText], text[maximumText], remedy[maximumText];
};

struct Rules {
    struct Rule of[operationCount];
    int32_t metadataVersion, tableVersion, maintenanceVersion;
    struct Cause causes[maximumItems];
    unsigned causeCount;
    struct ScriptedFinding findings[maximumItems];
    unsigned findingCount;
    bool keyStays; ///< no new key, since the old one is young enough
    char pamModule[maximumText], pamParameters[maximumText];
    char nssModule[maximumText], nssParameters[maximumText];
    bool pamModuleIsNull, pamParametersAreNull, nssModuleIsNull, nssParametersAreNull;
    char logFile[maximumText];
};

/// The lock of rules and records, and what is signalled when either changes.
extern pthread_mutex_t scriptLock;
extern pthread_cond_t scriptChanged;

/// The rules; hold the lock.
extern struct Rules scriptRules;

/// The number of an operation; ends the process for an unknown name.
enum Operation OperationNamed(const char* name);
const char* NameOfOperation(enum Operation operation);

/// With the lock held: the rules of a host joined to corp.example; one key; a script file, which
/// need not exist.
void ResetRules(void);
void SetRule(const char* key, const char* value);
void ReadScript(const char* path);

#endif
