#include "request_body.h"

#include <gtest/gtest.h>

#include "account_service.h"

namespace {

using namespace tessary::proxy;

TEST(RequestBodyTest, HasAHostNameAndMayHaveAContainer) {
    const auto both =
        AccountRequest::Parse(R"( {"container":"Hosts/Wéb\n","hostName":"a\u0000b"} )");
    EXPECT_EQ(both.hostName, std::string("a\0b", 3)) << "whether it is one is for others to say";
    EXPECT_EQ(both.container, "Hosts/Wéb\n") << "this, too";
    EXPECT_EQ(AccountRequest::Parse(R"({"hostName":"a"})").container, "");
    EXPECT_EQ(AccountRequest::Parse(R"({"hostName":"a","container":null})").container, "");
}

TEST(RequestBodyTest, HasNothingElse) {
    for (const std::string& body :
         {std::string(),
          std::string("{}"),
          std::string("null"),
          std::string("[]"),
          std::string("\"hostName\""),
          std::string(R"(["hostName"])"),
          std::string(R"({"hostName":"a")"),
          std::string(R"({"hostName":"a"} x)"),
          std::string(R"({"hostName":"a"}{})"),
          std::string(R"({"hostName":"a"},)"),
          std::string(R"({"hostName":"a",})"),
          std::string(R"({"hostName":"a","hostName":"a"})"),
          std::string(R"({"hostName":"a","container":null,"container":"b"})"),
          std::string(R"({"hostName":"a","other":"b"})"),
          std::string(R"({"hostname":"a"})"),
          std::string(R"({"hostName":null})"),
          std::string(R"({"hostName":1})"),
          std::string(R"({"hostName":true})"),
          std::string(R"({"hostName":["a"]})"),
          std::string(R"({"hostName":{"hostName":"a"}})"),
          std::string(R"({"hostName":"a","container":7})"),
          std::string(R"({"hostName":"a","container":[]})"),
          std::string(R"({"container":"a"})"),
          std::string("{\"hostName\":\"a\n\"}"),
          std::string("{\"hostName\":\"\xff\"}"),
          std::string("{\"hostName\":\"a\"}\0", 17),
          std::string("{'hostName':'a'}"),
          std::string(8192, '[')}) {
        try {
            AccountRequest::Parse(body);
            ADD_FAILURE() << body;
        } catch (const Refusal& refusal) {
            EXPECT_EQ(refusal.WhichCode(), Code::BadRequest);
        }
    }
}

} // namespace
