/// Text that does not outlive its use.
#ifndef TESSARY_PROXY_SECRET_TEXT_H
#define TESSARY_PROXY_SECRET_TEXT_H

#include <string.h>

#include <cstddef>
#include <new>
#include <string_view>
#include <vector>

namespace tessary::proxy {

/// Overwrites memory before it gives it back.
template <class T>
struct CleansingAllocator {
    using value_type = T;

    CleansingAllocator() = default;
    template <class U>
    CleansingAllocator(const CleansingAllocator<U>&) {}

    T* allocate(std::size_t count) { return static_cast<T*>(::operator new(count * sizeof(T))); }
    void deallocate(T* memory, std::size_t count) {
        explicit_bzero(memory, count * sizeof(T));
        ::operator delete(memory);
    }
    bool operator==(const CleansingAllocator&) const { return true; }
};

/// Grows, and leaves nothing behind where it was.
class SecretText {
public:
    SecretText() = default;
    explicit SecretText(std::string_view text) { Append(text); }

    void Append(std::string_view text) { bytes_.insert(bytes_.end(), text.begin(), text.end()); }
    std::string_view View() const { return {bytes_.data(), bytes_.size()}; }

private:
    std::vector<char, CleansingAllocator<char>> bytes_;
};

} // namespace tessary::proxy

#endif
