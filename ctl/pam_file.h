/// A service's PAM policy as a text that is edited.
#ifndef TESAUTHCTL_PAM_FILE_H
#define TESAUTHCTL_PAM_FILE_H

#include <cstddef>
#include <string>
#include <vector>

#include "lines.h"
#include "systemconfiguration/pam.h"

namespace ctl {

/// An entry and what it is an entry of.
struct PamLine {
    SystemConfiguration::PAMFacility facility;
    SystemConfiguration::PAMEntry entry;
    std::size_t index = 0; ///< of its line in the file, from 0
};

/// The control as a policy has it: a list of actions has single blanks. Throws
/// SystemConfiguration::InvalidControlException.
SystemConfiguration::PAMControl ParseControl(const std::string& text);

/// The entry as a line without a line end, a tab between its columns.
std::string LineOf(const PamLine& entry);

/// Whether the entry's line is read as just this entry: nothing in it is empty, has white space in
/// it or is taken for something else, and the line goes on nowhere behind a backslash.
bool CanBeWritten(const PamLine& entry);

/// A policy's text, of which every line is an entry, a comment or blank.
class PamFile {
public:
    /// \param name for what is told
    /// Throws HintedError at the first line that is none of the three. The library would take such
    /// a line together with the next one.
    PamFile(std::string name, std::string text);

    /// The policy as the library reads it.
    SystemConfiguration::PAMPolicy Policy() const;

    /// The failure to find an entry.
    HintedError NoSuchEntry(SystemConfiguration::PAMFacility facility,
                            const std::string& module) const;

    // The text after an edit. Both throw HintedError when it cannot be made, as for a line that
    // goes on behind a backslash on other systems.

    /// The new entry goes among those of its facility, at the end of the file if it is the first
    /// one. It must be one that can be written. Throws also when an equal entry is there already.
    std::string WithEntry(const PamLine& added, const Place& place, Way way) const;

    /// Without the first entry of the facility that has the module.
    std::string WithoutEntry(SystemConfiguration::PAMFacility facility, const std::string& module,
                             Way way) const;

private:
    using Stack = std::vector<const PamLine*>;

    Stack StackOf(SystemConfiguration::PAMFacility facility) const;
    std::size_t IndexIn(const Stack& stack, SystemConfiguration::PAMFacility facility,
                        const std::string& module) const;
    std::size_t PositionFor(const Stack& stack, const PamLine& added, const Place& place) const;
    void CheckThatLinesEnd() const;

    std::string name_;
    std::string text_;
    std::vector<PamLine> entries_;
};

} // namespace ctl

#endif
