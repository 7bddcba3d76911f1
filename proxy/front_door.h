/// Where clients come in.
#ifndef TESSARY_PROXY_FRONT_DOOR_H
#define TESSARY_PROXY_FRONT_DOOR_H

#include "account_service.h"
#include "connection.h"
#include "decision_log.h"
#include "network.h"
#include "request_limits.h"

#include "directory/unique_fd.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace tessary::proxy {

/// Who may come in, how many, and how long they may take.
struct FrontSettings {
    IpAddress listen;
    std::uint16_t port = 0;               ///< 0: any that is free
    std::vector<Network> allowedNetworks; ///< all others are refused
    unsigned connectionsPerAddress = 64;
    unsigned connections = 4096;
    unsigned requestsPerMinuteAndAddress = 60;
    unsigned requestsPerMinute = 3000;
    std::chrono::milliseconds requestTime{10'000}; ///< from the acceptance to the whole request
    std::chrono::milliseconds waitTime{15'000};    ///< until somebody begins with the answer
    std::chrono::milliseconds answerTime{10'000};  ///< for the client to take the answer
    std::chrono::milliseconds lingerTime{2'000};   ///< for the client to end its side then
};

/// Accepts connections and collects requests, all in one thread that never waits for a client: each
/// has its time, and its share of the connections. What may not come in is refused here; a request
/// that may is given away to be answered.
class FrontDoor {
public:
    using Clock = std::chrono::steady_clock;

    /// Takes a request; is to see to Answer(). Called by the thread of Run(), must not wait.
    using Dispatch = std::function<void(std::uint64_t id, const Peer&, const RequestReader&)>;
    /// Nobody waits for the answer any more. Called by the thread of Run(), must not wait.
    /// \return whether nobody had begun with it: then there is to be none
    using Cancel = std::function<bool(std::uint64_t id)>;

    /// Listens from then on.
    /// \throws std::system_error when that fails
    FrontDoor(const FrontSettings& settings, UniqueTlsContext context, LogSink sink,
              Dispatch dispatch, Cancel cancel);

    std::uint16_t Port() const;

    /// Serves until Stop() is called and every request that was taken is answered.
    void Run();

    /// Gives a request its answer; for one whose client is gone it is dropped, which is logged.
    /// Any thread may.
    void Answer(std::uint64_t id, const Peer& peer, SecretText answer);
    /// Accepts no more, and ends all connections without a whole request. Any thread may.
    void Stop();

    unsigned Connections() const { return open_; } ///< any thread may ask

private:
    struct Site {
        unsigned connections = 0;
        std::set<std::uint64_t> unfinished; // those that wait for their client to go on
    };
    /// By what limits count, and whether it may ask: nobody may share a network with an honest host
    /// and take its connections.
    using SiteKey = std::pair<IpAddress, bool>;
    using Sites = std::map<SiteKey, Site>;

    struct Guest {
        Guest(directory::UniqueFd socket, const Peer& peer, Sites::iterator its)
            : connection(std::move(socket), peer), site(its), watched(connection.Events()) {}

        bool IsListed() const { return site->first.second; }

        Connection connection;
        const Sites::iterator site;
        Clock::time_point deadline = never;
        std::uint32_t watched; // the events that epoll waits for
    };
    using Guests = std::map<std::uint64_t, Guest>; // the oldest first

    struct Given {
        std::uint64_t id;
        Peer peer;
        SecretText answer;
    };

    static constexpr Clock::time_point never = Clock::time_point::max();

    void Watch(int operation, int fd, std::uint32_t events, std::uint64_t id);
    void Mute(bool muted);
    int TimeToWait() const;
    void AcceptSome();
    bool TryAccept();
    bool AdmitOrEnd(directory::UniqueFd socket, const Peer& peer);
    void Admit(directory::UniqueFd socket, const Peer& peer);
    bool IsListed(const IpAddress& address) const;
    bool MakeRoom();
    void AdvanceOrEnd(std::uint64_t id);
    void Advance(Guests::iterator guest);
    void Follow(Guests::iterator guest);
    void Decide(Guests::iterator guest);
    bool Charge(const Guest& guest, Clock::time_point now);
    void Refuse(Guests::iterator guest, int status, Code code, const std::string& message);
    void SetDeadline(Guests::iterator guest, Clock::time_point deadline);
    void EndLate();
    void SendAway(Guests::iterator guest);
    void End(Guests::iterator guest);
    void EndAs(Guests::iterator guest, Nuisance kind, const std::string& detail);
    void TakeAnswers();
    void Close();

    const FrontSettings settings_;
    const UniqueTlsContext context_;
    const LogSink sink_;
    const Dispatch dispatch_;
    const Cancel cancel_;
    NuisanceLog nuisances_;
    RequestLimits limits_;
    directory::UniqueFd listener_;
    directory::UniqueFd wake_;
    directory::UniqueFd epoll_;
    bool muted_ = false; // no descriptor is free for another connection
    std::uint64_t nextId_;
    Sites sites_; // with a connection
    Guests guests_;
    unsigned unlisted_ = 0;
    std::set<std::pair<Clock::time_point, std::uint64_t>> deadlines_;
    std::atomic<unsigned> open_{0};
    std::mutex mutex_; // guards what follows
    std::vector<Given> answers_;
    bool stopping_ = false;
};

} // namespace tessary::proxy

#endif
