#include "host_name.h"

#include <gtest/gtest.h>

namespace {

using tessary::proxy::NormalizeHostName;
using tessary::proxy::Printable;

std::string Label(std::size_t length) {
    return std::string(length, 'a');
}

TEST(HostNameTest, IsPutInLowerCaseWithoutItsFinalDot) {
    EXPECT_EQ(NormalizeHostName("WEB1.Corp.Example."), "web1.corp.example");
    EXPECT_EQ(NormalizeHostName("1-a.b2"), "1-a.b2");
    EXPECT_EQ(NormalizeHostName("10.0.0.1.example"), "10.0.0.1.example");
}

TEST(HostNameTest, HasLabelsOfUpTo63AndUpTo253InAll) {
    EXPECT_TRUE(NormalizeHostName(Label(63) + ".example"));
    EXPECT_FALSE(NormalizeHostName(Label(64) + ".example"));
    const std::string three = Label(63) + "." + Label(63) + "." + Label(63) + ".";
    EXPECT_TRUE(NormalizeHostName(three + Label(61)));
    EXPECT_TRUE(NormalizeHostName(three + Label(61) + "."));
    EXPECT_FALSE(NormalizeHostName(three + Label(62)));
}

TEST(HostNameTest, IsNothingElse) {
    for (const char* text : {"10.0x1",
                             "a.0X0a",
                             "",
                             ".",
                             "..",
                             "web1",
                             "web1.",
                             ".corp.example",
                             "web1..example",
                             "web1.corp..",
                             "-a.example",
                             "a-.example",
                             "a.-b",
                             "a.b-",
                             "a_b.example",
                             "a b.example",
                             "127.0.0.1",
                             "127.1",
                             "1.2.3.4.",
                             "::1",
                             "[::1]",
                             "*)(.example",
                             "a,OU=b.example",
                             "../a.example",
                             "a/b.example",
                             "a\\b.example",
                             "a.exämple",
                             "a\n.example",
                             "a.example\n",
                             "a$.example"})
        EXPECT_FALSE(NormalizeHostName(text)) << text;
    EXPECT_FALSE(NormalizeHostName(std::string_view("a\0.example", 10)));
    EXPECT_FALSE(NormalizeHostName(std::string_view("a.example\0", 10)));
}

TEST(PrintableTest, ReplacesWhatALogMustNotHave) {
    EXPECT_EQ(Printable("a b~"), "a b~");
    EXPECT_EQ(Printable(std::string_view("\0\n\x1b\x7f\x80\xff", 6)), "??????");
    EXPECT_EQ(Printable(Label(300)), Label(255));
    EXPECT_EQ(Printable("abc", 2), "ab");
}

} // namespace
