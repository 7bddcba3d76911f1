/// What the proxy answers.
#ifndef TESSARY_PROXY_HTTP_SERVICE_H
#define TESSARY_PROXY_HTTP_SERVICE_H

#include "account_service.h"
#include "decision_log.h"
#include "host_check.h"
#include "network.h"
#include "secret_text.h"

#include <httplib.h>

#include <string>

namespace tessary::proxy {

/// Answers whole requests from memory. Any number of threads may call it at once.
class HttpService : private httplib::Server {
public:
    /// \param accounts stays the caller's
    HttpService(AccountService& accounts, HostCheck hostCheck, LogSink sink);

    /// \param request as RequestReader hands it on
    SecretText Answer(const Peer& peer, const std::string& request);

private:
    using Request = httplib::Request;
    using Response = httplib::Response;

    HandlerResponse CheckRoute(const Request& request, Response& response) const;
    void AnswerDomain(const Request& request, Response& response);
    void AnswerAccount(const Request& request, Response& response);
    void Log(int priority, const Request& request, const std::string& host,
             const std::string& text) const;
    void Refuse(const Request& request, Response& response, const std::string& host,
                const Refusal& refusal) const;

    AccountService& accounts_;
    const HostCheck hostCheck_;
    const LogSink sink_;
};

} // namespace tessary::proxy

#endif
