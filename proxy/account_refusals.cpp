#include "account_refusals.h"

namespace tessary::proxy {

bool IsUnanswered(const directory::Error& error) {
    switch (error.Code()) {
    case directory::Status::NoController:
    case directory::Status::ConnectionRefused:
    case directory::Status::TimedOut:
        return true;
    default:
        return false;
    }
}

void RethrowAsRefusal() {
    constexpr char internal[] = "the proxy cannot do this at the moment; its log says why";
    try {
        throw;
    } catch (const Refusal&) {
        throw;
    } catch (const directory::Error& error) {
        if (IsUnanswered(error))
            throw Refusal(Code::NoController, "no domain controller answers", error.what());
        if (error.Code() == directory::Status::NoSuchDomain)
            throw Refusal(Code::NoSuchDomain, "the proxy's domain is not to be found",
                          error.what());
        throw Refusal(Code::Internal, internal, error.what());
    } catch (const std::exception& error) {
        throw Refusal(Code::Internal, internal, error.what());
    }
}

} // namespace tessary::proxy
