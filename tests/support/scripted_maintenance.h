/// What the scripted provider offers to the host's administrator.
#ifndef TESAUTH_TESTS_SCRIPTED_MAINTENANCE_H
#define TESAUTH_TESTS_SCRIPTED_MAINTENANCE_H

#include "tesauth/plugin/maintenance_plugin.h"

/// The table as the rules have it. Hold the lock.
struct ActiveDirectoryClientMaintenance ScriptedMaintenance(void);

#endif
