/// What the scripted provider has seen: calls, their arguments, buffers out and back.
#ifndef TESAUTH_TESTS_SCRIPTED_RECORDS_H
#define TESAUTH_TESTS_SCRIPTED_RECORDS_H

#include "scripted_provider.h"
#include "scripted_rules.h"

enum { maximumArguments = 12 };

/// One call of an operation.
struct Call {
    struct Call* next;
    enum Operation operation;
    unsigned number; ///< among the calls of its operation
    unsigned era;    ///< counts resets
    char* arguments[maximumArguments];
    unsigned argumentCount;
};

/// Notes a call; the list of `count` arguments may hold null pointers. Hold the lock.
struct Call* BeginCall(enum Operation operation, const char* const* arguments, unsigned count,
                       const void* record);

/// Notes that the call returned. Takes the lock.
void EndCall(void* call);

/// Note a buffer that goes out or comes back. Take the lock.
void NoteReturned(const void* buffer);
void NoteReleased(const void* buffer);

/// Forgets everything but the calls that are still running. Hold the lock.
void ResetRecords(void);

/// The reading half of struct ScriptedProvider.
unsigned CallCount(const char* operation);
unsigned RunningCount(const char* operation);
unsigned OverlapCount(const char* operation);
int WaitForCalls(const char* operation, unsigned calls);
int WaitForReturns(const char* operation, unsigned returns);
const char* ArgumentOf(const char* operation, unsigned call, unsigned index);
unsigned ArgumentCountOf(const char* operation, unsigned call);
const void* LastRecord(const char* operation);
unsigned ReturnedCount(void);
const void* ReturnedAt(unsigned index);
unsigned ReleasedCount(void);
const void* ReleasedAt(unsigned index);

#endif
