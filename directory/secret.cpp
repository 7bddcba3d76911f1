#include "secret.h"

#include "error.h"

#include <string.h>
#include <sys/random.h>

#include <algorithm>
#include <cerrno>

namespace tessary::directory {
namespace {

constexpr std::string_view alphabet =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+-";
static_assert(alphabet.size() == 64, "a byte's low six bits choose evenly");

constexpr std::size_t passwordLength = 40;

void FillRandomly(Secret& secret) {
    std::size_t done = 0;
    while (done < secret.Size()) {
        const ssize_t got = getrandom(secret.Data() + done, secret.Size() - done, 0);
        if (got < 0 && errno != EINTR)
            ThrowFileError(errno, "no random bytes");
        done += got > 0 ? static_cast<std::size_t>(got) : 0;
    }
}

bool HasThreeClasses(std::string_view text) {
    const auto has = [&](char first, char last) {
        return std::any_of(text.begin(), text.end(),
                           [&](char c) { return c >= first && c <= last; });
    };
    return has('A', 'Z') && has('a', 'z') && has('0', '9');
}

} // namespace

Secret::~Secret() {
    if (!bytes_.empty())
        explicit_bzero(bytes_.data(), bytes_.size());
}

Secret MakeMachinePassword() {
    Secret password(passwordLength);
    do {
        FillRandomly(password);
        for (std::size_t i = 0; i < password.Size(); ++i)
            password.Data()[i] = alphabet[static_cast<unsigned char>(password.Data()[i]) & 63];
    } while (!HasThreeClasses(password.View()));
    return password;
}

Secret EncodeUnicodePassword(std::string_view password) {
    Secret encoded(2 * (password.size() + 2));
    const std::size_t last = password.size() + 1;
    for (std::size_t i = 0; i <= last; ++i) {
        encoded.Data()[2 * i] = i == 0 || i == last ? '"' : password[i - 1];
        encoded.Data()[2 * i + 1] = 0;
    }
    return encoded;
}

} // namespace tessary::directory
