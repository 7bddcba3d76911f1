#include "openssl_owner.h"

#include <openssl/err.h>

namespace tessary::proxy {

std::string TakeOpenSslReason() {
    const unsigned long error = ERR_peek_last_error();
    ERR_clear_error();
    const char* const reason = error == 0 ? nullptr : ERR_reason_error_string(error);
    return reason == nullptr ? "" : reason;
}

void CheckOpenSsl(bool holds, const std::string& what) {
    if (holds)
        return;
    const std::string reason = TakeOpenSslReason();
    throw std::runtime_error(reason.empty() ? what : what + ": " + reason);
}

} // namespace tessary::proxy
