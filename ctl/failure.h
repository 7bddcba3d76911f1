/// How a failure is told: exit code, text, number, and what to do next.
#ifndef TESAUTHCTL_FAILURE_H
#define TESAUTHCTL_FAILURE_H

#include <exception>
#include <stdexcept>
#include <string>

namespace ctl {

/// The command's exit codes; part of its documented interface.
enum class ExitCode { Done = 0, Failed = 1, WrongUsage = 2, NotPermitted = 3 };

/// A failure, ready to be told.
struct Failure {
    ExitCode exitCode;
    std::string text;
    unsigned long code; ///< the number that a library exception carries, 0 without one
    std::string hint;   ///< what to do next; empty when we don't know
    std::string cause;  ///< why the provider reported the code; empty when it doesn't tell
};

/// The account that a verb acts with in the directory.
enum class ActingAccount {
    Host,
    User,
    Proxy ///< an authentication proxy's, as long as the failure is not the directory provider's
};

/// The command line made no sense, in a way that only the verb could see.
class UsageError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// The caller lacks the rights on this host.
class NotPermittedError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// A failure whose hint depends on the host.
class HintedError : public std::runtime_error {
public:
    HintedError(const std::string& text, std::string hint)
        : std::runtime_error(text), hint_(std::move(hint)) {}
    const std::string& Hint() const { return hint_; }

private:
    std::string hint_;
};

/// Describes what was thrown, whatever it is. Call it with a non-null pointer, and before anything
/// else is asked of the provider: its cause is that of its latest failure.
Failure DescribeFailure(const std::exception_ptr& thrown,
                        ActingAccount account = ActingAccount::Host);

} // namespace ctl

#endif
