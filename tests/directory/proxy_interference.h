#pragma once

#include <functional>
#include <string>

/// What happens to a process, or to its connection, at known points of a change in the directory.
/// For one thread's use, unless told.
namespace interference {

enum class Point {
    None,
    BeforeChange, ///< the change has not been sent
    AfterChange   ///< its answer has come and nothing has been done about it
};

/// The process is killed there, at the next addition or modification.
void KillAt(Point point);

/// The next change is made by the controller, and its answer never arrives: the connection breaks.
void LoseNextAnswer();

/// The next change is refused for want of rights, without being sent.
void RefuseNextChange();

/// Changes to what has this in its name are refused by a busy controller, without being sent;
/// empty: none.
void BusyFor(const std::string& name);

/// Runs something once, when the next change's answer has come and nothing has been done about it.
void AfterNextChange(std::function<void()> what);

/// How many searches this process has sent, but for those by which controllers are found. Any
/// thread.
int Searches();

} // namespace interference
