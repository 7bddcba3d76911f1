#include "ctl_process.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <stdexcept>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>

namespace ctl_test {

const char* const command = "/usr/bin/tesauthctl";

namespace {

constexpr unsigned patienceSeconds = 30;
constexpr id_t nobody = 65534;

void Check(bool holds, const char* what) {
    if (!holds) {
        throw std::system_error(errno, std::generic_category(), what);
    }
}

std::array<int, 2> Pipe() {
    std::array<int, 2> ends{};
    Check(pipe2(ends.data(), O_CLOEXEC) == 0, "pipe2");
    return ends;
}

[[noreturn]] void RunChild(const Words& arguments, const Options& options, int in, int out,
                           int err) {
    setsid(); // no terminal
    if (!options.outputFile.empty()) {
        out = open(options.outputFile.c_str(), O_WRONLY | O_CLOEXEC);
    }
    dup2(in, STDIN_FILENO);
    dup2(out, STDOUT_FILENO);
    dup2(err, STDERR_FILENO);
    if (options.asNobody &&
        (setgroups(0, nullptr) != 0 || setgid(nobody) != 0 || setuid(nobody) != 0)) {
        _exit(126);
    }
    alarm(patienceSeconds);
    Execute(arguments);
}

/// Reads both pipes to their ends.
void Collect(int out, int err, Result& result) {
    std::array<pollfd, 2> watched = {{{out, POLLIN, 0}, {err, POLLIN, 0}}};
    const std::array<std::string*, 2> texts = {&result.out, &result.err};
    for (int open = 2; open > 0;) {
        Check(poll(watched.data(), watched.size(), -1) >= 0 || errno == EINTR, "poll");
        for (std::size_t i = 0; i < watched.size(); ++i) {
            if (watched[i].revents == 0) {
                continue;
            }
            std::array<char, 4096> buffer{};
            const ssize_t count = read(watched[i].fd, buffer.data(), buffer.size());
            if (count > 0) {
                texts[i]->append(buffer.data(), static_cast<std::size_t>(count));
            } else {
                watched[i].fd = -1;
                --open;
            }
        }
    }
}

} // namespace

void Execute(const Words& arguments) {
    std::vector<char*> words = {const_cast<char*>("tesauthctl")};
    for (const std::string& argument : arguments) {
        words.push_back(const_cast<char*>(argument.c_str()));
    }
    words.push_back(nullptr);
    execv(command, words.data());
    _exit(127);
}

int StatusOf(int waitStatus) {
    return WIFSIGNALED(waitStatus) ? 128 + WTERMSIG(waitStatus) : WEXITSTATUS(waitStatus);
}

Result Ctl(const Words& arguments, const Options& options) {
    std::signal(SIGPIPE, SIG_IGN); // a command need not read its input
    const auto in = Pipe();
    const auto out = Pipe();
    const auto err = Pipe();
    const pid_t child = fork();
    Check(child >= 0, "fork");
    if (child == 0) {
        std::signal(SIGPIPE, SIG_DFL);
        RunChild(arguments, options, in[0], out[1], err[1]);
    }
    for (const int end : {in[0], out[1], err[1]}) {
        close(end);
    }
    Check(write(in[1], options.input.data(), options.input.size()) >= 0 || errno == EPIPE, "write");
    close(in[1]);
    if (options.whileRunning != nullptr) {
        options.whileRunning(child);
    }
    Result result;
    Collect(out[0], err[0], result);
    close(out[0]);
    close(err[0]);
    int waitStatus = 0;
    Check(waitpid(child, &waitStatus, 0) == child, "waitpid");
    result.status = StatusOf(waitStatus);
    return result;
}

} // namespace ctl_test
