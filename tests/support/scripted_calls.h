/// How the scripted provider carries out a call.
#ifndef TESAUTH_TESTS_SCRIPTED_CALLS_H
#define TESAUTH_TESTS_SCRIPTED_CALLS_H

#include <stdint.h>

#include "scripted_rules.h"

/// What one call is to do, taken from its rule when it begins.
struct Plan {
    uint32_t answer;
    struct Rule rule;
};

/// Notes the call and waits as its rule says; may end the thread. Takes the lock.
struct Plan Perform(enum Operation operation, const char* const* arguments, unsigned count,
                    const void* record);

#endif
