#include "diagnosis_name_servers.h"

#include "diagnosis_text.h"
#include "error.h"
#include "files.h"
#include "socket.h"

#include <arpa/nameser.h>
#include <netdb.h>
#include <netinet/in.h>
#include <resolv.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <optional>
#include <sstream>
#include <system_error>

namespace tessary::directory {
namespace {

using namespace std::chrono_literals;

constexpr char configuration[] = "/etc/resolv.conf";
constexpr std::chrono::milliseconds patience = 3s;
constexpr std::chrono::milliseconds firstTry = 1s; // a datagram may get lost

struct AddressListDeleter {
    void operator()(addrinfo* list) const { freeaddrinfo(list); }
};

/// A line of the configuration.
struct ConfiguredServer {
    std::string name; ///< as it is written
    int line;         ///< 0 where the configuration names none, and the host itself is asked
};

/// The servers that the C library asks: no more than the first three. Without any it asks the host
/// itself.
std::vector<ConfiguredServer> ConfiguredServers() {
    constexpr std::string_view keyword = "nameserver";
    std::vector<ConfiguredServer> servers;
    std::istringstream lines(ReadFile(configuration).value_or(""));
    int number = 0;
    for (std::string line; std::getline(lines, line) && servers.size() < MAXNS;) {
        ++number;
        std::istringstream words(line.substr(0, line.find_first_of("#;")));
        std::string first, server;
        if (line.compare(0, keyword.size(), keyword) == 0 && words >> first >> server &&
            first == keyword)
            servers.push_back({server, number});
    }
    if (servers.empty())
        servers.push_back({"127.0.0.1", 0});
    return servers;
}

std::optional<SocketAddress> AddressOf(const std::string& name) {
    addrinfo hints{};
    hints.ai_flags = AI_NUMERICHOST;
    hints.ai_socktype = SOCK_DGRAM;
    addrinfo* found = nullptr;
    if (getaddrinfo(name.c_str(), nullptr, &hints, &found) != 0)
        return std::nullopt;
    const std::unique_ptr<addrinfo, AddressListDeleter> list(found);
    return SocketAddress(list->ai_addr, list->ai_addrlen, NAMESERVER_PORT);
}

using Message = std::vector<unsigned char>;

/// Asks for the domain's controllers or, without a domain, for the servers of all names.
Message MakeQuestion(const std::string& domain) {
    struct __res_state state {};
    Message question(PACKETSZ);
    if (res_ninit(&state) != 0)
        throw Error(Status::NoController, "the host's name resolution is not configured");
    const int length =
        domain.empty()
            ? res_nmkquery(&state, ns_o_query, ".", ns_c_in, ns_t_ns, nullptr, 0, nullptr,
                           question.data(), PACKETSZ)
            : res_nmkquery(&state, ns_o_query, ("_ldap._tcp.dc._msdcs." + domain).c_str(), ns_c_in,
                           ns_t_srv, nullptr, 0, nullptr, question.data(), PACKETSZ);
    res_nclose(&state);
    if (length < 0)
        throw Error(Status::InvalidDomainName, "no name server can be asked for " + domain);
    question.resize(static_cast<std::size_t>(length));
    return question;
}

/// One server's answer, or why there is none.
class ServerProbe {
public:
    ServerProbe(ConfiguredServer server, const Message& question)
        : server_(std::move(server)), question_(question), started_(Deadline::Clock::now()) {
        const std::optional<SocketAddress> address = AddressOf(server_.name);
        if (!address) {
            problem_ = "is not an address";
            return;
        }
        socket_ = UniqueFd(
            socket(address->Get()->sa_family, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
        if (!socket_ || connect(socket_.Get(), address->Get(), address->Length()) != 0)
            GiveUp("cannot be asked: " + std::generic_category().message(errno));
        else
            Ask();
    }

    bool Waits() const { return static_cast<bool>(socket_); }
    pollfd Wanted() const { return {socket_.Get(), POLLIN, 0}; }

    void Ask() {
        if (send(socket_.Get(), question_.data(), question_.size(), MSG_NOSIGNAL) < 0)
            Fail(errno);
    }

    void Receive() {
        Message answer(NS_MAXMSG);
        const ssize_t got = recv(socket_.Get(), answer.data(), answer.size(), 0);
        if (got < 0 && errno != EAGAIN && errno != EINTR)
            Fail(errno);
        ns_msg message;
        if (got < HFIXEDSZ || answer[0] != question_[0] || answer[1] != question_[1] ||
            ns_initparse(answer.data(), static_cast<int>(got), &message) != 0 ||
            ns_msg_getflag(message, ns_f_qr) == 0)
            return; // not the answer, which may still come
        latency_ = std::chrono::duration_cast<Latency>(Deadline::Clock::now() - started_);
        result_ = ns_msg_getflag(message, ns_f_rcode);
        knows_ = ns_msg_count(message, ns_s_an) > 0 || ns_msg_getflag(message, ns_f_tc) != 0;
        socket_ = UniqueFd();
    }

    void GiveUp(const std::string& problem) {
        problem_ = problem;
        socket_ = UniqueFd();
    }

    const ConfiguredServer& Server() const { return server_; }
    bool Answers() const { return problem_.empty(); }
    /// Whether its answer, be it that there is no such name, is one that a look-up can use.
    bool IsUsable(bool anyAnswer) const {
        return Answers() && (anyAnswer || result_ == ns_r_noerror || result_ == ns_r_nxdomain);
    }
    bool Knows() const { return Answers() && knows_; }
    /// What it did.
    std::string Text(bool anyAnswer) const {
        if (!Answers())
            return problem_;
        const std::string text = "answers in " + LatencyText(latency_);
        if (IsUsable(anyAnswer))
            return text;
        const std::string code = result_ == ns_r_servfail  ? "SERVFAIL"
                                 : result_ == ns_r_refused ? "REFUSED"
                                                           : "error " + std::to_string(result_);
        return text + ", but only that it cannot tell (" + code + ")";
    }

private:
    void Fail(int error) {
        GiveUp(error == ECONNREFUSED
                   ? "refuses: no name server runs there"
                   : "cannot be asked: " + std::generic_category().message(error));
    }

    ConfiguredServer server_;
    const Message& question_;
    UniqueFd socket_;
    Deadline::Clock::time_point started_;
    std::string problem_;
    Latency latency_{};
    int result_ = 0;
    bool knows_ = false;
};

/// Receives until all have answered or the time is over.
void ReceiveAll(std::vector<ServerProbe>& probes, const Deadline& end) {
    for (;;) {
        std::vector<pollfd> descriptors;
        std::vector<ServerProbe*> waiting;
        for (ServerProbe& probe : probes) {
            if (!probe.Waits())
                continue;
            descriptors.push_back(probe.Wanted());
            waiting.push_back(&probe);
        }
        // A server that never stops sending does not outlast the end.
        if (waiting.empty() || end.Passed() || !Poll(descriptors, end))
            return;
        for (std::size_t i = 0; i < waiting.size(); ++i)
            if (descriptors[i].revents != 0)
                waiting[i]->Receive();
    }
}

std::vector<ServerProbe> AskAll(const Message& question) {
    const Deadline end = Deadline::In(patience);
    std::vector<ServerProbe> probes;
    for (ConfiguredServer& server : ConfiguredServers())
        probes.emplace_back(std::move(server), question);
    ReceiveAll(probes, end.AtMost(firstTry));
    for (ServerProbe& probe : probes)
        if (probe.Waits())
            probe.Ask();
    ReceiveAll(probes, end);
    for (ServerProbe& probe : probes)
        if (probe.Waits())
            probe.GiveUp("does not answer within " + std::to_string(patience / 1s) + " s");
    return probes;
}

std::string LineOf(const ConfiguredServer& server) {
    return "line " + std::to_string(server.line) + " of " + configuration;
}

Finding FindingOn(const ServerProbe& probe, const std::string& domain, const ServerProbe* usable,
                  const ServerProbe* knowing) {
    const ConfiguredServer& server = probe.Server();
    const std::string check = "name server " + server.name;
    const std::string known = domain.empty() ? "the domain" : domain;
    if (probe.IsUsable(domain.empty())) {
        if (!knowing || probe.Knows())
            return {check, Severity::Ok, probe.Text(domain.empty()), ""};
        return {check, Severity::Warning,
                "does not know " + domain + ", which " + knowing->Server().name +
                    " does: look-ups fail when they come to it",
                "take " + LineOf(server) + " out, or name a server there that knows " + domain};
    }
    if (server.line == 0)
        return {"name servers", Severity::Failure,
                std::string(configuration) + " names no name server",
                std::string("echo 'nameserver ADDRESS' >>") + configuration +
                    ", with the address of a server that knows " + known};
    if (usable)
        return {check, Severity::Warning,
                probe.Text(domain.empty()) + "; " + usable->Server().name + " answers in its place",
                "take " + LineOf(server) + " out, or correct it"};
    return {check, Severity::Failure,
            probe.Text(domain.empty()) + ", and no other name server is of use",
            "name a server that knows " + known + " in " + LineOf(server)};
}

template <typename Predicate>
const ServerProbe* FirstThat(const std::vector<ServerProbe>& probes, Predicate predicate) {
    const auto found = std::find_if(probes.begin(), probes.end(), predicate);
    return found == probes.end() ? nullptr : &*found;
}

} // namespace

Findings CheckNameServers(const std::string& domain) {
    const Message question = MakeQuestion(domain);
    const std::vector<ServerProbe> probes = AskAll(question);
    const ServerProbe* const usable =
        FirstThat(probes, [&](const ServerProbe& probe) { return probe.IsUsable(domain.empty()); });
    const ServerProbe* const knowing =
        domain.empty() ? nullptr
                       : FirstThat(probes, [](const ServerProbe& probe) { return probe.Knows(); });
    Findings findings;
    for (const ServerProbe& probe : probes)
        findings.push_back(FindingOn(probe, domain, usable, knowing));
    return findings;
}

} // namespace tessary::directory
