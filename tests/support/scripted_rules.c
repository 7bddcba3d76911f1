#include "scripted_rules.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

pthread_mutex_t scriptLock = PTHREAD_MUTEX_INITIALIZER;
pthread_cond_t scriptChanged = PTHREAD_COND_INITIALIZER;
struct Rules scriptRules;

static const char* const names[operationCount] = {
    "joinDomain",
    "partDomain",
    "getActiveDomain",
    "setPreferredDomainControllers",
    "getPreferredDomainControllers",
    "getDomainTrustState",
    "getTrustedDomains",
    "getMachineAccountDN",
    "getAnyDomainController",
    "convertCanonicalUsername",
    "joinDomainWithMachineAccount",
    "getHostPrincipalForDomain",
    "getDomainTrustRelationship",
    "setSmartCardEnabledServices",
    "getSmartCardEnabledServices",
    "describeFailure",
    "diagnose",
    "rotateMachineKey",
};

static _Noreturn void Misused(const char* what, const char* text) {
    fprintf(stderr, "scripted provider: %s '%s'\n", what, text);
    abort();
}

static void Copy(char* target, size_t size, const char* text) {
    if (strlen(text) >= size) {
        Misused("too long:", text);
    }
    strcpy(target, text);
}

static uint32_t Number(const char* text) {
    char* end;
    const long long number = strtoll(text, &end, 0);
    if (end == text || (*end != '\0' && *end != ',' && *end != ':' && *end != '-')) {
        Misused("no number:", text);
    }
    return (uint32_t)number;
}

enum Operation OperationNamed(const char* name) {
    for (int i = 0; i < operationCount; ++i) {
        if (strcmp(names[i], name) == 0) {
            return (enum Operation)i;
        }
    }
    Misused("no such operation:", name);
}

const char* NameOfOperation(enum Operation operation) {
    return names[operation];
}

void ResetRules(void) {
    static const char* const script[][2] = {
        {"metadata.version", "3"},
        {"table.version", "3"},
        {"maintenance.version", "1"},
        {"metadata.pam_module", "pam_scripted.so"},
        {"metadata.pam_parameters", "(null)"},
        {"metadata.nss_module", "scripted"},
        {"metadata.nss_parameters", "(null)"},
        {"getActiveDomain.dns", "corp.example"},
        {"getActiveDomain.netbios", "CORP"},
        {"getPreferredDomainControllers.items", "dc1.corp.example,dc2.corp.example"},
        {"getDomainTrustState.value", "1"},
        {"getTrustedDomains.items", "lab.example:LAB"},
        {"getMachineAccountDN.text", "CN=HOST1,CN=Computers,DC=corp,DC=example"},
        {"getAnyDomainController.text", "dc1.corp.example"},
        {"convertCanonicalUsername.text", "CORP\\alice"},
        {"getHostPrincipalForDomain.text", "host/host1.corp.example@CORP.EXAMPLE"},
        {"getDomainTrustRelationship.value", "3"},
        {"getDomainTrustRelationship.value.corp.example", "5"},
        {"getSmartCardEnabledServices.items", "login"},
    };
    memset(&scriptRules, 0, sizeof scriptRules);
    for (size_t i = 0; i < sizeof script / sizeof *script; ++i) {
        SetRule(script[i][0], script[i][1]);
    }
}

static void SetAnswers(struct Rule* rule, const char* list) {
    rule->answerCount = 0;
    for (const char* item = list; item != NULL; item = strchr(item, ',')) {
        item += *item == ',';
        if (rule->answerCount == maximumAnswers) {
            Misused("too many answers:", list);
        }
        rule->answers[rule->answerCount++] = Number(item);
    }
}

static void SetItems(struct Rule* rule, const char* list) {
    rule->itemCount = 0;
    while (*list != '\0') {
        const size_t length = strcspn(list, ",");
        if (rule->itemCount == maximumItems || length >= maximumText) {
            Misused("too many or too long:", list);
        }
        char* item = rule->items[rule->itemCount++];
        memcpy(item, list, length);
        item[length] = '\0';
        list += length + (list[length] == ',');
    }
}

static void SetValueFor(struct Rule* rule, const char* domain, const char* value) {
    unsigned i = 0;
    while (i < rule->valueCount && strcmp(rule->values[i].domain, domain) != 0) {
        ++i;
    }
    if (i == maximumItems) {
        Misused("too many domains:", domain);
    }
    Copy(rule->values[i].domain, maximumText, domain);
    rule->values[i].value = Number(value);
    rule->valueCount += i == rule->valueCount;
}

static void SetText(char* text, bool* isNull, const char* value) {
    *isNull = strcmp(value, "(null)") == 0;
    Copy(text, maximumText, *isNull ? "" : value);
}

static void SetPlace(const char* key, const char* value) {
    struct Rules* rules = &scriptRules;
    if (strcmp(key, "metadata.version") == 0) {
        rules->metadataVersion = (int32_t)Number(value);
    } else if (strcmp(key, "table.version") == 0) {
        rules->tableVersion = (int32_t)Number(value);
    } else if (strcmp(key, "maintenance.version") == 0) {
        rules->maintenanceVersion = (int32_t)Number(value);
    } else if (strcmp(key, "metadata.pam_module") == 0) {
        SetText(rules->pamModule, &rules->pamModuleIsNull, value);
    } else if (strcmp(key, "metadata.pam_parameters") == 0) {
        SetText(rules->pamParameters, &rules->pamParametersAreNull, value);
    } else if (strcmp(key, "metadata.nss_module") == 0) {
        SetText(rules->nssModule, &rules->nssModuleIsNull, value);
    } else if (strcmp(key, "metadata.nss_parameters") == 0) {
        SetText(rules->nssParameters, &rules->nssParametersAreNull, value);
    } else if (strcmp(key, "log") == 0) {
        Copy(rules->logFile, sizeof rules->logFile, value);
    } else {
        Misused("no such key:", key);
    }
}

static void AddCause(const char* status, const char* sentence) {
    struct Rules* rules = &scriptRules;
    if (rules->causeCount == maximumItems) {
        Misused("too many causes:", sentence);
    }
    struct Cause* cause = &rules->causes[rules->causeCount++];
    cause->status = Number(status);
    Copy(cause->sentence, sizeof cause->sentence, sentence);
}

/// Copies what stands before the next "|", or the whole text, and returns what follows.
static const char* TakeField(char* field, const char* text) {
    const size_t length = strcspn(text, "|");
    if (length >= maximumText) {
        Misused("too long:", text);
    }
    memcpy(field, text, length);
    field[length] = '\0';
    return text + length + (text[length] == '|');
}

static void AddFinding(const char* value) {
    struct Rules* rules = &scriptRules;
    if (rules->findingCount == maximumItems) {
        Misused("too many findings:", value);
    }
    struct ScriptedFinding* finding = &rules->findings[rules->findingCount++];
    char severity[maximumText];
    const char* rest = TakeField(severity, value);
    finding->severity = Number(severity);
    rest = TakeField(finding->check, rest);
    rest = TakeField(finding->text, rest);
    TakeField(finding->remedy, rest);
}

static void SetOfOperation(struct Rule* rule, const char* what, const char* value) {
    if (strcmp(what, "status") == 0 || strcmp(what, "value") == 0) {
        SetAnswers(rule, value);
    } else if (strncmp(what, "value.", 6) == 0) {
        SetValueFor(rule, what + 6, value);
    } else if (strcmp(what, "random_failure") == 0) {
        const char* colon = strchr(value, ':');
        rule->failurePercent = Number(value);
        rule->failureStatus = colon != NULL ? Number(colon + 1) : 5;
    } else if (strcmp(what, "delay_ms") == 0) {
        const char* dash = strchr(value, '-');
        rule->leastDelay = Number(value);
        rule->mostDelay = dash != NULL ? Number(dash + 1) : rule->leastDelay;
    } else if (strcmp(what, "hang") == 0) {
        rule->hang = Number(value) != 0;
    } else if (strcmp(what, "exit_thread") == 0) {
        rule->exitThread = Number(value) != 0;
    } else if (strcmp(what, "missing") == 0) {
        rule->missing = Number(value) != 0;
    } else if (strcmp(what, "null") == 0) {
        rule->null = Number(value) != 0;
    } else if (strcmp(what, "text") == 0 || strcmp(what, "dns") == 0) {
        SetText(rule->text, &rule->textIsNull, value);
    } else if (strcmp(what, "netbios") == 0) {
        SetText(rule->netbios, &rule->netbiosIsNull, value);
    } else if (strncmp(what, "cause.", 6) == 0) {
        AddCause(what + 6, value);
    } else if (strcmp(what, "finding") == 0) {
        AddFinding(value);
    } else if (strcmp(what, "key_stays") == 0) {
        scriptRules.keyStays = Number(value) != 0;
    } else if (strcmp(what, "items") == 0) {
        SetItems(rule, value);
    } else {
        Misused("no such key of an operation:", what);
    }
}

void SetRule(const char* key, const char* value) {
    char operation[maximumText];
    const size_t length = strcspn(key, ".");
    if (key[length] == '\0' || strncmp(key, "metadata.", 9) == 0 ||
        strncmp(key, "table.", 6) == 0 || strncmp(key, "maintenance.", 12) == 0) {
        SetPlace(key, value);
        return;
    }
    if (length >= sizeof operation) {
        Misused("no such key:", key);
    }
    memcpy(operation, key, length);
    operation[length] = '\0';
    SetOfOperation(&scriptRules.of[OperationNamed(operation)], key + length + 1, value);
}

void ReadScript(const char* path) {
    FILE* file = fopen(path, "re");
    if (file == NULL) {
        return;
    }
    char line[2 * maximumText];
    while (fgets(line, sizeof line, file) != NULL) {
        line[strcspn(line, "\r\n")] = '\0';
        for (char* end = line; (end = strchr(end, '\v')) != NULL; ++end) {
            *end = '\n';
        }
        char* value = strchr(line, '=');
        if (line[0] == '#' || line[0] == '\0') {
            continue;
        }
        if (value == NULL) {
            Misused("no '=' in", line);
        }
        *value++ = '\0';
        SetRule(line, value);
    }
    fclose(file);
}
