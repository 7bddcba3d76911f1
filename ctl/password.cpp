#include "password.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <stdexcept>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <system_error>

#include "failure.h"
#include "terminal_prompt.h"
#include "unique_fd.h"

namespace ctl {

namespace {

std::system_error SystemError(int number, const std::string& what) {
    return std::system_error(number, std::generic_category(), what);
}

/// Reads byte by byte, straight into the password: a buffered stream would keep a copy.
void ReadFirstLine(int descriptor, const std::string& name, Password& password) {
    char byte = 0;
    for (;;) {
        const ssize_t count = read(descriptor, &byte, 1);
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count < 0) {
            throw SystemError(errno, "cannot read the password from " + name);
        }
        if (count == 0) {
            break;
        }
        if (byte == '\n') {
            password.DropCarriageReturn();
            break;
        }
        password.Append(byte);
    }
    explicit_bzero(&byte, sizeof byte);
}

void ReadFile(const std::string& path, Password& password) {
    const UniqueFd file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY));
    if (file.Get() < 0) {
        const int cause = errno;
        const std::string text = path + ": " + std::strerror(cause);
        if (cause == EACCES || cause == EPERM) {
            throw NotPermittedError(text);
        }
        throw std::runtime_error(text);
    }
    struct stat status = {};
    if (fstat(file.Get(), &status) != 0) {
        throw SystemError(errno, path);
    }
    if (S_ISREG(status.st_mode) && (status.st_mode & S_IROTH) != 0) {
        throw HintedError(path + ": everyone on this host can read the password file",
                          "close it to others (chmod o-r), and consider the password known");
    }
    ReadFirstLine(file.Get(), path, password);
}

} // namespace

Password::~Password() {
    Clear();
}

void Password::Append(char byte) {
    if (byte == '\0') {
        throw std::runtime_error("the password contains a NUL byte");
    }
    if (length_ == maximumLength) {
        throw std::runtime_error("the password is longer than " + std::to_string(maximumLength) +
                                 " bytes");
    }
    buffer_[length_++] = byte;
}

void Password::Clear() {
    explicit_bzero(buffer_, sizeof buffer_);
    length_ = 0;
}

void Password::DropCarriageReturn() {
    if (length_ > 0 && buffer_[length_ - 1] == '\r') {
        buffer_[--length_] = '\0';
    }
}

void ReadPassword(const PasswordSource& source, const std::string& user, Password& password) {
    prctl(PR_SET_DUMPABLE, 0);
    if (source.standardInput) {
        ReadFirstLine(STDIN_FILENO, "standard input", password);
    } else if (!source.file.empty()) {
        ReadFile(source.file, password);
    } else {
        PromptForPassword("Password for " + user + ": ", password);
    }
}

} // namespace ctl
