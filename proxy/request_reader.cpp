#include "request_reader.h"

#include "directory/text.h"

#include <algorithm>

namespace tessary::proxy {
namespace {

using directory::EqualNames;

bool IsTokenCharacter(char c) {
    return directory::IsLetterOrDigit(c) ||
           std::string_view("!#$%&'*+-.^_`|~").find(c) != std::string_view::npos;
}

bool IsToken(std::string_view text) {
    return !text.empty() && std::all_of(text.begin(), text.end(), IsTokenCharacter);
}

bool IsControl(char c) {
    return static_cast<unsigned char>(c) < 0x20 || c == 0x7f;
}

/// What a path can have in it without being anything else to another reader: a query, a fragment,
/// or another path in disguise.
bool IsPlain(char c) {
    return c > 0x20 && c < 0x7f && c != '?' && c != '#' && c != '%';
}

bool IsBlank(char c) {
    return c == ' ' || c == '\t';
}

std::string_view Trim(std::string_view text) {
    while (!text.empty() && IsBlank(text.front()))
        text.remove_prefix(1);
    while (!text.empty() && IsBlank(text.back()))
        text.remove_suffix(1);
    return text;
}

/// Fields that change what the body is, or ask for what this server does not do.
struct RefusedField {
    std::string_view name;
    int status;
    const char* message;
};

constexpr RefusedField refusedFields[] = {
    {"Transfer-Encoding", 501, "a request's body has a Content-Length, and no Transfer-Encoding"},
    {"Content-Encoding", 415, "a request's body is not packed"},
    {"Expect", 417, "a request's body is sent with its head, without Expect"},
};

} // namespace

RequestReader::State RequestReader::Feed(std::string_view piece) {
    while (!piece.empty() && state_ != State::Refused) {
        if (state_ == State::Complete) {
            Refuse(400, "a connection takes one request, and nothing behind it");
        } else if (inBody_) {
            const std::size_t taken = std::min(piece.size(), length_ - body_.size());
            body_.append(piece.substr(0, taken));
            piece.remove_prefix(taken);
            if (body_.size() == length_)
                state_ = State::Complete;
        } else {
            TakeHead(piece.front());
            piece.remove_prefix(1);
        }
    }
    return state_;
}

void RequestReader::TakeHead(char c) {
    if (++headSize_ > headLimit)
        return Refuse(431, "a request's head has at most 8192 bytes");
    const bool afterReturn = !line_.empty() && line_.back() == '\r';
    if (afterReturn != (c == '\n') || (IsControl(c) && c != '\r' && c != '\n' && c != '\t'))
        return Refuse(400, "a request's lines end in CR and LF, and have no control characters");
    if (c != '\n') {
        line_ += c;
        return;
    }
    line_.pop_back();
    TakeLine();
    line_.clear();
}

void RequestReader::TakeLine() {
    if (method_.empty())
        TakeRequestLine(line_);
    else if (line_.empty())
        EndHead();
    else
        TakeField(line_);
}

void RequestReader::TakeRequestLine(std::string_view line) {
    const std::size_t first = line.find(' ');
    const std::size_t last = line.rfind(' ');
    if (first == std::string_view::npos || first == last)
        return Refuse(400, "the request line has a method, a path and a version");
    const std::string_view method = line.substr(0, first);
    const std::string_view target = line.substr(first + 1, last - first - 1);
    const std::string_view version = line.substr(last + 1);
    if (!IsToken(method) || target.empty() || target.front() != '/' ||
        target.find(' ') != std::string_view::npos)
        return Refuse(400, "the request line has a method, a path and a version");
    if (method != "GET" && method != "POST")
        return Refuse(501, "the method is GET or POST");
    if (!std::all_of(target.begin(), target.end(), IsPlain))
        return Refuse(400, "a path has no query and no signs that are not ASCII or are escaped");
    if (version != "HTTP/1.1" && version != "HTTP/1.0")
        return Refuse(version.starts_with("HTTP/") ? 505 : 400, "the version is HTTP/1.1");
    method_ = method;
    target_ = target;
    oldVersion_ = version == "HTTP/1.0";
}

void RequestReader::TakeField(std::string_view line) {
    if (IsBlank(line.front()))
        return Refuse(400, "a field of a request has one line");
    const std::size_t colon = line.find(':');
    const std::string_view name = line.substr(0, colon);
    if (colon == std::string_view::npos || !IsToken(name))
        return Refuse(400, "a field of a request has a name, a colon and a value");
    for (const RefusedField& refused : refusedFields)
        if (EqualNames(name, refused.name))
            return Refuse(refused.status, refused.message);
    const std::string_view value = Trim(line.substr(colon + 1));
    if (EqualNames(name, "Host"))
        ++hosts_;
    else if (EqualNames(name, "Content-Length"))
        TakeContentLength(value);
    else if (EqualNames(name, "Content-Type"))
        TakeContentType(value);
}

void RequestReader::TakeContentLength(std::string_view value) {
    const auto isDigit = [](char c) { return c >= '0' && c <= '9'; };
    if (++lengths_ > 1 || value.empty() || !std::all_of(value.begin(), value.end(), isDigit))
        return Refuse(400, "Content-Length is one number");
    for (const char c : value) {
        length_ = 10 * length_ + static_cast<std::size_t>(c - '0');
        if (length_ > bodyLimit)
            return Refuse(413, "a request's body has at most 8192 bytes");
    }
}

void RequestReader::TakeContentType(std::string_view value) {
    if (++types_ > 1)
        return Refuse(400, "there is one Content-Type");
    isJson_ = EqualNames(Trim(value.substr(0, value.find(';'))), "application/json");
}

void RequestReader::EndHead() {
    const bool takesBody = method_ == "POST";
    if (hosts_ > 1 || (hosts_ == 0 && !oldVersion_))
        return Refuse(400, "a request has one field Host");
    if (takesBody && lengths_ == 0)
        return Refuse(411, "a request's body has a Content-Length");
    if ((takesBody || length_ > 0) && !isJson_)
        return Refuse(415, "a request's body is of the Content-Type application/json");
    inBody_ = true;
    if (length_ == 0)
        state_ = State::Complete;
}

void RequestReader::Refuse(int status, const char* message) {
    state_ = State::Refused;
    status_ = status;
    message_ = message;
}

std::string RequestReader::Request() const {
    return method_ + " " + target_ +
           " HTTP/1.1\r\nContent-Length: " + std::to_string(body_.size()) + "\r\n\r\n" + body_;
}

} // namespace tessary::proxy
