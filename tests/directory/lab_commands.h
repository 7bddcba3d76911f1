#pragma once

#include <map>
#include <string>
#include <sys/types.h>
#include <vector>

#include <nlohmann/json.hpp>

/// The lab, from a test that runs beside its hosts or on one of them.
namespace lab {

using Words = std::vector<std::string>;

/// What the lab's environment says, such as "DOMAIN" or "PASSWORD2".
std::string Setting(const std::string& name);

struct Result {
    int status = -1; ///< exit code, or 128 and the number of the signal that ended it
    std::string out;
    std::string err;

    /// What it wrote to standard output; null when that is no JSON.
    nlohmann::json Json() const;
};

/// A command that runs. One object is used by one thread at a time.
class Command {
public:
    /// @throws std::system_error if it cannot be started
    explicit Command(const Words& words);
    /// Ends the command if it still runs.
    ~Command();
    Command(Command&& other) noexcept;
    Command& operator=(Command&&) = delete;

    /// Writes to its standard input, which Finish() closes.
    void Write(const std::string& text);

    /// Waits until it has written something to its standard output, for 30 seconds at most.
    void AwaitOutput() const;

    /// Waits until it has ended. To be called once.
    Result Finish();

private:
    pid_t process_ = -1;
    int input_ = -1, out_ = -1, err_ = -1;
};

/// Runs a command to its end.
Result Run(const Words& words, const std::string& input = "");

/// Runs a verb of the lab; a failure of that fails the test.
void Lab(const Words& words);

/// The words that run a command on a host of the lab.
Words WordsOn(const std::string& host, const Words& words);
Result RunOn(const std::string& host, const Words& words, const std::string& input = "");

/// The words that run a command under a clock that is off by so much.
Words WithClock(const std::string& offset, const Words& command);
/// The words that run a command for which all time limits pass so many times as fast.
Words InHaste(int times, const Words& command);

/// Runs `tesauthctl` on a host.
Result Ctl(const std::string& host, const Words& words, const std::string& input = "");

/// `tesauthctl join PATH` or `tesauthctl leave` as the first domain's administrator, with --json.
Result JoinAsAdmin(const std::string& host, const std::string& path = Setting("DOMAIN"));
Result LeaveAsAdmin(const std::string& host);

/// Fails the test if a host has keys, a membership, or files that were to become one of these.
void ExpectNothingLeft(const std::string& host);

/// A domain controller as a name server tells of it.
struct NamedController {
    std::string name;
    std::string address;
};

/// The first domain's only controller.
NamedController RealController();

/// Gives a host a name server of its own, which answers whatever becomes of the lab's: it knows the
/// first domain's service record and no other name. One that the host had before is replaced.
/// \param controllers what the record names, each with the next lower priority; the real
///        controller must be among them where a host is to join
void UseOwnNameServer(const std::string& host,
                      const std::vector<NamedController>& controllers = {RealController()});

/// An object of the directory: the values of its attributes. Its name is the attribute "dn".
using Entry = std::multimap<std::string, std::string>;

std::vector<std::string> Values(const Entry& entry, const std::string& attribute);

/// Searches the domain that a controller serves, on that controller and as its administrator.
std::vector<Entry> Search(const std::string& controller, const std::string& domain,
                          const std::string& filter, const Words& attributes);

/// The names of the domain's computers, but for the controllers'.
std::vector<std::string> Computers(const std::string& controller, const std::string& domain);

} // namespace lab
