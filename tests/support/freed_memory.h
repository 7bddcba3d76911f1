#pragma once

#include <string_view>

/// Looks for a secret in the memory that is given back. A program that links this has operators
/// new and delete of its own, in all of its libraries, too.
class FreedMemoryWatch {
public:
    /// Looks from now on, until the watch goes; there is one at a time.
    /// `secret` has to outlive the watch.
    explicit FreedMemoryWatch(std::string_view secret);
    ~FreedMemoryWatch();
    FreedMemoryWatch(const FreedMemoryWatch&) = delete;
    FreedMemoryWatch& operator=(const FreedMemoryWatch&) = delete;

    /// How many pieces of memory were given back with the secret in them.
    int Found() const;
};
