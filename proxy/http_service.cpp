#include "http_service.h"

#include <syslog.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <nlohmann/json.hpp>

#include "host_name.h"
#include "refusal_answer.h"
#include "request_body.h"

namespace tessary::proxy {
namespace {

constexpr char json[] = "application/json";
constexpr std::string_view headEnd = "\r\n\r\n";
constexpr std::size_t longestLine = 1024;

struct Route {
    const char* path;
    const char* method;
};

constexpr Route healthRoute = {"/healthz", "GET"};
constexpr Route domainRoute = {"/v1/domain", "GET"};
constexpr Route accountRoute = {"/v1/machine-accounts", "POST"};

/// A request in memory, and room for its answer.
class MemoryStream final : public httplib::Stream {
public:
    MemoryStream(const Peer& peer, std::string_view request) : peer_(peer), rest_(request) {}

    SecretText TakeAnswer() { return std::move(answer_); }

    using httplib::Stream::write;
    bool is_readable() const override { return true; }
    bool is_writable() const override { return true; }
    ssize_t read(char* buffer, std::size_t size) override {
        size = std::min(size, rest_.size());
        std::memcpy(buffer, rest_.data(), size);
        rest_.remove_prefix(size);
        return static_cast<ssize_t>(size);
    }
    ssize_t write(const char* text, std::size_t size) override {
        answer_.Append({text, size});
        return static_cast<ssize_t>(size);
    }
    void get_remote_ip_and_port(std::string& address, int& port) const override {
        address = peer_.address.Text();
        port = peer_.port;
    }
    void get_local_ip_and_port(std::string& address, int& port) const override {
        address.clear();
        port = 0;
    }
    socket_t socket() const override { return 0; } // one that select() could take

private:
    const Peer& peer_;
    std::string_view rest_;
    SecretText answer_;
};

Peer PeerOf(const httplib::Request& request) {
    return {IpAddress::Parse(request.remote_addr).value_or(IpAddress()),
            static_cast<std::uint16_t>(request.remote_port)};
}

/// The JSON text of a value, quoted, without a copy that stays.
void AppendQuoted(SecretText& text, std::string_view value) {
    static constexpr char digits[] = "0123456789abcdef";
    text.Append("\"");
    for (const char& c : value) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte < 0x20) {
            const char escaped[] = {'\\', 'u', '0', '0', digits[byte >> 4], digits[byte & 15]};
            text.Append({escaped, sizeof escaped});
        } else {
            if (c == '"' || c == '\\')
                text.Append("\\");
            text.Append({&c, 1});
        }
    }
    text.Append("\"");
}

} // namespace

HttpService::HttpService(AccountService& accounts, HostCheck hostCheck, LogSink sink)
    : accounts_(accounts), hostCheck_(std::move(hostCheck)), sink_(std::move(sink)) {
    // A content provider is asked only while the server seems to listen, which this one never does
    // itself.
    svr_sock_ = 0;
    set_pre_routing_handler([this](const Request& request, Response& response) {
        return CheckRoute(request, response);
    });
    Get(healthRoute.path, [](const Request&, Response& response) {
        response.set_content(R"({"status":"ok"})", json);
    });
    Get(domainRoute.path,
        [this](const Request& request, Response& response) { AnswerDomain(request, response); });
    Post(accountRoute.path,
         [this](const Request& request, Response& response) { AnswerAccount(request, response); });
}

SecretText HttpService::Answer(const Peer& peer, const std::string& request) {
    try {
        MemoryStream stream(peer, request);
        bool closed = false;
        process_request(stream, true, closed, nullptr);
        SecretText answer = stream.TakeAnswer();
        const std::string_view text = answer.View();
        // What the library refuses by itself has no body; nothing that a reader took should be.
        if (const std::size_t head = text.find(headEnd);
            head != std::string_view::npos && text.size() > head + headEnd.size())
            return answer;
        sink_(LOG_ERR, Printable(peer.Text() + ": no answer was made: " +
                                 std::string(text.substr(0, text.find('\r')))));
    } catch (const std::exception& failure) {
        sink_(LOG_ERR, Printable(peer.Text() + ": no answer was made: " + failure.what()));
    }
    return RefusalAnswer(500, Code::Internal, "the authentication proxy failed");
}

HttpService::HandlerResponse HttpService::CheckRoute(const Request& request,
                                                     Response& response) const {
    for (const Route& route : {healthRoute, domainRoute, accountRoute}) {
        if (request.path != route.path)
            continue;
        if (request.method == route.method)
            return HandlerResponse::Unhandled;
        Refuse(request, response, "",
               Refusal(Code::BadRequest, std::string("this path takes ") + route.method));
        response.status = 405;
        response.set_header("Allow", route.method);
        return HandlerResponse::Handled;
    }
    Refuse(request, response, "", Refusal(Code::BadRequest, "there is no such path", request.path));
    response.status = 404;
    return HandlerResponse::Handled;
}

void HttpService::AnswerDomain(const Request& request, Response& response) {
    try {
        const DomainInfo domain = accounts_.Domain();
        const nlohmann::json body = {
            {"netbiosName", domain.netbiosName}, {"dnsName", domain.dnsName}, {"sid", domain.sid}};
        response.set_content(body.dump(), json);
        Log(LOG_INFO, request, "", "told about the domain " + domain.dnsName);
    } catch (const Refusal& refusal) {
        Refuse(request, response, "", refusal);
    } catch (const std::exception& failure) {
        Refuse(request, response, "",
               Refusal(Code::Internal, "the authentication proxy failed", failure.what()));
    }
}

void HttpService::AnswerAccount(const Request& request, Response& response) {
    std::string host;
    try {
        const AccountRequest asked = AccountRequest::Parse(request.body);
        host = nlohmann::json(Printable(asked.hostName)).dump(); // quoted: it may have any sign
        const auto name = NormalizeHostName(asked.hostName);
        if (!name)
            throw Refusal(Code::BadRequest, "that is not a fully qualified host name");
        host = *name;
        accounts_.ExpectHost(*name); // before name servers are asked that may be anybody's
        hostCheck_.Check(*name, PeerOf(request).address);
        const NewAccount account = accounts_.Create(*name, asked.container);

        const auto body = std::make_shared<SecretText>(R"({"accountName":)");
        AppendQuoted(*body, account.accountName);
        body->Append(R"(,"password":)");
        AppendQuoted(*body, account.password.View());
        body->Append("}");
        response.status = 201;
        // Set as content, it would be copied, and the copies left in memory.
        response.set_content_provider(
            body->View().size(), json,
            [body](std::size_t offset, std::size_t length, httplib::DataSink& sink) {
                return sink.write(body->View().data() + offset, length);
            });
        Log(LOG_INFO, request, host, "given the account " + account.accountName);
    } catch (const Refusal& refusal) {
        Refuse(request, response, host, refusal);
    } catch (const std::exception& failure) {
        Refuse(request, response, host,
               Refusal(Code::Internal, "the authentication proxy failed", failure.what()));
    }
}

void HttpService::Log(int priority, const Request& request, const std::string& host,
                      const std::string& text) const {
    std::string line = PeerOf(request).Text();
    if (!host.empty())
        line += " " + host;
    sink_(priority, Printable(line + ": " + text, longestLine));
}

void HttpService::Refuse(const Request& request, Response& response, const std::string& host,
                         const Refusal& refusal) const {
    const Code code = refusal.WhichCode();
    response.status = HttpStatusOf(code);
    response.set_content(RefusalBody(code, refusal.what()), json);
    const std::string detail = refusal.Detail().empty() ? "" : " (" + refusal.Detail() + ")";
    Log(code == Code::Internal ? LOG_ERR : LOG_NOTICE, request, host,
        std::string("refused: ") + refusal.what() + detail);
}

} // namespace tessary::proxy
