/// Where a password comes from, and where it stays.
#ifndef TESAUTHCTL_PASSWORD_H
#define TESAUTHCTL_PASSWORD_H

#include <cstddef>
#include <string>

namespace ctl {

/// A password in memory: one buffer that never moves and is cleansed at the end.
class Password {
public:
    static constexpr std::size_t maximumLength = 1023;

    Password() = default;
    ~Password();
    Password(const Password&) = delete;
    Password& operator=(const Password&) = delete;

    /// NUL-terminated; belongs to this object.
    const char* Text() const { return buffer_; }

    /// Appends a byte. Throws std::runtime_error for a NUL and for one byte too many.
    void Append(char byte);
    void Clear();

    /// Removes the carriage return of a line that ended in CR LF.
    void DropCarriageReturn();

private:
    char buffer_[maximumLength + 1] = {};
    std::size_t length_ = 0;
};

/// What the command line says about the password. At most one of the two is set.
struct PasswordSource {
    bool standardInput = false;
    std::string file;
};

/// Reads the password of `user`: the first line of standard input or of the file, without its line
/// end (LF or CR LF), or what is typed at the terminal. From here on the process leaves no core.
///
/// Throws UsageError when no source is named and there is no terminal, NotPermittedError when the
/// file may not be read, and std::runtime_error when it cannot be read or may be read by everyone.
void ReadPassword(const PasswordSource& source, const std::string& user, Password& password);

} // namespace ctl

#endif
