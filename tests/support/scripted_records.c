#include "scripted_records.h"

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

/// Addresses in the order of their coming.
struct Buffers {
    const void** addresses;
    unsigned count, room;
};

static struct Call *runningCalls, *finishedCalls;
static unsigned era;
static unsigned entered[operationCount], left[operationCount], overlapped[operationCount];
static const void* lastRecords[operationCount];
static struct Buffers buffersOut, buffersBack;

static void* Allocated(void* memory) {
    if (memory == NULL) {
        abort();
    }
    return memory;
}

static bool SameText(const char* one, const char* other) {
    return one == NULL || other == NULL ? one == other : strcmp(one, other) == 0;
}

/// One line a call in the log that the script names: the operation and its arguments.
static void Log(const struct Call* call) {
    if (scriptRules.logFile[0] == '\0') {
        return;
    }
    FILE* file = fopen(scriptRules.logFile, "ae");
    if (file == NULL) {
        return;
    }
    fputs(NameOfOperation(call->operation), file);
    for (unsigned i = 0; i < call->argumentCount; ++i) {
        fprintf(file, "\t%s", call->arguments[i] != NULL ? call->arguments[i] : "(null)");
    }
    fputc('\n', file);
    fclose(file);
}

struct Call* BeginCall(enum Operation operation, const char* const* arguments, unsigned count,
                       const void* record) {
    struct Call* call = Allocated(calloc(1, sizeof *call));
    call->operation = operation;
    call->number = entered[operation]++;
    call->argumentCount = count < maximumArguments ? count : maximumArguments;
    for (unsigned i = 0; i < call->argumentCount; ++i) {
        call->arguments[i] = arguments[i] != NULL ? Allocated(strdup(arguments[i])) : NULL;
    }
    for (const struct Call* other = runningCalls; other != NULL; other = other->next) {
        if (other->era == era && other->operation == operation &&
            SameText(other->arguments[0], call->arguments[0])) {
            ++overlapped[operation];
            break;
        }
    }
    call->era = era;
    call->next = runningCalls;
    runningCalls = call;
    lastRecords[operation] = record;
    Log(call);
    pthread_cond_broadcast(&scriptChanged);
    return call;
}

static void Free(struct Call* call) {
    for (unsigned i = 0; i < call->argumentCount; ++i) {
        free(call->arguments[i]);
    }
    free(call);
}

void EndCall(void* argument) {
    struct Call* call = argument;
    pthread_mutex_lock(&scriptLock);
    struct Call** place = &runningCalls;
    while (*place != call) {
        place = &(*place)->next;
    }
    *place = call->next;
    if (call->era == era) {
        ++left[call->operation];
        call->next = finishedCalls;
        finishedCalls = call;
    } else {
        Free(call);
    }
    pthread_cond_broadcast(&scriptChanged);
    pthread_mutex_unlock(&scriptLock);
}

static void Note(struct Buffers* buffers, const void* buffer) {
    pthread_mutex_lock(&scriptLock);
    if (buffers->count == buffers->room) {
        buffers->room = 2 * buffers->room + 16;
        buffers->addresses =
            Allocated(realloc(buffers->addresses, buffers->room * sizeof *buffers->addresses));
    }
    buffers->addresses[buffers->count++] = buffer;
    pthread_mutex_unlock(&scriptLock);
}

void NoteReturned(const void* buffer) {
    Note(&buffersOut, buffer);
}

void NoteReleased(const void* buffer) {
    Note(&buffersBack, buffer);
}

void ResetRecords(void) {
    while (finishedCalls != NULL) {
        struct Call* call = finishedCalls;
        finishedCalls = call->next;
        Free(call);
    }
    ++era;
    memset(entered, 0, sizeof entered);
    memset(left, 0, sizeof left);
    memset(overlapped, 0, sizeof overlapped);
    memset(lastRecords, 0, sizeof lastRecords);
    buffersOut.count = 0;
    buffersBack.count = 0;
}

static void Empty(struct Buffers* buffers) {
    free(buffers->addresses);
    *buffers = (struct Buffers){NULL, 0, 0};
}

__attribute__((destructor)) static void Unload(void) {
    pthread_mutex_lock(&scriptLock);
    ResetRecords();
    Empty(&buffersOut);
    Empty(&buffersBack);
    pthread_mutex_unlock(&scriptLock);
}

/// What `counters` holds for an operation.
static unsigned Counter(const unsigned* counters, const char* operation) {
    pthread_mutex_lock(&scriptLock);
    const unsigned count = counters[OperationNamed(operation)];
    pthread_mutex_unlock(&scriptLock);
    return count;
}

unsigned CallCount(const char* operation) {
    return Counter(entered, operation);
}

unsigned OverlapCount(const char* operation) {
    return Counter(overlapped, operation);
}

unsigned RunningCount(const char* operation) {
    const enum Operation which = OperationNamed(operation);
    unsigned count = 0;
    pthread_mutex_lock(&scriptLock);
    for (const struct Call* call = runningCalls; call != NULL; call = call->next) {
        count += call->operation == which;
    }
    pthread_mutex_unlock(&scriptLock);
    return count;
}

static int WaitFor(const unsigned* counters, const char* operation, unsigned count) {
    const enum Operation which = OperationNamed(operation);
    struct timespec deadline;
    clock_gettime(CLOCK_REALTIME, &deadline);
    deadline.tv_sec += 10;
    int problem = 0;
    pthread_mutex_lock(&scriptLock);
    while (counters[which] < count && problem == 0) {
        problem = pthread_cond_timedwait(&scriptChanged, &scriptLock, &deadline);
    }
    const int reached = counters[which] >= count;
    pthread_mutex_unlock(&scriptLock);
    return reached;
}

int WaitForCalls(const char* operation, unsigned calls) {
    return WaitFor(entered, operation, calls);
}

int WaitForReturns(const char* operation, unsigned returns) {
    return WaitFor(left, operation, returns);
}

static const struct Call* FindIn(const struct Call* calls, enum Operation which, unsigned number) {
    while (calls != NULL &&
           (calls->era != era || calls->operation != which || calls->number != number)) {
        calls = calls->next;
    }
    return calls;
}

static const struct Call* Find(const char* operation, unsigned number) {
    const enum Operation which = OperationNamed(operation);
    const struct Call* call = FindIn(runningCalls, which, number);
    return call != NULL ? call : FindIn(finishedCalls, which, number);
}

const char* ArgumentOf(const char* operation, unsigned number, unsigned index) {
    pthread_mutex_lock(&scriptLock);
    const struct Call* call = Find(operation, number);
    const char* text = call != NULL && index < call->argumentCount ? call->arguments[index] : NULL;
    pthread_mutex_unlock(&scriptLock);
    return text;
}

unsigned ArgumentCountOf(const char* operation, unsigned number) {
    pthread_mutex_lock(&scriptLock);
    const struct Call* call = Find(operation, number);
    const unsigned count = call != NULL ? call->argumentCount : 0;
    pthread_mutex_unlock(&scriptLock);
    return count;
}

const void* LastRecord(const char* operation) {
    pthread_mutex_lock(&scriptLock);
    const void* record = lastRecords[OperationNamed(operation)];
    pthread_mutex_unlock(&scriptLock);
    return record;
}

static const void* At(const struct Buffers* buffers, unsigned index) {
    pthread_mutex_lock(&scriptLock);
    const void* address = index < buffers->count ? buffers->addresses[index] : NULL;
    pthread_mutex_unlock(&scriptLock);
    return address;
}

static unsigned Count(const struct Buffers* buffers) {
    pthread_mutex_lock(&scriptLock);
    const unsigned count = buffers->count;
    pthread_mutex_unlock(&scriptLock);
    return count;
}

unsigned ReturnedCount(void) {
    return Count(&buffersOut);
}

const void* ReturnedAt(unsigned index) {
    return At(&buffersOut, index);
}

unsigned ReleasedCount(void) {
    return Count(&buffersBack);
}

const void* ReleasedAt(unsigned index) {
    return At(&buffersBack, index);
}
