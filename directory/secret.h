/// Bytes that do not outlive their use.
#ifndef TESSARY_DIRECTORY_SECRET_H
#define TESSARY_DIRECTORY_SECRET_H

#include <cstddef>
#include <string_view>
#include <vector>

namespace tessary::directory {

/// A buffer of a fixed size for a password or key; overwritten before its memory is given back.
/// Moved, never copied.
class Secret {
public:
    explicit Secret(std::size_t size) : bytes_(size) {}
    Secret(Secret&&) noexcept = default;
    Secret& operator=(Secret&&) = delete;
    ~Secret();

    char* Data() { return bytes_.data(); }
    const char* Data() const { return bytes_.data(); }
    std::size_t Size() const { return bytes_.size(); }
    std::string_view View() const { return {bytes_.data(), bytes_.size()}; }

private:
    std::vector<char> bytes_;
};

/// A random password for a machine account: 40 letters, digits and signs, about 240 bits, with
/// upper-case letters, lower-case letters and digits as password policies ask for.
Secret MakeMachinePassword();

/// The password as Active Directory takes it in unicodePwd: quoted, UTF-16, little-endian.
/// \param password plain ASCII
Secret EncodeUnicodePassword(std::string_view password);

} // namespace tessary::directory

#endif
