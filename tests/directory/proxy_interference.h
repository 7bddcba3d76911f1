#pragma once

#include <functional>
#include <string>
#include <vector>

/// What happens to a process, or to its connection, at known points of a change in the directory,
/// which is an addition, a modification or a deletion. For one thread's use, unless told.
namespace interference {

enum class Point {
    None,
    BeforeChange, ///< the change has not been sent
    AfterChange   ///< its answer has come and nothing has been done about it
};

/// The process is killed there, at the next change.
void KillAt(Point point);

/// The next change is made by the controller, and its answer never arrives: the connection breaks.
void LoseNextAnswer();

/// The next change is refused for want of rights, without being sent.
void RefuseNextChange();

/// Changes to what has this in its name are refused by a busy controller, without being sent;
/// empty: none.
void BusyFor(const std::string& name);

/// Runs something once, before the next change is sent.
void BeforeNextChange(std::function<void()> what);

/// Runs something once, when the next change's answer has come and nothing has been done about it.
void AfterNextChange(std::function<void()> what);

/// The next search with this in its base or its filter finds nothing, as at a controller that has
/// not heard of an object yet; one for an attribute of this name gets the object without it.
void HideOnce(const std::string& what);

/// How many searches this process has sent, but for those by which controllers are found. Any
/// thread.
int Searches();

/// How often this process has asked for a ticket of its own. Any thread.
int Logins();
/// For so many seconds the tickets are good that this process asks for from now on; 0: as usual.
void SetTicketLife(int seconds);

/// What this process has written to the system's log since this was asked last. Any thread.
std::vector<std::string> TakeLog();

} // namespace interference
