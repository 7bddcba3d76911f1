#include "secret_text.h"

#include <gtest/gtest.h>
#include <malloc.h>

#include <atomic>
#include <cstdlib>
#include <new>

namespace {

constexpr std::string_view secret = "one-time password of the account";

/// Whether memory is looked at before it is given back, and how often the secret was in it.
std::atomic<bool> looking = false;
std::atomic<int> found = 0;

void Look(void* memory) {
    if (!looking || memory == nullptr)
        return;
    const std::string_view bytes(static_cast<char*>(memory), malloc_usable_size(memory));
    found += bytes.find(secret) != std::string_view::npos;
}

} // namespace

// Where only one of a pair is inlined, the compiler takes them for mismatched.
[[gnu::noinline]] void* operator new(std::size_t size) {
    void* const memory = std::malloc(size != 0 ? size : 1);
    if (memory == nullptr)
        throw std::bad_alloc();
    return memory;
}
[[gnu::noinline]] void operator delete(void* memory) noexcept {
    Look(memory);
    std::free(memory);
}
[[gnu::noinline]] void operator delete(void* memory, std::size_t) noexcept {
    Look(memory);
    std::free(memory);
}

namespace {

using tessary::proxy::SecretText;

TEST(SecretTextTest, LeavesNothingInMemoryThatItGivesBack) {
    looking = true;
    {
        SecretText text(secret);
        for (int i = 0; i < 100; ++i) // it moves as it grows
            text.Append(secret);
        EXPECT_EQ(text.View().size(), 101 * secret.size());
        SecretText moved = std::move(text);
        moved = SecretText("other");
    }
    looking = false;
    EXPECT_EQ(found, 0);
    looking = true;
    delete new std::string(secret);
    looking = false;
    EXPECT_EQ(found, 1) << "it was to be seen";
}

} // namespace
