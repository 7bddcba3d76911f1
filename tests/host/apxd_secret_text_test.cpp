#include "secret_text.h"

#include <gtest/gtest.h>

#include <string>

#include "freed_memory.h"

namespace {

using tessary::proxy::SecretText;

constexpr std::string_view secret = "one-time password of the account";

TEST(SecretTextTest, LeavesNothingInMemoryThatItGivesBack) {
    const FreedMemoryWatch watch(secret);
    {
        SecretText text(secret);
        for (int i = 0; i < 100; ++i) // it moves as it grows
            text.Append(secret);
        EXPECT_EQ(text.View().size(), 101 * secret.size());
        SecretText moved = std::move(text);
        moved = SecretText("other");
    }
    EXPECT_EQ(watch.Found(), 0);
    delete new std::string(secret);
    EXPECT_EQ(watch.Found(), 1) << "it was to be seen";
}

} // namespace
