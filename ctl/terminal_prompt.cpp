#include "terminal_prompt.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <stdexcept>
#include <sys/select.h>
#include <system_error>
#include <termios.h>

#include "failure.h"
#include "unique_fd.h"

namespace ctl {

namespace {

constexpr int handedOn[] = {SIGHUP, SIGINT, SIGQUIT, SIGTERM, SIGTSTP};

volatile std::sig_atomic_t caught = 0;

void Remember(int signal) {
    caught = signal;
}

/// While it exists, the signals above are only remembered, and only delivered inside Readable().
class HeldSignals {
public:
    HeldSignals() {
        caught = 0;
        sigset_t held;
        sigemptyset(&held);
        for (const int signal : handedOn) {
            sigaddset(&held, signal);
        }
        sigprocmask(SIG_BLOCK, &held, &oldMask_);
        for (std::size_t i = 0; i < std::size(handedOn); ++i) {
            Hold(handedOn[i], oldActions_[i]);
        }
    }

    ~HeldSignals() {
        for (std::size_t i = 0; i < std::size(handedOn); ++i) {
            sigaction(handedOn[i], &oldActions_[i], nullptr);
        }
        sigprocmask(SIG_SETMASK, &oldMask_, nullptr);
    }

    HeldSignals(const HeldSignals&) = delete;
    HeldSignals& operator=(const HeldSignals&) = delete;

    /// Waits until the descriptor has input; false when a signal came instead.
    bool Readable(int descriptor) const {
        fd_set watched;
        FD_ZERO(&watched);
        FD_SET(descriptor, &watched);
        const int count = pselect(descriptor + 1, &watched, nullptr, nullptr, nullptr, &oldMask_);
        if (count < 0 && errno != EINTR) {
            throw std::system_error(errno, std::generic_category(), "cannot read the terminal");
        }
        return count > 0;
    }

private:
    static void Hold(int signal, struct sigaction& old) {
        struct sigaction action = {};
        action.sa_handler = Remember;
        sigemptyset(&action.sa_mask);
        sigaction(signal, &action, &old);
        if (old.sa_handler == SIG_IGN) { // who started us wants it ignored
            sigaction(signal, &old, nullptr);
        }
    }

    sigset_t oldMask_ = {};
    struct sigaction oldActions_[std::size(handedOn)] = {};
};

/// While it exists, the terminal shows nothing of what is typed, but the end of the line.
class SilentTerminal {
public:
    explicit SilentTerminal(int terminal) : terminal_(terminal) {
        if (tcgetattr(terminal_, &old_) != 0) {
            throw std::system_error(errno, std::generic_category(), "cannot set up the terminal");
        }
        termios silent = old_;
        silent.c_lflag &= ~static_cast<tcflag_t>(ECHO);
        silent.c_lflag |= ECHONL;
        tcsetattr(terminal_, TCSAFLUSH, &silent);
    }
    ~SilentTerminal() { tcsetattr(terminal_, TCSAFLUSH, &old_); }
    SilentTerminal(const SilentTerminal&) = delete;
    SilentTerminal& operator=(const SilentTerminal&) = delete;

private:
    int terminal_;
    termios old_ = {};
};

/// Reads what is there up to the end of the line; true when the line is complete.
bool TakeInput(int terminal, Password& password) {
    char byte = 0;
    const ssize_t count = read(terminal, &byte, 1);
    if (count < 0 && errno == EINTR) {
        return false;
    }
    if (count <= 0) {
        throw std::runtime_error("no password was typed");
    }
    if (byte == '\n') {
        return true;
    }
    password.Append(byte);
    explicit_bzero(&byte, sizeof byte);
    return false;
}

/// One attempt. Returns the signal that ended it, 0 when there is a password.
int PromptOnce(int terminal, const std::string& prompt, Password& password) {
    const HeldSignals signals;
    const SilentTerminal silence(terminal);
    if (write(terminal, prompt.data(), prompt.size()) < 0) {
        throw std::system_error(errno, std::generic_category(), "cannot write to the terminal");
    }
    while (caught == 0) {
        if (signals.Readable(terminal) && TakeInput(terminal, password)) {
            return 0;
        }
    }
    if (caught != SIGTSTP && write(terminal, "\n", 1) < 0) {
        return caught; // the line end is for the eye only
    }
    return caught;
}

} // namespace

void PromptForPassword(const std::string& prompt, Password& password) {
    const UniqueFd terminal(open("/dev/tty", O_RDWR | O_CLOEXEC | O_NOCTTY));
    if (terminal.Get() < 0) {
        throw UsageError("no terminal to ask for the password: use --password-stdin or "
                         "--password-file");
    }
    for (;;) {
        const int signal = PromptOnce(terminal.Get(), prompt, password);
        if (signal == 0) {
            return;
        }
        password.Clear();
        raise(signal); // now that the terminal is as it was; a stopped process goes on from here
    }
}

} // namespace ctl
