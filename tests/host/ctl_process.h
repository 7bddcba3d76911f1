#pragma once

#include <string>
#include <sys/types.h>
#include <vector>

/// Runs the installed command.
namespace ctl_test {

using Words = std::vector<std::string>;

struct Result {
    int status = -1; ///< exit code, or 128 and the number of the signal that ended it
    std::string out;
    std::string err;
};

struct Options {
    std::string input{};                   ///< on standard input
    bool asNobody = false;                 ///< without root's rights
    std::string outputFile{};              ///< standard output goes there
    void (*whileRunning)(pid_t) = nullptr; ///< called once; the command ends on its own or by this
};

/// Runs `tesauthctl` with these arguments, without a terminal, until it ends. One that runs for
/// 30 seconds is killed, which its status then says.
Result Ctl(const Words& arguments, const Options& options = {});

/// Replaces this process by the command. For the child's side of a fork.
[[noreturn]] void Execute(const Words& arguments);

/// The status of a child that ended, as in Result.
int StatusOf(int waitStatus);

/// The path of the command.
extern const char* const command;

} // namespace ctl_test
