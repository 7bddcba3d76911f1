#include "server.h"

namespace tessary::proxy {

Server::Server(const ServerSettings& settings, const Identity& identity, AccountService& accounts,
               HostLookUp lookUp, LogSink sink)
    : service_(accounts,
               HostCheck(std::move(lookUp), settings.hostsWithoutForwardEntry, settings.lookUpTime),
               sink),
      door_(
          settings.front, MakeTlsContext(identity), std::move(sink),
          [this](std::uint64_t id, const Peer& peer, const RequestReader& reader) {
              Dispatch(id, peer, reader);
          },
          [this](std::uint64_t id) { return queue_.Cancel(id); }),
      queue_(settings.workers, settings.workersPerAddress) {
    thread_ = std::thread([this] {
        door_.Run();
        ended_.set_value();
    });
}

Server::~Server() {
    door_.Stop();
    thread_.join();
}

void Server::Dispatch(std::uint64_t id, const Peer& peer, const RequestReader& reader) {
    const bool isQuick = reader.Target() == "/healthz";
    queue_.Add({id, peer.address.Site(), isQuick, [this, id, peer, request = reader.Request()] {
                    door_.Answer(id, peer, service_.Answer(peer, request));
                }});
}

bool Server::Stop(const directory::Deadline& deadline) {
    door_.Stop();
    return hasEnded_.wait_for(std::chrono::milliseconds(deadline.Milliseconds())) ==
               std::future_status::ready &&
           queue_.WaitUntilIdle(deadline);
}

} // namespace tessary::proxy
