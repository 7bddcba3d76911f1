#include "status.h"

#include <algorithm>
#include <cerrno>
#include <iterator>

namespace tessary::apxhttps {
namespace {

template <typename Key>
struct Row {
    Key key;
    Status status;
};

template <typename Key, std::size_t Count>
Status Find(const Row<Key> (&rows)[Count], Key key, Status otherwise) {
    const auto found = std::find_if(std::begin(rows), std::end(rows),
                                    [key](const Row<Key>& row) { return row.key == key; });
    return found == std::end(rows) ? otherwise : found->status;
}

constexpr Row<CURLcode> transfers[] = {
    {CURLE_OPERATION_TIMEDOUT, Status::TimedOut},
    {CURLE_OUT_OF_MEMORY, Status::OutOfMemory},
    {CURLE_URL_MALFORMAT, Status::BadRequest},
    {CURLE_COULDNT_RESOLVE_HOST, Status::ConnectionInvalid},
    {CURLE_COULDNT_CONNECT, Status::ConnectionInvalid},
    {CURLE_SEND_ERROR, Status::ConnectionInvalid},
    {CURLE_RECV_ERROR, Status::ConnectionInvalid},
    {CURLE_GOT_NOTHING, Status::ConnectionInvalid},
    {CURLE_PARTIAL_FILE, Status::ConnectionInvalid},
    {CURLE_SSL_CONNECT_ERROR, Status::ConnectionInvalid},
    {CURLE_SSL_CIPHER, Status::ConnectionInvalid},
    {CURLE_SSL_CERTPROBLEM, Status::ConnectionInvalid},
    {CURLE_SSL_SHUTDOWN_FAILED, Status::ConnectionInvalid},
    {CURLE_PEER_FAILED_VERIFICATION, Status::ConnectionInvalid},
};

constexpr Row<long> systemErrors[] = {
    {ECONNREFUSED, Status::ConnectionRefused},
    {ETIMEDOUT, Status::TimedOut},
};

// Whoever answers without a code is not our proxy, but stands before it.
constexpr Row<long> httpStatuses[] = {
    {401, Status::NotAllowed},
    {403, Status::NotAllowed},
    {429, Status::NotAllowed},
};

// These speak of this host and its connection, of which a proxy cannot know.
constexpr Status ownStatuses[] = {Status::OutOfMemory, Status::ConnectionRefused,
                                  Status::ConnectionInvalid, Status::TimedOut,
                                  Status::UntrustedCertificate};

} // namespace

Status StatusOfTransfer(CURLcode result, long systemError) {
    const Status status = Find(transfers, result, Status::InternalError);
    return status == Status::ConnectionInvalid ? Find(systemErrors, systemError, status) : status;
}

Status StatusOfRefusal(long httpStatus, std::optional<std::uint32_t> code) {
    if (code) {
        const auto status = static_cast<Status>(*code);
        const bool own = std::find(std::begin(ownStatuses), std::end(ownStatuses), status) !=
                         std::end(ownStatuses);
        return own ? Status::InternalError : status;
    }
    const bool callersFault = httpStatus >= 400 && httpStatus < 500;
    return Find(httpStatuses, httpStatus,
                callersFault ? Status::BadRequest : Status::InternalError);
}

} // namespace tessary::apxhttps
