#include "front_door.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <syslog.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <system_error>
#include <tuple>

#include "account_service.h"
#include "listener.h"
#include "refusal_answer.h"

namespace tessary::proxy {
namespace {

constexpr std::uint64_t listenerId = 0;
constexpr std::uint64_t wakeId = 1;
constexpr std::uint64_t firstGuestId = 2;

constexpr int acceptedPerTurn = 64;
constexpr unsigned mostStrangers = 64; // connections of addresses that are only to be refused
constexpr std::size_t eventsPerTurn = 256;
/// How long there is no accepting while no descriptor is free and nobody can give way.
constexpr std::chrono::milliseconds muteTime{100};

void Check(bool holds, const char* what) {
    if (!holds)
        throw std::system_error(errno, std::generic_category(), what);
}

bool IsUnfinished(const Connection& connection) {
    const auto phase = connection.WhichPhase();
    return phase != Connection::Phase::Running && phase != Connection::Phase::Writing;
}

bool IsReadable(int fd) {
    pollfd watched{fd, POLLIN, 0};
    return poll(&watched, 1, 0) == 1;
}

bool AsksForHealth(const RequestReader& reader) {
    return reader.Now() == RequestReader::State::Complete && reader.Method() == "GET" &&
           reader.Target() == "/healthz";
}

} // namespace

FrontDoor::FrontDoor(const FrontSettings& settings, UniqueTlsContext context, LogSink sink,
                     Dispatch dispatch, Cancel cancel)
    : settings_(settings), context_(std::move(context)), sink_(std::move(sink)),
      dispatch_(std::move(dispatch)), cancel_(std::move(cancel)), nuisances_(sink_),
      limits_(settings.requestsPerMinuteAndAddress, settings.requestsPerMinute),
      listener_(Listen(settings.listen, settings.port)),
      wake_(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)), epoll_(epoll_create1(EPOLL_CLOEXEC)),
      nextId_(firstGuestId) {
    Check(wake_ && epoll_, "cannot wait for connections");
    Watch(EPOLL_CTL_ADD, listener_.Get(), EPOLLIN, listenerId);
    Watch(EPOLL_CTL_ADD, wake_.Get(), EPOLLIN, wakeId);
}

std::uint16_t FrontDoor::Port() const {
    return PortOf(listener_.Get());
}

void FrontDoor::Watch(int operation, int fd, std::uint32_t events, std::uint64_t id) {
    epoll_event event{};
    event.events = events;
    event.data.u64 = id;
    Check(epoll_ctl(epoll_.Get(), operation, fd, &event) == 0, "cannot wait for connections");
}

void FrontDoor::Run() {
    for (bool stopping = false; !stopping || !guests_.empty();) {
        std::array<epoll_event, eventsPerTurn> events{};
        const int count = epoll_wait(epoll_.Get(), events.data(), eventsPerTurn, TimeToWait());
        Check(count >= 0 || errno == EINTR, "cannot wait for connections");
        if (muted_)
            Mute(false);
        for (int i = 0; i < count; ++i) {
            const std::uint64_t id = events[static_cast<std::size_t>(i)].data.u64;
            const auto guest = guests_.find(id);
            if (id == listenerId && listener_)
                AcceptSome();
            else if (guest != guests_.end()) // one that an earlier event has not ended
                AdvanceOrEnd(id);
        }
        EndLate();
        TakeAnswers();
        nuisances_.Sum(Clock::now());
        const std::lock_guard lock(mutex_);
        stopping = stopping_;
        if (stopping && listener_)
            Close();
    }
    nuisances_.SumAll();
}

int FrontDoor::TimeToWait() const {
    auto wait = std::chrono::milliseconds(NuisanceLog::interval);
    if (muted_)
        wait = muteTime;
    if (!deadlines_.empty()) {
        const auto left =
            std::chrono::ceil<std::chrono::milliseconds>(deadlines_.begin()->first - Clock::now());
        wait = std::clamp(left, std::chrono::milliseconds(0), wait);
    }
    return static_cast<int>(wait.count());
}

void FrontDoor::AcceptSome() {
    for (int i = 0; i < acceptedPerTurn && TryAccept(); ++i) {
    }
}

bool FrontDoor::TryAccept() {
    sockaddr_storage storage{};
    socklen_t length = sizeof storage;
    auto* const address = reinterpret_cast<sockaddr*>(&storage);
    directory::UniqueFd socket(
        accept4(listener_.Get(), address, &length, SOCK_NONBLOCK | SOCK_CLOEXEC));
    if (socket) {
        // What is small and last must not wait until the client has confirmed what came before.
        const int yes = 1;
        setsockopt(socket.Get(), IPPROTO_TCP, TCP_NODELAY, &yes, sizeof yes);
        return AdmitOrEnd(std::move(socket), Peer::Of(address));
    }
    if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) {
        // It fails for want of a descriptor also while there is nobody to accept.
        const bool again = IsReadable(listener_.Get()) && MakeRoom();
        if (!again)
            Mute(true);
        return again;
    }
    return errno != EAGAIN; // other failures are the connection's own
}

void FrontDoor::Mute(bool muted) {
    muted_ = muted;
    if (listener_)
        Watch(EPOLL_CTL_MOD, listener_.Get(), muted ? 0 : std::uint32_t{EPOLLIN}, listenerId);
}

bool FrontDoor::IsListed(const IpAddress& address) const {
    return std::any_of(settings_.allowedNetworks.begin(), settings_.allowedNetworks.end(),
                       [&](const Network& network) { return network.Contains(address); });
}

bool FrontDoor::AdmitOrEnd(directory::UniqueFd socket, const Peer& peer) {
    try {
        Admit(std::move(socket), peer);
        return true;
    } catch (const std::exception& failure) { // such as one more to watch than the system allows
        std::erase_if(sites_, [](const auto& site) { return site.second.connections == 0; });
        nuisances_.Write(Nuisance::TooManyConnections, peer, failure.what(), Clock::now());
        Mute(true);
        return false;
    }
}

void FrontDoor::Admit(directory::UniqueFd socket, const Peer& peer) {
    const auto now = Clock::now();
    const bool isListed = IsListed(peer.address);
    const SiteKey key{peer.address.Site(), isListed};
    const auto known = sites_.find(key);
    const bool isFull = guests_.size() >= settings_.connections;
    const unsigned mostUnlisted = std::clamp(settings_.connections / 4, 1u, mostStrangers);
    if ((known != sites_.end() && known->second.connections >= settings_.connectionsPerAddress) ||
        (!isListed && (isFull || unlisted_ >= mostUnlisted)) ||
        limits_.IsFlooding(peer.address, isListed, now))
        return nuisances_.Write(Nuisance::TooManyConnections, peer, "", now);
    if (isFull && !MakeRoom())
        return nuisances_.Write(Nuisance::TooManyConnections, peer, "all are being answered", now);

    const std::uint64_t id = nextId_++;
    const auto site = sites_.try_emplace(key).first;
    const auto guest = guests_.try_emplace(id, std::move(socket), peer, site).first;
    ++site->second.connections;
    unlisted_ += isListed ? 0 : 1;
    ++open_;
    try {
        SetDeadline(guest, now + settings_.requestTime);
        Watch(EPOLL_CTL_ADD, guest->second.connection.Socket(), guest->second.watched, id);
        Follow(guest);
    } catch (...) {
        End(guest);
        throw;
    }
}

/// Those who may not ask give way first; then the oldest one does, of the site that holds the most,
/// or of those that do.
bool FrontDoor::MakeRoom() {
    const auto rank = [this](const Sites::value_type& site) {
        const auto& held = site.second.unfinished;
        const bool isListed = site.first.second;
        return held.empty() ? std::tuple(false, held.size(), std::uint64_t{0})
                            : std::tuple(!isListed, held.size(), nextId_ - *held.begin());
    };
    const auto most =
        std::max_element(sites_.begin(), sites_.end(), [&](const auto& one, const auto& other) {
            return rank(one) < rank(other);
        });
    if (most == sites_.end() || most->second.unfinished.empty())
        return false;
    const auto& held = most->second.unfinished;
    if (held.size() > guests_.size() / sites_.size()) // it leaves the others less than a fair share
        limits_.ChargeNuisance(most->first.first, most->first.second, Clock::now());
    EndAs(guests_.find(*held.begin()), Nuisance::GaveWay, "");
    return true;
}

void FrontDoor::AdvanceOrEnd(std::uint64_t id) {
    try {
        Advance(guests_.find(id));
    } catch (const std::exception& failure) { // such as no memory for it
        if (const auto guest = guests_.find(id); guest != guests_.end())
            EndAs(guest, Nuisance::GaveWay, failure.what());
    }
}

void FrontDoor::Advance(Guests::iterator guest) {
    using Step = Connection::Step;
    Connection& connection = guest->second.connection;
    const auto before = connection.WhichPhase();
    switch (connection.Advance(*context_)) {
    case Step::Waits:
        break;
    case Step::HasRequest:
        Decide(guest);
        break;
    case Step::Ended:
        return End(guest);
    case Step::ClosedEarly:
        return EndAs(guest, Nuisance::ClosedEarly, "");
    case Step::TooMuch:
        return EndAs(guest,
                     before == Connection::Phase::Handshake ? Nuisance::Handshake
                                                            : Nuisance::Malformed,
                     "it is too long");
    case Step::Failed:
        return EndAs(guest,
                     before == Connection::Phase::Handshake ? Nuisance::Handshake
                                                            : Nuisance::ClosedEarly,
                     connection.Failure());
    }
    if (before == Connection::Phase::Writing &&
        connection.WhichPhase() == Connection::Phase::Lingering)
        SetDeadline(guest, Clock::now() + settings_.lingerTime);
    Follow(guest);
}

/// Keeps up with what the connection has come to.
void FrontDoor::Follow(Guests::iterator guest) {
    auto& [id, entry] = *guest;
    if (IsUnfinished(entry.connection))
        entry.site->second.unfinished.insert(id);
    else
        entry.site->second.unfinished.erase(id);
    if (entry.connection.Events() != entry.watched) {
        entry.watched = entry.connection.Events();
        Watch(EPOLL_CTL_MOD, entry.connection.Socket(), entry.watched, id);
    }
}

void FrontDoor::Decide(Guests::iterator guest) {
    const auto now = Clock::now();
    const Connection& connection = guest->second.connection;
    const Peer& peer = connection.Client();
    const RequestReader& reader = connection.Reader();
    const bool mayAsk = Charge(guest->second, now);
    if (!guest->second.IsListed()) {
        nuisances_.Write(Nuisance::NotAllowed, peer, "", now);
        Refuse(guest, 403, Code::NotAllowed, "this address may not ask the authentication proxy");
    } else if (!mayAsk) {
        nuisances_.Write(Nuisance::TooManyRequests, peer, "", now);
        Refuse(guest, 429, Code::NotAllowed, "too many requests; try again in a minute");
    } else if (reader.Now() == RequestReader::State::Refused) {
        nuisances_.Write(Nuisance::Malformed, peer, reader.Message(), now);
        Refuse(guest, reader.Status(), Code::BadRequest, reader.Message());
    } else {
        SetDeadline(guest, now + settings_.waitTime);
        dispatch_(guest->first, peer, reader);
    }
}

/// \return whether it has not asked too often
bool FrontDoor::Charge(const Guest& guest, Clock::time_point now) {
    const IpAddress& address = guest.connection.Client().address;
    const RequestReader& reader = guest.connection.Reader();
    if (!guest.IsListed() || reader.Now() == RequestReader::State::Refused)
        return limits_.ChargeNuisance(address, guest.IsListed(), now);
    return AsksForHealth(reader) ? limits_.ChargeHealthRequest(address, now)
                                 : limits_.ChargeRequest(address, now);
}

void FrontDoor::Refuse(Guests::iterator guest, int status, Code code, const std::string& message) {
    guest->second.connection.SetAnswer(RefusalAnswer(status, code, message));
    SetDeadline(guest, Clock::now() + settings_.answerTime);
}

void FrontDoor::SetDeadline(Guests::iterator guest, Clock::time_point deadline) {
    deadlines_.erase({guest->second.deadline, guest->first});
    guest->second.deadline = deadline;
    if (deadline != never)
        deadlines_.insert({deadline, guest->first});
}

void FrontDoor::EndLate() {
    const auto now = Clock::now();
    while (!deadlines_.empty() && deadlines_.begin()->first <= now) {
        const auto guest = guests_.find(deadlines_.begin()->second);
        if (guest->second.connection.WhichPhase() == Connection::Phase::Running)
            SendAway(guest);
        else
            EndAs(guest, Nuisance::TooSlow, "");
    }
}

/// Tells one to come again whose answer nobody has begun with.
void FrontDoor::SendAway(Guests::iterator guest) {
    if (!cancel_(guest->first))
        return SetDeadline(guest, never);
    nuisances_.Write(Nuisance::Busy, guest->second.connection.Client(), "", Clock::now());
    Refuse(guest, 503, Code::Internal, "the authentication proxy is busy; try again in a minute");
    AdvanceOrEnd(guest->first);
}

void FrontDoor::EndAs(Guests::iterator guest, Nuisance kind, const std::string& detail) {
    const auto now = Clock::now();
    const Connection& connection = guest->second.connection;
    const auto phase = connection.WhichPhase();
    if (phase == Connection::Phase::Lingering)
        return End(guest); // it has its answer
    nuisances_.Write(kind, connection.Client(), detail, now);
    const bool isCounted =
        phase == Connection::Phase::Running || phase == Connection::Phase::Writing;
    if (!isCounted && kind != Nuisance::GaveWay)
        limits_.ChargeNuisance(connection.Client().address, guest->second.IsListed(), now);
    End(guest);
}

void FrontDoor::End(Guests::iterator guest) {
    if (guest->second.connection.WhichPhase() == Connection::Phase::Running)
        cancel_(guest->first);
    SetDeadline(guest, never);
    unlisted_ -= guest->second.IsListed() ? 0 : 1;
    --open_;
    const Sites::iterator site = guest->second.site;
    site->second.unfinished.erase(guest->first);
    guests_.erase(guest);
    if (--site->second.connections == 0)
        sites_.erase(site);
}

void FrontDoor::Answer(std::uint64_t id, const Peer& peer, SecretText answer) {
    const std::lock_guard lock(mutex_);
    answers_.push_back({id, peer, std::move(answer)});
    eventfd_write(wake_.Get(), 1);
}

void FrontDoor::Stop() {
    const std::lock_guard lock(mutex_);
    stopping_ = true;
    eventfd_write(wake_.Get(), 1);
}

void FrontDoor::TakeAnswers() {
    decltype(answers_) answers;
    {
        eventfd_t count = 0;
        const std::lock_guard lock(mutex_);
        eventfd_read(wake_.Get(), &count);
        answers.swap(answers_);
    }
    for (auto& [id, peer, answer] : answers) {
        const auto guest = guests_.find(id);
        if (guest == guests_.end()) {
            sink_(LOG_NOTICE, peer.Text() + ": the client left before it had its answer");
            continue;
        }
        guest->second.connection.SetAnswer(std::move(answer));
        SetDeadline(guest, Clock::now() + settings_.answerTime);
        AdvanceOrEnd(id);
    }
}

void FrontDoor::Close() {
    listener_ = directory::UniqueFd();
    for (auto guest = guests_.begin(); guest != guests_.end();) {
        const auto next = std::next(guest);
        if (IsUnfinished(guest->second.connection))
            End(guest);
        guest = next;
    }
}

} // namespace tessary::proxy
