#include "resolver.h"

#include "operation.h"
#include "text.h"

#include <arpa/nameser.h>
#include <netdb.h>
#include <netinet/in.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <random>
#include <string_view>
#include <tuple>

namespace tessary::directory {
namespace {

constexpr int secondsPerTry = 2;
constexpr int triesPerServer = 2;
constexpr int ampleTime = 6000; // milliseconds: what one silent server costs
constexpr std::size_t largestAnswer = 65535;

struct AddressListDeleter {
    void operator()(addrinfo* list) const { freeaddrinfo(list); }
};

/// Reads the records of one section of an answer, leaving out what is malformed.
template <typename Function>
void ForEachRecord(ns_msg& message, ns_sect section, Function function) {
    for (int i = 0; i < ns_msg_count(message, section); ++i) {
        ns_rr record;
        if (ns_parserr(&message, section, i, &record) != 0)
            return;
        function(record);
    }
}

/// Draws from the services of one priority, the heavier the likelier, until none is left.
template <typename Iterator>
void ShuffleByWeight(Iterator first, Iterator last, std::minstd_rand& random) {
    for (; first != last; ++first) {
        unsigned total = 0;
        std::for_each(first, last, [&](const auto& service) { total += service.weight; });
        unsigned drawn = std::uniform_int_distribution<unsigned>(0, total)(random);
        const auto chosen = std::find_if(first, last, [&](const auto& service) {
            if (drawn <= service.weight)
                return true;
            drawn -= service.weight;
            return false;
        });
        std::iter_swap(first, chosen);
    }
}

} // namespace

MutedResolver::MutedResolver() {
    if ((_res.options & RES_INIT) == 0)
        res_init();
    serverCount_ = _res.nscount;
    _res.nscount = 0;
}

MutedResolver::~MutedResolver() {
    _res.nscount = serverCount_;
}

Resolver::Resolver(const Deadline& deadline) : answer_(largestAnswer) {
    if (res_ninit(&state_) != 0)
        throw Error(Status::NoController, "the host's name resolution is not configured");
    const bool ample = deadline.Milliseconds() >= ampleTime;
    state_.retrans = std::min(state_.retrans, ample ? secondsPerTry : secondsPerTry / 2);
    state_.retry = std::min(state_.retry, triesPerServer);
    // Large answers fit into one datagram, and of one that doesn't the part that came will do: the
    // C library's TCP, be it the host's preference, knows no time limit.
    state_.options |= RES_USE_EDNS0 | RES_IGNTC;
    state_.options &= ~static_cast<decltype(state_.options)>(RES_USEVC);
}

Resolver::~Resolver() {
    res_nclose(&state_);
}

bool Resolver::Query(const std::string& name, int type) {
    queryError_ = TRY_AGAIN;
    isPartial_ = false;
    answer_.clear();
    if (silent_)
        return false;
    const Waiting waiting;
    const Deadline firstTry = Deadline::In(std::chrono::seconds(state_.retrans));
    answer_.resize(largestAnswer);
    const int length = res_nquery(&state_, name.c_str(), ns_c_in, type, answer_.data(),
                                  static_cast<int>(answer_.size()));
    queryError_ = length < 0 ? state_.res_h_errno : 0;
    isPartial_ = reinterpret_cast<const HEADER*>(answer_.data())->tc != 0; // also without a record
    answer_.resize(length < 0 ? 0 : static_cast<std::size_t>(length));
    silent_ = queryError_ == TRY_AGAIN && firstTry.Passed();
    return length >= 0;
}

bool Resolver::IsTold() const {
    return !isPartial_ &&
           (queryError_ == 0 || queryError_ == HOST_NOT_FOUND || queryError_ == NO_DATA);
}

void Resolver::AddAddress(const std::string& host, int type, const unsigned char* data,
                          unsigned length) {
    std::optional<SocketAddress> address;
    if (type == ns_t_a && length == sizeof(in_addr)) {
        sockaddr_in ipv4{};
        ipv4.sin_family = AF_INET;
        std::memcpy(&ipv4.sin_addr, data, length);
        address.emplace(reinterpret_cast<sockaddr*>(&ipv4), sizeof ipv4, 0);
    } else if (type == ns_t_aaaa && length == sizeof(in6_addr)) {
        sockaddr_in6 ipv6{};
        ipv6.sin6_family = AF_INET6;
        std::memcpy(&ipv6.sin6_addr, data, length);
        address.emplace(reinterpret_cast<sockaddr*>(&ipv6), sizeof ipv6, 0);
    } else {
        return;
    }
    // The answers about several services tell of the same hosts.
    std::vector<SocketAddress>& known = known_[LowerCase(host)].addresses;
    if (std::none_of(known.begin(), known.end(),
                     [&](const SocketAddress& each) { return each.Text() == address->Text(); }))
        known.push_back(*address);
}

void Resolver::ThrowNoService(const std::string& name) const {
    if (IsTold())
        throw Error(Status::NoSuchDomain, "no service record " + name);
    throw Error(
        Status::NoController,
        (silent_ ? "no name server answers the question for " : "no name server can tell ") + name);
}

std::vector<ServiceRecord> Resolver::ServiceRecords(const std::string& name) {
    ns_msg message;
    if (!Query(name, ns_t_srv))
        ThrowNoService(name);
    if (ns_initparse(answer_.data(), static_cast<int>(answer_.size()), &message) != 0)
        throw Error(Status::NoController, "malformed answer for " + name);

    std::vector<ServiceRecord> services;
    ForEachRecord(message, ns_s_an, [&](const ns_rr& record) {
        char host[NS_MAXDNAME];
        const unsigned char* data = ns_rr_rdata(record);
        if (ns_rr_type(record) != ns_t_srv || ns_rr_rdlen(record) < 7 ||
            dn_expand(ns_msg_base(message), ns_msg_end(message), data + 6, host, sizeof host) < 0)
            return;
        if (host[0] != '\0')
            services.push_back({ns_get16(data), ns_get16(data + 2), host});
    });
    ForEachRecord(message, ns_s_ar, [&](const ns_rr& record) {
        AddAddress(ns_rr_name(record), ns_rr_type(record), ns_rr_rdata(record),
                   ns_rr_rdlen(record));
    });
    if (services.empty())
        ThrowNoService(name);

    std::sort(services.begin(), services.end(), [](const auto& a, const auto& b) {
        return std::tie(a.priority, b.weight, a.host) < std::tie(b.priority, a.weight, b.host);
    });
    return services;
}

std::vector<std::string> Resolver::ServiceHosts(const std::string& name) {
    std::vector<ServiceRecord> services = ServiceRecords(name);
    std::minstd_rand random(std::random_device{}());
    for (auto first = services.begin(); first != services.end();) {
        const auto last = std::find_if(first, services.end(), [&](const ServiceRecord& service) {
            return service.priority != first->priority;
        });
        ShuffleByWeight(first, last, random);
        first = last;
    }
    std::vector<std::string> hosts;
    hosts.reserve(services.size());
    for (const ServiceRecord& service : services)
        hosts.push_back(service.host);
    return hosts;
}

void Resolver::QueryAddresses(const std::string& host, int type) {
    ns_msg message;
    if (!Query(host, type) ||
        ns_initparse(answer_.data(), static_cast<int>(answer_.size()), &message) != 0)
        return;
    // The records may be those of an alias's target; all are the host's.
    ForEachRecord(message, ns_s_an, [&](const ns_rr& record) {
        AddAddress(host, ns_rr_type(record), ns_rr_rdata(record), ns_rr_rdlen(record));
    });
}

const HostAddresses& Resolver::LookUp(const std::string& host) {
    const auto [place, isNew] = known_.try_emplace(LowerCase(host));
    HostAddresses& result = place->second;
    if (!isNew)
        return result;

    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    {
        const MutedResolver localOnly;
        const Waiting waiting;
        if (getaddrinfo(host.c_str(), nullptr, &hints, &found) != 0)
            found = nullptr;
    }
    const std::unique_ptr<addrinfo, AddressListDeleter> list(found);
    for (const addrinfo* entry = list.get(); entry; entry = entry->ai_next)
        if (entry->ai_family == AF_INET || entry->ai_family == AF_INET6)
            result.addresses.emplace_back(entry->ai_addr, entry->ai_addrlen, 0);
    if (!result.addresses.empty())
        return result;

    bool told = true;
    for (const int type : {ns_t_a, ns_t_aaaa}) {
        QueryAddresses(host, type);
        told = told && IsTold();
    }
    if (!told)
        result.failure = Error(Status::NoController,
                               silent_ ? "no name server answers" : "no name server can tell");
    return result;
}

} // namespace tessary::directory
