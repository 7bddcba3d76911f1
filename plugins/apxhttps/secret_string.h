/// Text that does not outlive its use.
#ifndef TESAUTH_APXHTTPS_SECRET_STRING_H
#define TESAUTH_APXHTTPS_SECRET_STRING_H

#include <cstddef>
#include <memory>
#include <openssl/crypto.h>
#include <string>

namespace tessary::apxhttps {

/// Overwrites memory before it is given back, also what a container leaves behind as it grows.
template <typename T>
struct CleansingAllocator {
    using value_type = T;

    CleansingAllocator() = default;
    template <typename U>
    CleansingAllocator(const CleansingAllocator<U>&) noexcept {}

    T* allocate(std::size_t count) { return std::allocator<T>().allocate(count); }
    void deallocate(T* memory, std::size_t count) noexcept {
        OPENSSL_cleanse(memory, count * sizeof(T));
        std::allocator<T>().deallocate(memory, count);
    }

    template <typename U>
    bool operator==(const CleansingAllocator<U>&) const noexcept {
        return true;
    }
};

/// A text in cleansed memory. A text of less than 16 bytes lies in the object itself: it is
/// cleansed with the object only where that lies in cleansed memory too.
using SecretString = std::basic_string<char, std::char_traits<char>, CleansingAllocator<char>>;

} // namespace tessary::apxhttps

#endif
