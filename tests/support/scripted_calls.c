#include "scripted_calls.h"

#include <stdlib.h>
#include <string.h>
#include <time.h>

#include "scripted_records.h"

/// A number below the limit. Hold the lock.
static unsigned Random(unsigned limit) {
    static unsigned seed;
    if (seed == 0) {
        struct timespec now;
        clock_gettime(CLOCK_MONOTONIC, &now);
        seed = (unsigned)now.tv_nsec | 1;
    }
    return (unsigned)rand_r(&seed) % limit;
}

static uint32_t AnswerTo(const struct Rule* rule, const struct Call* call) {
    if (rule->failurePercent != 0 && Random(100) < rule->failurePercent) {
        return rule->failureStatus;
    }
    for (unsigned i = 0; i < rule->valueCount && call->argumentCount != 0; ++i) {
        if (call->arguments[0] != NULL && strcmp(rule->values[i].domain, call->arguments[0]) == 0) {
            return rule->values[i].value;
        }
    }
    if (rule->answerCount == 0) {
        return 0;
    }
    return rule->answers[call->number < rule->answerCount ? call->number : rule->answerCount - 1];
}

/// Waits as the rule says; with the lock held, which waiting gives up.
static void Wait(const struct Rule* rule) {
    const unsigned span = rule->mostDelay - rule->leastDelay;
    const unsigned delay = rule->leastDelay + (span != 0 ? Random(span + 1) : 0);
    if (delay != 0) {
        const struct timespec time = {delay / 1000, (long)(delay % 1000) * 1000000};
        pthread_mutex_unlock(&scriptLock);
        nanosleep(&time, NULL);
        pthread_mutex_lock(&scriptLock);
    }
    while (rule->hang) { // the live rule, which a test may change
        pthread_cond_wait(&scriptChanged, &scriptLock);
    }
}

static void Unlock(void* lock) {
    pthread_mutex_unlock(lock);
}

struct Plan Perform(enum Operation operation, const char* const* arguments, unsigned count,
                    const void* record) {
    struct Plan plan;
    pthread_mutex_lock(&scriptLock);
    struct Call* call = BeginCall(operation, arguments, count, record);
    const struct Rule* rule = &scriptRules.of[operation];
    plan.answer = AnswerTo(rule, call);
    plan.rule = *rule;
    pthread_cleanup_push(EndCall, call);
    pthread_cleanup_push(Unlock, &scriptLock);
    Wait(rule);
    if (plan.rule.exitThread) {
        pthread_exit(NULL);
    }
    pthread_cleanup_pop(1);
    pthread_cleanup_pop(1);
    return plan;
}
