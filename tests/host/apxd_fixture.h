#pragma once

#include <gmock/gmock.h>

#include <atomic>
#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "apxd_client.h"
#include "server.h"

/// The server of the proxy over accounts that a test scripts.
namespace apxd_test {

/// Gives out accounts without a directory, and remembers for whom.
class ScriptedAccounts : public tessary::proxy::AccountService {
public:
    static constexpr char password[] = "Abcdefghijklmnopqrstuvwxyz0123456789+-\"\\";

    tessary::proxy::DomainInfo Domain() override;
    void ExpectHost(const std::string& host) const override;
    tessary::proxy::NewAccount Create(const std::string& host,
                                      const std::string& container) override;

    /// Host and container of every account that was asked for: "host|container".
    std::vector<std::string> Asked();
    /// Has every host of this name wait until LetGo().
    void Hold(const std::string& host);
    void LetGo();
    /// Waits until so many requests are held.
    bool WaitForHeld(unsigned count);

    /// Thrown by both, where there is one.
    std::unique_ptr<tessary::proxy::Refusal> refusal;
    /// One that there are no accounts for.
    std::string foreignHost;

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<std::string> asked_;
    std::string held_;
    unsigned holding_ = 0;
};

/// Lines of the log.
class Lines {
public:
    tessary::proxy::LogSink Sink();
    std::vector<std::string> All();
    /// How many have this in them.
    std::size_t Count(const std::string& part);

private:
    std::mutex mutex_;
    std::vector<std::string> lines_;
};

/// What this process holds; a test that ends as it began has left nothing behind.
struct Holdings {
    std::size_t descriptors;
    std::size_t threads;

    static Holdings Now();
    bool operator==(const Holdings&) const = default;
};
std::ostream& operator<<(std::ostream& stream, const Holdings& holdings);

/// Memory that this process has in use.
std::size_t ResidentBytes();

/// The key and the certificate of all servers of a test program.
const tessary::proxy::Identity& TestIdentity();

class ServerTest : public testing::Test {
protected:
    /// Allows 127.0.0.0/8 and more than any test needs, unless it says otherwise.
    ServerTest();
    /// Ends the server, and sees that nothing is left of it.
    void TearDown() override;

    void Start();
    std::uint16_t Port() const { return server_->Port(); }
    /// \return the status of an honest host's exchange, which is 201 when it is served
    int ServeHonestHost(const std::string& from = "127.0.0.9");
    /// Waits until the server has so many connections, or fewer.
    bool WaitForConnections(unsigned most);

    /// Addresses of hosts, in place of name servers.
    std::map<std::string, std::vector<std::string>> names_;
    tessary::proxy::ServerSettings settings_;
    ScriptedAccounts accounts_;
    Lines log_;
    std::unique_ptr<tessary::proxy::Server> server_;
    mutable std::atomic<int> looksUp_ = 0; ///< how often

private:
    tessary::proxy::KnownAddresses LookUp(const std::string& host) const;

    Holdings before_;
};

} // namespace apxd_test
