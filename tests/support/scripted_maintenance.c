#include "scripted_maintenance.h"

#include <inttypes.h>
#include <stdio.h>
#include <string.h>

#include "scripted_calls.h"

static size_t DescribeFailure(uint32_t status, char* buffer, size_t size) {
    char argument[16];
    snprintf(argument, sizeof argument, "%" PRIu32, status);
    const char* const arguments[] = {argument};
    Perform(describeFailure, arguments, 1, NULL);
    size_t length = 0;
    pthread_mutex_lock(&scriptLock);
    for (unsigned i = 0; i < scriptRules.causeCount; ++i) {
        if (scriptRules.causes[i].status == status) {
            length = (size_t)snprintf(buffer, size, "%s", scriptRules.causes[i].sentence);
        }
    }
    pthread_mutex_unlock(&scriptLock);
    return length;
}

static uint32_t Diagnose(const char* domain, ActiveDirectoryFindingFunction report, void* context) {
    struct ScriptedFinding findings[maximumItems];
    pthread_mutex_lock(&scriptLock);
    const unsigned count = scriptRules.findingCount;
    memcpy(findings, scriptRules.findings, sizeof findings);
    pthread_mutex_unlock(&scriptLock);
    for (unsigned i = 0; i < count; ++i) {
        const struct ActiveDirectoryFinding finding = {findings[i].check, findings[i].severity,
                                                       findings[i].text, findings[i].remedy};
        report(context, &finding);
    }
    memset(findings, 'x', sizeof findings); // the caller has copied what it needs
    return Perform(diagnose, &domain, 1, NULL).answer;
}

static uint32_t RotateMachineKey(uint32_t minimumAge, int32_t* rotated) {
    char argument[16];
    snprintf(argument, sizeof argument, "%" PRIu32, minimumAge);
    const char* const arguments[] = {argument};
    const uint32_t status = Perform(rotateMachineKey, arguments, 1, NULL).answer;
    if (status == 0) {
        pthread_mutex_lock(&scriptLock);
        *rotated = !scriptRules.keyStays;
        pthread_mutex_unlock(&scriptLock);
    }
    return status;
}

struct ActiveDirectoryClientMaintenance ScriptedMaintenance(void) {
    const struct Rule* rules = scriptRules.of;
    return (struct ActiveDirectoryClientMaintenance){
        scriptRules.maintenanceVersion,
        rules[describeFailure].missing ? NULL : DescribeFailure,
        rules[diagnose].missing ? NULL : Diagnose,
        rules[rotateMachineKey].missing ? NULL : RotateMachineKey,
    };
}
