/// Where a request ends, and whether it is one.
#ifndef TESSARY_PROXY_REQUEST_READER_H
#define TESSARY_PROXY_REQUEST_READER_H

#include <cstddef>
#include <string>
#include <string_view>

namespace tessary::proxy {

/// Collects one HTTP request from pieces of any size, and refuses everything about whose extent two
/// readers could differ. Holds no more than the two limits. Use by one thread at a time.
///
/// Only what the proxy has a use for is handed on: the request line, the length of the body and the
/// body. So no field of a client's reaches the parser behind, such as one that has the body
/// unpacked or taken for a form, or the answer packed or cut into parts.
class RequestReader {
public:
    static constexpr std::size_t headLimit = 8192; ///< request line and fields
    static constexpr std::size_t bodyLimit = 8192;

    enum class State { Incomplete, Complete, Refused };

    /// Takes the next piece. A request that is followed by anything is refused.
    State Feed(std::string_view piece);
    State Now() const { return state_; }

    /// Why it is refused.
    int Status() const { return status_; }           ///< of HTTP
    const char* Message() const { return message_; } ///< a sentence for a person

    /// Of a complete request; before that, what has come of it.
    const std::string& Method() const { return method_; }
    const std::string& Target() const { return target_; }
    const std::string& Body() const { return body_; }

    /// A complete request as it is handed on.
    std::string Request() const;

private:
    void TakeHead(char c);
    void TakeLine();
    void TakeRequestLine(std::string_view line);
    void TakeField(std::string_view line);
    void TakeContentLength(std::string_view value);
    void TakeContentType(std::string_view value);
    void EndHead();
    void Refuse(int status, const char* message);

    State state_ = State::Incomplete;
    bool inBody_ = false;
    std::size_t headSize_ = 0;
    std::string line_;
    std::string method_;
    std::string target_;
    bool oldVersion_ = false; // HTTP/1.0
    int hosts_ = 0;
    int lengths_ = 0;
    int types_ = 0;
    bool isJson_ = false;
    std::size_t length_ = 0;
    std::string body_;
    int status_ = 0;
    const char* message_ = "";
};

} // namespace tessary::proxy

#endif
