#pragma once

#include <gmock/gmock.h>

#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

#include "directory/unique_fd.h"
#include "log_recorder.h"

/// The program as it is installed on a private host, and what it finds there.
namespace apxd_test {

inline const std::string folder = "/etc/tessary/tesauth/";
inline const std::string file = folder + "apxd.toml";
inline const std::string keytab = folder + "apxd.keytab";
inline const std::string state = "/var/lib/tesauth-apxd";
inline const std::string ownCertificate = state + "/certificate.pem";
inline const std::string ownKey = state + "/key.pem";

using Words = std::vector<std::string>;

struct Result {
    int status = -1;
    std::string out;
    std::string err;
};

/// A process of the program, with its output. Killed when it is not waited for.
class Process {
public:
    /// \param prepare called by the process before it runs the program
    explicit Process(const Words& arguments, const std::string& notifySocket = "", uid_t user = 0,
                     const std::function<void()>& prepare = {});
    ~Process();
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;

    void Signal(int signal) const;
    /// Text of a file in /proc/PID.
    std::string Proc(const std::string& name) const;
    Result Wait();

private:
    pid_t process_;
    tessary::directory::UniqueFd out_;
    tessary::directory::UniqueFd err_;
};

/// Runs the program to its end.
Result Apxd(const Words& arguments);

/// The socket that the service manager would have.
class NotifySocket {
public:
    NotifySocket();
    ~NotifySocket();
    NotifySocket(const NotifySocket&) = delete;
    NotifySocket& operator=(const NotifySocket&) = delete;

    /// What the program says next; "nothing" when it does not.
    std::string Next() const;

    const std::string path = "/run/apxd_program_test.socket";

private:
    tessary::directory::UniqueFd socket_;
};

void Write(const std::string& path, const std::string& text, mode_t mode = 0644);
std::string Read(const std::string& path);
mode_t ModeOf(const std::string& path);

/// A keytab with one key, in the form that every Kerberos reads.
std::string KeytabOf(const std::string& account);

/// Begins with a configuration, its keytab and no state.
class ProgramTest : public testing::Test {
protected:
    ProgramTest();

    /// Adds to what has to be in the configuration.
    static void Configure(const std::string& more);
    /// The state directory, empty.
    static void MakeState();
    /// Checks, and expects exit status 1 and a line with this.
    static void ExpectFault(const std::string& part);

    LogRecorder log_;
};

} // namespace apxd_test
