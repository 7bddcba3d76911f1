/// What surrounds a call from a process that is not ours: signals, and the process's end.
#ifndef TESSARY_DIRECTORY_OPERATION_H
#define TESSARY_DIRECTORY_OPERATION_H

#include <signal.h>

namespace tessary::directory {

/// Lives for the duration of one operation, on the thread that runs it.
///
/// The host process may have left SIGPIPE at its default, which would end it when a controller
/// closes a connection: the signal is kept from the thread meanwhile. The process may also end
/// while the operation runs on a detached thread. The libraries below destroy their global state at
/// exit, so an exit handler lets every operation come to its next wait, and there it stays: see
/// Waiting.
class Operation {
public:
    Operation();
    ~Operation();
    Operation(const Operation&) = delete;
    Operation& operator=(const Operation&) = delete;

private:
    sigset_t previousMask_;
    bool sigpipeWasPending_;
};

/// Lives while an operation waits in a system call. Once the process has begun to exit, the
/// destructor never returns: the thread ends with the process.
class Waiting {
public:
    Waiting();
    ~Waiting();
    Waiting(const Waiting&) = delete;
    Waiting& operator=(const Waiting&) = delete;
};

} // namespace tessary::directory

#endif
