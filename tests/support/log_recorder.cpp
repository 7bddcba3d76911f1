#include "log_recorder.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ostream>
#include <regex>
#include <system_error>
#include <utility>

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

namespace {

constexpr const char* kLogPath = "/dev/log";

[[noreturn]] void Fail(const char* what) {
    throw std::system_error(errno, std::generic_category(), what);
}

int BindLog() {
    const int log = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (log < 0) {
        Fail("socket");
    }
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path, kLogPath);
    unlink(kLogPath);
    if (bind(log, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        const int problem = errno;
        close(log);
        errno = problem;
        Fail(kLogPath);
    }
    chmod(kLogPath, 0666); // any user may log
    return log;
}

/// "<PRI>Mmm dd hh:mm:ss ident[pid]: text", as the C library writes it.
LogMessage Parse(const std::string& raw) {
    static const std::regex form(
        R"(<(\d+)>\w{3} [ \d]\d \d\d:\d\d:\d\d ([^:\[ ]*)(?:\[\d+\])?: ([\s\S]*))");
    std::smatch parts;
    if (!std::regex_match(raw, parts, form)) {
        return {LOG_EMERG, LOG_USER, "", "not a log message: " + raw};
    }
    const int code = std::stoi(parts[1]);
    return {LOG_PRI(code), code & LOG_FACMASK, parts[2], parts[3]};
}

} // namespace

std::ostream& operator<<(std::ostream& stream, const LogMessage& message) {
    return stream << '<' << message.priority << '>' << message.ident << ": " << message.text;
}

LogRecorder::LogRecorder() : log_(BindLog()), stop_(eventfd(0, EFD_CLOEXEC)) {
    if (stop_ < 0) {
        close(log_);
        Fail("eventfd");
    }
    thread_ = std::thread([this] { Receive(); });
}

LogRecorder::~LogRecorder() {
    eventfd_write(stop_, 1);
    thread_.join();
    unlink(kLogPath);
    close(stop_);
    close(log_);
}

std::vector<LogMessage> LogRecorder::Take() {
    const std::lock_guard lock(mutex_);
    Drain(); // what was sent is in the socket, even if the thread has not come to it
    return std::exchange(messages_, {});
}

std::vector<std::pair<int, std::string>> LogRecorder::TakeLines() {
    std::vector<std::pair<int, std::string>> lines;
    for (const LogMessage& message : Take()) {
        lines.emplace_back(message.priority, message.text);
    }
    return lines;
}

bool LogRecorder::Wait(const std::string& part, std::chrono::milliseconds limit) {
    std::unique_lock lock(mutex_);
    return arrived_.wait_for(lock, limit, [&] {
        return std::any_of(messages_.begin(), messages_.end(), [&](const LogMessage& message) {
            return message.text.find(part) != std::string::npos;
        });
    });
}

void LogRecorder::Receive() {
    pollfd waits[] = {{log_, POLLIN, 0}, {stop_, POLLIN, 0}};
    while (true) {
        if (poll(waits, 2, -1) < 0 && errno != EINTR) {
            return;
        }
        if (waits[1].revents != 0) {
            return;
        }
        const std::lock_guard lock(mutex_);
        Drain();
        arrived_.notify_all();
    }
}

void LogRecorder::Drain() {
    std::string buffer(65536, '\0');
    ssize_t size;
    while ((size = recv(log_, buffer.data(), buffer.size(), 0)) >= 0) {
        std::string raw = buffer.substr(0, static_cast<std::size_t>(size));
        while (!raw.empty() && (raw.back() == '\n' || raw.back() == '\0')) {
            raw.pop_back();
        }
        messages_.push_back(Parse(raw));
    }
}
