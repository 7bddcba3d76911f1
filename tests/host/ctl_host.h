#pragma once

#include <nlohmann/json.hpp>
#include <string>

#include "ctl_process.h"
#include "scripted_host.h"

namespace ctl_test {

using Json = nlohmann::json;

/// A host with the command and the scripted provider, as which it plays a member of corp.example.
/// What it has stored itself names no domain.
class CtlTest : public scripted::HostTest {
protected:
    CtlTest();
    ~CtlTest() override;

    /// Gives the provider a script, for the commands that run from now on.
    static void Script(const std::string& lines);

    /// Puts a provider without the maintenance table in place of the other.
    static void RemoveMaintenance();

    /// The calls of one operation since the test began, one a line, arguments separated by "|".
    static std::string Calls(const std::string& operation);

    /// Lets the host join through the command, so that it has stored what it joined.
    static void Join(const std::string& domainPath);

    /// Lets the provider play a host that is in no domain.
    static void PlayUnjoined();
};

/// The answer as JSON. Fails when the command did or the answer is none.
Json JsonOf(const Result& result);

/// Expects the exit code, and a text that standard error contains.
void ExpectFailure(const Result& result, int status, const std::string& text);

} // namespace ctl_test
