#pragma once

#include <chrono>
#include <condition_variable>
#include <iosfwd>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

/// What one call of syslog() sent.
struct LogMessage {
    int priority;      ///< LOG_ERR, LOG_INFO, ...: without the facility
    int facility;      ///< LOG_USER, LOG_AUTH, ...
    std::string ident; ///< the program's name, without "[pid]"
    std::string text;  ///< the message alone

    bool operator==(const LogMessage&) const = default;
};

/// Prints a message in a test's report.
std::ostream& operator<<(std::ostream& stream, const LogMessage& message);

/// The system log of a private host: takes the place of the log's daemon at /dev/log and records
/// what any process on the host sends, in the order of arrival.
///
/// Only for use on a private host; there is one recorder at a time. Processes that called openlog()
/// or syslog() before the recorder was made reconnect by themselves.
///
/// All methods may be called from any thread.
class LogRecorder {
public:
    /// Starts to record.
    /// @throws std::system_error if /dev/log cannot be made.
    LogRecorder();
    ~LogRecorder();
    LogRecorder(const LogRecorder&) = delete;
    LogRecorder& operator=(const LogRecorder&) = delete;

    /// Everything that was sent since the last Take(), which is forgotten hereby. A message whose
    /// syslog() call has returned, in whatever process, is certain to be among it.
    std::vector<LogMessage> Take();

    /// The same, only the priority and the text of each message.
    std::vector<std::pair<int, std::string>> TakeLines();

    /// Waits until a message holds `part` in its text. The messages stay for Take().
    /// @return false if none did within the limit.
    bool Wait(const std::string& part, std::chrono::milliseconds limit = std::chrono::seconds(10));

private:
    void Receive();
    void Drain();

    int log_ = -1;  ///< the socket bound at /dev/log
    int stop_ = -1; ///< an event descriptor that ends the thread
    std::mutex mutex_;
    std::condition_variable arrived_;
    std::vector<LogMessage> messages_;
    std::thread thread_;
};
