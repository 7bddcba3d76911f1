#include "refusal_answer.h"

#include <nlohmann/json.hpp>

namespace tessary::proxy {

std::string RefusalBody(Code code, const std::string& message) {
    const nlohmann::json body = {{"code", static_cast<std::uint32_t>(code)}, {"message", message}};
    return body.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

int HttpStatusOf(Code code) {
    switch (code) {
    case Code::NotAllowed:
        return 403;
    case Code::BadRequest:
        return 400;
    case Code::NoController:
        return 503;
    case Code::NoSuchDomain:
        return 502;
    case Code::Internal:
        break;
    }
    return 500;
}

SecretText RefusalAnswer(int status, Code code, const std::string& message) {
    const std::string body = RefusalBody(code, message);
    return SecretText("HTTP/1.1 " + std::to_string(status) + " Refused\r\n" +
                      (status == 429 || status == 503 ? "Retry-After: 60\r\n" : "") +
                      "Connection: close\r\nContent-Type: application/json\r\nContent-Length: " +
                      std::to_string(body.size()) + "\r\n\r\n" + body);
}

} // namespace tessary::proxy
