/// PAM policies: value types that read and write the files which say, for each service, how its
/// users are authenticated.
///
///     PAMPolicy policy("login");
///     std::ifstream("/etc/pam.d/login") >> policy;
///     PAMStack& auth = policy[PAMFacility::Auth];
///     auth.entries().insert(auth.find("pam_unix.so"), PAMEntry(PAMControl::Sufficient,
///     "pam_x.so")); std::cout << policy;
///
/// A policy that is read and written loses comments, blank lines, spacing and the order of the
/// facilities in the file. Nothing here knows of files, locks or logs. The types are plain values:
/// different objects may be used by different threads, one object by one thread at a time. Every
/// function may throw std::bad_alloc.
#ifndef SYSTEMCONFIGURATION_PAM_H
#define SYSTEMCONFIGURATION_PAM_H

#include <cstdint>
#include <deque>
#include <exception>
#include <iosfwd>
#include <list>
#include <map>
#include <string>

#include "systemconfiguration/comparison.h"
#include "tesauth/export.h"

namespace SystemConfiguration {

/// A text that is no control, or a control that has no keyword.
class TESAUTH_API InvalidControlException : public std::exception {
public:
    explicit InvalidControlException(const std::string& message);
    ~InvalidControlException() override;
    /// The message; valid as long as the object lives.
    const char* what() const noexcept override;

private:
    std::string message_;
};

/// A text that is no facility, or a facility that has no keyword.
class TESAUTH_API InvalidFacilityException : public std::exception {
public:
    explicit InvalidFacilityException(const std::string& message);
    ~InvalidFacilityException() override;
    /// The message; valid as long as the object lives.
    const char* what() const noexcept override;

private:
    std::string message_;
};

/// What the answer of an entry's module means for the stack.
class TESAUTH_API PAMControl {
public:
    enum Control : std::uint32_t {
        None = 0, ///< not set; has no keyword
        Required = 1,
        Requisite = 2,
        Sufficient = 3,
        Optional = 4,
        Include = 5,
        Substack = 6,
        Bracketed = 7, ///< a list of actions, "[...]", kept as text
    };

    PAMControl();
    PAMControl(Control control);
    /// Both are stored as they are.
    PAMControl(Control control, const std::string& text);
    /// A keyword, in lower case as in a file, or a text that begins with '[' and ends with ']'.
    /// Throws InvalidControlException for any other: "Invalid Control: " and the text.
    PAMControl(const std::string& keyword);

    /// The text of a list of actions stays for another list only.
    PAMControl& operator=(Control control);
    /// Kept on purpose: the text of a former list of actions stays, unused, when the new control is
    /// none. Throws as the constructor does, and leaves the control as it was then.
    PAMControl& operator=(const std::string& keyword);

    /// Two lists of actions are equal when their texts are; anything else by its value alone.
    bool operator==(const PAMControl& other) const;
    /// Compares a list of actions as text; for any other control the keyword is looked up, which
    /// throws as the constructor does.
    bool operator==(const std::string& keyword) const;
    bool operator==(Control control) const;

    /// The keyword, or the list of actions. Ask for it as std::string(control): in braces, or
    /// assigned to a string that is there, the conversion to a number is in the way.
    ///
    /// Throws InvalidControlException for a value without one. Kept on purpose: its message is
    /// "Invalid Control: " without its first N characters, N being the value.
    operator std::string() const;
    operator Control() const;

private:
    Control value_;
    std::string text_;
};

/// What a stack is asked to do.
class TESAUTH_API PAMFacility {
public:
    /// In the order in which a policy has its stacks.
    enum Facility : std::uint32_t {
        None = 0, ///< not set; has no keyword
        Account = 1,
        Auth = 2,
        Password = 3,
        Session = 4,
    };

    PAMFacility();
    PAMFacility(Facility facility);
    /// A keyword, in lower case and without a "-" before it. Throws InvalidFacilityException for
    /// any other text: "Invalid Facility: " and the text.
    PAMFacility(const std::string& keyword);

    PAMFacility& operator=(Facility facility);
    /// Throws as the constructor does, and leaves the facility as it was then.
    PAMFacility& operator=(const std::string& keyword);

    bool operator==(const PAMFacility& other) const;
    /// Looks the keyword up, which throws as the constructor does.
    bool operator==(const std::string& keyword) const;
    bool operator==(Facility facility) const;

    /// The keyword, as std::string(facility). Throws InvalidFacilityException for a value without
    /// one. Kept on purpose: its message is "Invalid Facility: " without its first N characters, N
    /// being the value.
    operator std::string() const;
    operator Facility() const;

private:
    Facility value_;
};

/// Writes the keyword. Throws as the conversion to a string does.
TESAUTH_API std::ostream& operator<<(std::ostream& out, const PAMFacility& facility);
/// Reads one word, across line ends. Throws InvalidFacilityException for one that is no facility.
TESAUTH_API std::istream& operator>>(std::istream& in, PAMFacility& facility);

/// One line of a policy, without its facility.
class TESAUTH_API PAMEntry {
public:
    PAMEntry();
    /// \param module path or name, as a policy has it
    PAMEntry(const PAMControl& control, const std::string& module);

    /// Kept on purpose: of the controls only the kinds are compared, so two lists of actions are
    /// equal here whatever their texts.
    bool operator==(const PAMEntry& other) const;

    const PAMControl& control() const { return control_; }
    const std::string& module() const { return module_; }
    std::list<std::string>& parameters() { return parameters_; }
    const std::list<std::string>& parameters() const { return parameters_; }

private:
    friend TESAUTH_API std::istream& operator>>(std::istream& in, PAMEntry& entry);

    PAMControl control_;
    std::string module_;
    std::list<std::string> parameters_;
};

/// Writes control, tab, module, tab, and each parameter with a blank after it; no line end. Throws
/// as the control's conversion to a string does.
TESAUTH_API std::ostream& operator<<(std::ostream& out, const PAMEntry& entry);
/// Reads a control, a module and, from the rest of the line, parameters, which are added to those
/// that the entry has. Control and module may stand on later lines. A list of actions may have
/// blanks in it; each run of them becomes one. Throws InvalidControlException.
TESAUTH_API std::istream& operator>>(std::istream& in, PAMEntry& entry);

/// The entries of one facility, in the order in which they are asked.
class TESAUTH_API PAMStack {
public:
    typedef std::deque<PAMEntry> Entries;

    PAMStack();
    PAMStack(const PAMFacility& facility);

    PAMFacility Facility() const { return facility_; }

    /// The entries themselves, to insert and remove.
    Entries& entries() { return entries_; }
    const Entries& entries() const { return entries_; }

    Entries::iterator begin() { return entries_.begin(); }
    Entries::iterator end() { return entries_.end(); }
    Entries::const_iterator begin() const { return entries_.begin(); }
    Entries::const_iterator end() const { return entries_.end(); }

    /// The position of the first entry with exactly this module, or end().
    Entries::iterator find(const std::string& module);
    Entries::const_iterator find(const std::string& module) const;

private:
    PAMFacility facility_;
    Entries entries_;
};

/// Writes a line for each entry: facility, tab, entry. Throws as facility and entries do.
TESAUTH_API std::ostream& operator<<(std::ostream& out, const PAMStack& stack);

/// The stacks of one service.
class TESAUTH_API PAMPolicy {
public:
    /// \param name for the caller's own use; it is neither read nor written
    PAMPolicy(const std::string& name);

    const std::string& name() const { return name_; }

    /// The stack of a facility; an empty one is made where there is none.
    PAMStack& operator[](PAMFacility facility);

private:
    friend TESAUTH_API std::ostream& operator<<(std::ostream& out, const PAMPolicy& policy);

    std::string name_;
    std::map<PAMFacility, PAMStack> stacks_;
};

/// Writes "#%PAM-1.0", an empty line, and each stack with an empty line after it, account, auth,
/// password, session. Throws as the stacks do.
TESAUTH_API std::ostream& operator<<(std::ostream& out, const PAMPolicy& policy);
/// Reads to the end of the stream and adds the entries to those that the policy has. A line whose
/// first word begins with '#' is a comment. Throws InvalidFacilityException or
/// InvalidControlException at the first word that is out of place; what was read before stays.
TESAUTH_API std::istream& operator>>(std::istream& in, PAMPolicy& policy);

} // namespace SystemConfiguration

#endif
