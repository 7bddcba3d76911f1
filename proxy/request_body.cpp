#include "request_body.h"

#include "account_service.h"

#include <nlohmann/json.hpp>

#include <optional>
#include <utility>

namespace tessary::proxy {
namespace {

using Json = nlohmann::json;

/// Takes the text of a flat object as it is read, so that nothing is built from what is refused.
class Members final : public nlohmann::json_sax<Json> {
public:
    std::optional<std::string> hostName;
    std::optional<std::string> container;

    bool start_object(std::size_t) override { return !std::exchange(inside_, true); }
    bool end_object() override { return true; }
    bool key(string_t& name) override {
        bool known = true;
        if (name == "hostName" && !hostName)
            member_ = &hostName.emplace();
        else if (name == "container" && !container)
            member_ = &container.emplace();
        else
            known = false;
        return known;
    }
    bool string(string_t& value) override {
        if (member_)
            *member_ = std::move(value);
        return inside_;
    }
    bool null() override { return inside_ && container && member_ == &*container; }

    bool boolean(bool) override { return false; }
    bool number_integer(number_integer_t) override { return false; }
    bool number_unsigned(number_unsigned_t) override { return false; }
    bool number_float(number_float_t, const string_t&) override { return false; }
    bool binary(binary_t&) override { return false; }
    bool start_array(std::size_t) override { return false; }
    bool end_array() override { return false; }
    bool parse_error(std::size_t, const std::string&, const Json::exception&) override {
        return false;
    }

private:
    bool inside_ = false;
    std::string* member_ = nullptr;
};

} // namespace

AccountRequest AccountRequest::Parse(const std::string& body) {
    Members members;
    // The parser takes a zero byte for the end, whatever may follow.
    if (body.find('\0') != std::string::npos || !Json::sax_parse(body, &members) ||
        !members.hostName)
        throw Refusal(Code::BadRequest, "the body is a JSON object with the members \"hostName\" "
                                        "and \"container\", both text");
    return {std::move(*members.hostName), members.container.value_or("")};
}

} // namespace tessary::proxy
