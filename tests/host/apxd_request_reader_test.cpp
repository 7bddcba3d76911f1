#include "request_reader.h"

#include <gtest/gtest.h>

namespace {

using tessary::proxy::RequestReader;
using State = RequestReader::State;

const std::string post = "POST /v1/x HTTP/1.1\r\nHost: a\r\nContent-Type: application/json\r\n";

/// The status that a request is refused with, whatever pieces it comes in; 0: it is whole; -1:
/// something is missing.
int StatusOf(const std::string& text) {
    const auto status = [](const RequestReader& reader) {
        return reader.Now() == State::Complete  ? 0
               : reader.Now() == State::Refused ? reader.Status()
                                                : -1;
    };
    RequestReader whole;
    whole.Feed(text);
    RequestReader bytes;
    for (const char& c : text)
        bytes.Feed({&c, 1});
    EXPECT_EQ(status(whole), status(bytes)) << text;
    EXPECT_STREQ(whole.Message(), bytes.Message()) << text;
    return status(whole);
}

TEST(RequestReaderTest, HandsOnTheLineTheLengthAndTheBody) {
    RequestReader reader;
    EXPECT_EQ(reader.Feed(post + "Accept-Encoding: gzip\r\nRange: bytes=0-1\r\nX:\t y \r\n"
                                 "cONTENT-lENGTH: 5\r\n\r\na\r\n"),
              State::Incomplete);
    EXPECT_EQ(reader.Feed(std::string_view("\0b", 2)), State::Complete);
    EXPECT_EQ(reader.Method(), "POST");
    EXPECT_EQ(reader.Target(), "/v1/x");
    EXPECT_EQ(reader.Body(), std::string("a\r\n\0b", 5));
    EXPECT_EQ(reader.Request(),
              std::string("POST /v1/x HTTP/1.1\r\nContent-Length: 5\r\n\r\na\r\n\0b", 47));
}

TEST(RequestReaderTest, TakesRequestsWithoutABody) {
    EXPECT_EQ(StatusOf("GET / HTTP/1.1\r\nHost:\r\n\r\n"), 0);
    EXPECT_EQ(StatusOf("GET /a.b/~c&=;'(d)[]+,@:!$*\"<>\\^`{|} HTTP/1.0\r\n\r\n"), 0);
    EXPECT_EQ(StatusOf("GET / HTTP/1.1\r\nHost: a\r\nContent-Length: 0\r\n\r\n"), 0);
    EXPECT_EQ(StatusOf("GET / HTTP/1.1\r\nHost: a\r\nUser-Agent: \xc3\xa4\r\n\r\n"), 0);
}

TEST(RequestReaderTest, WaitsForTheEnd) {
    const std::string request = post + "Content-Length: 3\r\n\r\nabc";
    for (std::size_t i = 0; i < request.size(); ++i)
        EXPECT_EQ(StatusOf(request.substr(0, i)), -1) << i;
    EXPECT_EQ(StatusOf(request), 0);
    EXPECT_EQ(StatusOf(request + "\r"), 400) << "nothing follows a request";
}

TEST(RequestReaderTest, RefusesLinesThatAreNone) {
    for (const char* head : {"\r\n",
                             " GET / HTTP/1.1\r\n",
                             "GET\r\n",
                             "GET /\r\n",
                             "GET / \r\n",
                             "GET  / HTTP/1.1\r\n",
                             "GET / HTTP/1.1 \r\n",
                             "GET / /a HTTP/1.1\r\n",
                             "GET / http/1.1\r\n",
                             "GET a HTTP/1.1\r\n",
                             "GET http://a/ HTTP/1.1\r\n",
                             "GET /\xc3\xa4 HTTP/1.1\r\n",
                             "G(T / HTTP/1.1\r\n",
                             "GET\t/ HTTP/1.1\r\n",
                             "GET / HTTP/1.1\n",
                             "\n",
                             "\rG",
                             "GET /\x01 HTTP/1.1\r\n",
                             "GET / HTTP/1.1\r\r\n",
                             "\x16\x03\x01"})
        EXPECT_EQ(StatusOf(head), 400) << head;
    EXPECT_EQ(StatusOf("GET / HTTP/2.0\r\n"), 505);
    EXPECT_EQ(StatusOf("GET / HTTP/1.10\r\n"), 505);
}

TEST(RequestReaderTest, RefusesMethodsThatNothingTakes) {
    for (const char* method : {"HEAD", "PUT", "DELETE", "CONNECT", "OPTIONS", "TRACE", "PATCH",
                               "PRI", "PROPFIND", "get", "GETS"})
        EXPECT_EQ(StatusOf(std::string(method) + " / HTTP/1.1\r\n"), 501) << method;
}

TEST(RequestReaderTest, RefusesPathsThatTwoReadersCouldDifferAbout) {
    for (const char* path : {"/?", "/a?b", "/a??", "/?a?b", "/a#b", "/%61", "/%", "/a%00"})
        EXPECT_EQ(StatusOf("GET " + std::string(path) + " HTTP/1.1\r\n"), 400) << path;
}

TEST(RequestReaderTest, RefusesFieldsThatTwoReadersCouldDifferAbout) {
    const std::string line = "GET / HTTP/1.1\r\n";
    for (const char* field :
         {" a: b\r\n", "\ta: b\r\n", "a\r\n", ": b\r\n", "a : b\r\n", "a\t: b\r\n", "a b: c\r\n",
          "a: b\rc\r\n", "a: b\nc: d\r\n", "a: \x7f\r\n", "a: \x0b\r\n", "\xc3\xa4: b\r\n"})
        EXPECT_EQ(StatusOf(line + field), 400) << field;
    EXPECT_EQ(StatusOf(line + std::string("a: \0\r\n", 6)), 400);
    EXPECT_EQ(StatusOf(line + "Host: a\r\n folded\r\n"), 400);
    EXPECT_EQ(StatusOf(line + "\r\n"), 400) << "no Host";
    EXPECT_EQ(StatusOf(line + "Host: a\r\nhost: a\r\n\r\n"), 400);
}

TEST(RequestReaderTest, RefusesLengthsThatAreNotOneNumber) {
    for (const char* length : {"", "-1", "+1", "1 2", "1,1", "0x1", "1a", "1.0", "\"1\""})
        EXPECT_EQ(StatusOf(post + "Content-Length: " + length + "\r\n"), 400) << length;
    EXPECT_EQ(StatusOf(post + "Content-Length: 1\r\nContent-Length: 1\r\n"), 400);
    EXPECT_EQ(StatusOf(post + "\r\n"), 411);
    for (const char* coding : {"chunked", "identity", "gzip, chunked", "xchunked", ""})
        EXPECT_EQ(StatusOf(post + "Content-Length: 1\r\nTransfer-Encoding: " + coding + "\r\n"),
                  501);
    EXPECT_EQ(StatusOf(post + "Content-Encoding: gzip\r\n"), 415);
    EXPECT_EQ(StatusOf(post + "Expect: 100-continue\r\n"), 417);
}

TEST(RequestReaderTest, TakesABodyOfJsonAlone) {
    const std::string line = "POST / HTTP/1.1\r\nHost: a\r\nContent-Length: 1\r\n";
    EXPECT_EQ(StatusOf(line + "Content-Type: Application/JSON; charset=utf-8\r\n\r\na"), 0);
    EXPECT_EQ(StatusOf(line + "\r\n"), 415);
    EXPECT_EQ(StatusOf(line + "Content-Type: text/json\r\n\r\n"), 415);
    EXPECT_EQ(StatusOf(line + "Content-Type: multipart/form-data; boundary=a\r\n\r\n"), 415);
    EXPECT_EQ(StatusOf(post + "Content-Type: application/json\r\n"), 400);
}

TEST(RequestReaderTest, HoldsNoMoreThanItsLimits) {
    const std::string begin = "GET / HTTP/1.1\r\nHost: a\r\nX: ";
    const std::string end = "\r\n\r\n";
    const std::size_t rest = RequestReader::headLimit - begin.size() - end.size();
    EXPECT_EQ(StatusOf(begin + std::string(rest, 'x') + end), 0);
    EXPECT_EQ(StatusOf(begin + std::string(rest + 1, 'x') + end), 431);
    EXPECT_EQ(StatusOf(std::string(RequestReader::headLimit, 'x')), -1);
    EXPECT_EQ(StatusOf(std::string(RequestReader::headLimit + 1, 'x')), 431);

    const std::string body(RequestReader::bodyLimit, 'b');
    EXPECT_EQ(StatusOf(post + "Content-Length: 8192\r\n\r\n" + body), 0);
    EXPECT_EQ(StatusOf(post + "Content-Length: 8193\r\n"), 413);
    EXPECT_EQ(StatusOf(post + "Content-Length: 18446744073709551617\r\n"), 413);
    EXPECT_EQ(StatusOf(post + "Content-Length: 000000000000000000000000008192\r\n\r\n" + body), 0);
}

TEST(RequestReaderTest, StaysRefused) {
    RequestReader reader;
    reader.Feed("\n");
    EXPECT_EQ(reader.Feed("GET / HTTP/1.1\r\nHost: a\r\n\r\n"), State::Refused);
    EXPECT_EQ(reader.Status(), 400);
}

} // namespace
