/// Any bytes from the network: what the proxy makes of them does not depend on the pieces that they
/// come in, keeps within its limits, is what a plain model of it says, and has an answer that its
/// clients can read; or the process is aborted.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>

#include "account_service.h"
#include "host_name.h"
#include "http_service.h"
#include "request_body.h"
#include "request_reader.h"

namespace {

using namespace tessary::proxy;
using nlohmann::json;

void Expect(bool holds, const char* what) {
    if (holds)
        return;
    std::fprintf(stderr, "finding: %s\n", what);
    std::abort();
}

/// \param seed how long the pieces are; 0: all at once
RequestReader Read(std::string_view text, unsigned seed) {
    RequestReader reader;
    while (!text.empty()) {
        const std::size_t size = seed == 0 ? text.size() : 1 + seed % 31;
        reader.Feed(text.substr(0, size));
        text.remove_prefix(std::min(size, text.size()));
        seed = seed == 0 ? 0 : seed * 1103515245 + 12345;
    }
    return reader;
}

void CheckAgreement(const RequestReader& a, const RequestReader& b) {
    Expect(a.Now() == b.Now() && a.Status() == b.Status() &&
               std::string_view(a.Message()) == b.Message(),
           "the pieces matter");
    Expect(a.Now() != RequestReader::State::Complete || a.Request() == b.Request(),
           "the pieces matter to the request");
    Expect((a.Now() == RequestReader::State::Refused) == (a.Status() >= 400 && a.Status() <= 505),
           "a refusal without its reason");
}

/// What stands behind the head is as long as the head says, and the head is two lines.
void CheckRequest(const RequestReader& reader, std::string_view text) {
    const std::string request = reader.Request();
    const std::size_t end = request.find("\r\n\r\n");
    Expect(end != std::string::npos && request.substr(end + 4) == reader.Body(), "another body");
    const std::string head = request.substr(0, end);
    Expect(head == reader.Method() + " " + reader.Target() +
                       " HTTP/1.1\r\nContent-Length: " + std::to_string(reader.Body().size()),
           "another head");
    Expect(std::count(head.begin(), head.end(), '\n') == 1 &&
               std::count(head.begin(), head.end(), ' ') == 3,
           "a head of other lines");
    Expect(reader.Body().size() <= RequestReader::bodyLimit &&
               text.size() <= RequestReader::headLimit + RequestReader::bodyLimit,
           "too much");
    Expect(text.ends_with(reader.Body()), "a body that was not sent");
}

std::optional<AccountRequest> Parse(const std::string& body) {
    try {
        return AccountRequest::Parse(body);
    } catch (const Refusal& refusal) {
        Expect(refusal.WhichCode() == Code::BadRequest, "a refusal for another reason");
        return std::nullopt;
    }
}

/// The same, from a tree and a count of the members.
std::optional<AccountRequest> ModelOfParse(const std::string& body) {
    if (body.find('\0') != std::string::npos)
        return std::nullopt;
    std::map<std::string, int> members;
    const json tree = json::parse(
        body,
        [&](int depth, json::parse_event_t event, json& value) {
            if (event == json::parse_event_t::key && depth == 1)
                ++members[value.get<std::string>()];
            return true;
        },
        false);
    if (!tree.is_object() || !tree.contains("hostName") || !tree["hostName"].is_string())
        return std::nullopt;
    for (const auto& [name, count] : members)
        if (count != 1 || (name != "hostName" && name != "container"))
            return std::nullopt;
    const json container = tree.value("container", json(nullptr));
    if (!container.is_null() && !container.is_string())
        return std::nullopt;
    return AccountRequest{tree["hostName"].get<std::string>(),
                          container.is_null() ? "" : container.get<std::string>()};
}

bool ModelOfIsHostName(std::string name) {
    if (!name.empty() && name.back() == '.')
        name.pop_back();
    name = "." + name + ".";
    const std::string last = name.substr(name.rfind('.', name.size() - 2));
    return name.size() <= 255 && std::count(name.begin(), name.end(), '.') >= 3 &&
           name.find_first_not_of(
               "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789-.") ==
               std::string::npos &&
           name.find("..") == std::string::npos && name.find(".-") == std::string::npos &&
           name.find("-.") == std::string::npos &&
           last.find_first_not_of("0123456789.") != std::string::npos &&
           last.rfind(".0x", 0) != 0 && last.rfind(".0X", 0) != 0 && [&] {
               std::size_t longest = 0;
               for (std::size_t dot = 0; dot + 1 < name.size();) {
                   const std::size_t next = name.find('.', dot + 1);
                   longest = std::max(longest, next - dot - 1);
                   dot = next;
               }
               return longest <= 63;
           }();
}

void CheckHostName(const std::string& text) {
    const auto name = NormalizeHostName(text);
    Expect(name.has_value() == ModelOfIsHostName(text), "a host name to one, not to the other");
    if (name) {
        Expect(NormalizeHostName(*name) == name, "a host name in another form");
        Expect(name->find_first_of("ABCDEFGHIJKLMNOPQRSTUVWXYZ") == std::string::npos &&
                   name->back() != '.',
               "a host name in no normal form");
    }
    const std::string printable = Printable(text);
    Expect(printable.size() == std::min<std::size_t>(text.size(), 255) &&
               std::all_of(printable.begin(), printable.end(),
                           [](char c) { return c >= 0x20 && c <= 0x7e; }),
           "a line that is not printable");
}

void CheckBody(const std::string& body) {
    const auto request = Parse(body);
    const auto model = ModelOfParse(body);
    Expect(request.has_value() == model.has_value(), "a body to one, not to the other");
    if (!request)
        return;
    Expect(request->hostName == model->hostName && request->container == model->container,
           "another body");
    CheckHostName(request->hostName);
}

constexpr char password[] = "One-time-\"password\\";
const Peer asker{*IpAddress::Parse("192.0.2.7"), 50123};

/// Most hosts get an account.
class FuzzedAccounts : public AccountService {
public:
    DomainInfo Domain() override { return {"CORP", "corp.example", "S-1-5-21-1-2-3"}; }
    void ExpectHost(const std::string& host) const override {
        Expect(ModelOfIsHostName(host), "an account for what is no host");
        if (host.size() % 8 == 3)
            throw Refusal(Code::NotAllowed, "no accounts for such hosts", host);
    }
    NewAccount Create(const std::string&, const std::string& container) override {
        if (container.size() % 4 == 2)
            throw Refusal(Code::BadRequest, "the unit's name is malformed", container);
        const std::string_view text = password;
        tessary::directory::Secret secret(text.size());
        text.copy(secret.Data(), text.size());
        return {"WEB1$", std::move(secret)};
    }
};

void CheckLine(int, const std::string& line) {
    // What a client sent may look like the password, but for a host's name, which is in small
    // letters.
    const bool hasPassword = line.find("One-time") != std::string::npos;
    Expect(line.size() <= 1024 && line.starts_with("192.0.2.7:50123") &&
               !(hasPassword && line.ends_with(": given the account WEB1$")) &&
               std::all_of(line.begin(), line.end(), [](char c) { return c >= ' ' && c <= '~'; }),
           "a line for the log that is none");
}

int ModelOfStatus(const std::string& method, const std::string& path) {
    const bool isAccount = path == "/v1/machine-accounts";
    if (!isAccount && path != "/healthz" && path != "/v1/domain")
        return 404;
    return (method == "POST") == isAccount ? 0 : 405;
}

/// A status line, fields, and as much of a body as they say: JSON, with a code in a refusal.
void CheckAnswer(const RequestReader& reader) {
    static FuzzedAccounts accounts;
    static HttpService service(
        accounts,
        HostCheck(
            [](const std::string& host, const tessary::directory::Deadline&) {
                return KnownAddresses{{host.size() % 8 == 5 ? IpAddress() : asker.address},
                                      std::nullopt};
            },
            {}, std::chrono::seconds(1)),
        CheckLine);
    const SecretText answer = service.Answer(asker, reader.Request());
    const std::string_view text = answer.View();
    const std::size_t end = text.find("\r\n\r\n");
    Expect(text.starts_with("HTTP/1.1 ") && end != std::string_view::npos, "no answer");
    const std::string head(text.substr(0, end + 2));
    const std::string_view body = text.substr(end + 4);
    const int status = std::atoi(head.c_str() + std::strlen("HTTP/1.1 "));
    const int expected = ModelOfStatus(reader.Method(), reader.Target());
    Expect(expected == 0 ? status == 200 || status == 201 || status == 400 || status == 403
                         : status == expected,
           "another status");
    Expect(head.find("\r\nContent-Type: application/json\r\n") != std::string::npos &&
               head.find("\r\nContent-Length: " + std::to_string(body.size()) + "\r\n") !=
                   std::string::npos,
           "a head that is not the body's");
    const json tree = json::parse(body, nullptr, false);
    Expect(tree.is_object(), "an answer that is no JSON object");
    Expect(status < 400 || (tree.contains("code") && tree["code"].is_number_unsigned() &&
                            tree["code"] != 0u && tree.contains("message")),
           "a refusal without its code");
    Expect((status == 201) == (tree.contains("password") && tree["password"] == password),
           "a password to the wrong one, or the wrong password");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0)
        return 0;
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    const unsigned seed = 1 + static_cast<unsigned char>(text.back());
    const RequestReader whole = Read(text, 0);
    CheckAgreement(whole, Read(text, seed));
    if (whole.Now() == RequestReader::State::Complete) {
        CheckRequest(whole, text);
        CheckBody(whole.Body());
        CheckAnswer(whole);
    }
    // Few inputs get that far: each is a body and a name by itself, too.
    CheckBody(std::string(text));
    CheckHostName(std::string(text));
    return 0;
}
