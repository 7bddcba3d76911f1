#include "answers.h"

#include "secret_json.h"
#include "status.h"

#include <cstdint>
#include <limits>
#include <optional>

namespace tessary::apxhttps {
namespace {

constexpr const char* noProxy = "what answered is no authentication proxy";

std::optional<std::uint32_t> RefusalCode(const SecretJson& document) {
    const auto found = document.find("code"); // at the end, if it is no object
    if (found == document.end() || !found->is_number_unsigned())
        return std::nullopt;
    const auto code = found->get<std::uint64_t>();
    if (code == 0 || code > std::numeric_limits<std::uint32_t>::max())
        return std::nullopt;
    return static_cast<std::uint32_t>(code);
}

/// The sentence that the proxy gives for it.
std::string RefusalReason(const SecretJson& document, long httpStatus) {
    const auto found = document.find("message");
    if (found != document.end() && found->is_string()) {
        const auto& message = found->get_ref<const SecretString&>();
        return {message.data(), message.size()};
    }
    return "the answer was HTTP status " + std::to_string(httpStatus);
}

/// What is in an answer of the given HTTP status, which is that of success.
SecretJson Read(const Answer& answer, long success) {
    SecretJson document = ParseSecretJson(answer.body);
    if (answer.httpStatus != success)
        throw Failure(StatusOfRefusal(answer.httpStatus, RefusalCode(document)),
                      RefusalReason(document, answer.httpStatus));
    return document;
}

SecretString TextOf(const SecretJson& document, const char* name) {
    const auto found = document.find(name);
    if (found == document.end() || !found->is_string())
        throw Failure(Status::InternalError, noProxy);
    const auto& text = found->get_ref<const SecretString&>();
    if (text.empty() || text.find('\0') != SecretString::npos)
        throw Failure(Status::InternalError, noProxy);
    return text;
}

} // namespace

DomainInfo ReadDomainInfo(const Answer& answer) {
    const SecretJson document = Read(answer, 200);
    return {TextOf(document, "netbiosName"), TextOf(document, "dnsName"), TextOf(document, "sid")};
}

MachineAccount ReadMachineAccount(const Answer& answer) {
    const SecretJson document = Read(answer, 201);
    return {TextOf(document, "accountName"), TextOf(document, "password")};
}

} // namespace tessary::apxhttps
