/// The proxy's server.
#ifndef TESSARY_PROXY_SERVER_H
#define TESSARY_PROXY_SERVER_H

#include "account_service.h"
#include "decision_log.h"
#include "front_door.h"
#include "host_check.h"
#include "http_service.h"
#include "work_queue.h"

#include <chrono>
#include <future>
#include <set>
#include <string>
#include <thread>

namespace tessary::proxy {

/// What the server goes by.
struct ServerSettings {
    FrontSettings front;
    std::set<std::string> hostsWithoutForwardEntry; ///< or anyHost
    std::chrono::milliseconds lookUpTime{7'000};    ///< for finding out whose name a host's is
    unsigned workers = 48;                          ///< requests that are answered at once
    unsigned workersPerAddress = 2;                 ///< of these, for one address
};

/// Serves from its construction on, with threads of its own. These take the signals that the thread
/// takes which makes it; of connections that are gone there is SIGPIPE, to be ignored.
class Server {
public:
    /// \param accounts, lookUp, sink are called by the server's threads until it is gone
    /// \throws std::exception when it cannot listen
    Server(const ServerSettings& settings, const Identity& identity, AccountService& accounts,
           HostLookUp lookUp, LogSink sink);
    /// Ends what is left; waits for the requests that are being answered.
    ~Server();
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    std::uint16_t Port() const { return door_.Port(); }
    unsigned Connections() const { return door_.Connections(); }

    /// Accepts no more, and waits for the answers to those requests that are whole.
    /// \return false when the deadline passed first. What is still being answered cannot be ended
    ///         then but with the process.
    bool Stop(const directory::Deadline& deadline);

private:
    void Dispatch(std::uint64_t id, const Peer& peer, const RequestReader& reader);

    HttpService service_;
    FrontDoor door_;
    WorkQueue queue_;          // its jobs use the other two
    std::promise<void> ended_; // by the thread
    std::shared_future<void> hasEnded_ = ended_.get_future().share();
    std::thread thread_;
};

} // namespace tessary::proxy

#endif
