#include "connection.h"

#include <sys/epoll.h>
#include <sys/socket.h>

#include <cerrno>

namespace tessary::proxy {
namespace {

using Progress = TlsChannel::Progress;

constexpr std::size_t pieceSize = 4096;
constexpr int piecesPerTurn = 16;
constexpr std::uint64_t bytesPerTurn = 4096;
constexpr std::uint64_t mostInHandshake = 16 * 1024;
constexpr std::uint64_t mostInAll = 64 * 1024; // four times the longest request

} // namespace

Connection::Connection(directory::UniqueFd socket, const Peer& peer)
    : socket_(std::move(socket)), peer_(peer), events_(EPOLLIN) {}

Connection::Step Connection::Advance(SSL_CTX& context) {
    switch (phase_) {
    case Phase::Handshake:
        return Greet(context);
    case Phase::Reading:
        tls_->BeginTurn(bytesPerTurn);
        return Read();
    case Phase::Running:
        return Step::ClosedEarly; // nothing else is waited for then
    case Phase::Writing:
        return Write();
    case Phase::Lingering:
        break;
    }
    return Linger();
}

Connection::Step Connection::Greet(SSL_CTX& context) {
    if (!tls_)
        tls_.emplace(context, socket_.Get());
    tls_->BeginTurn(bytesPerTurn);
    const Progress progress = tls_->Handshake();
    if (progress != Progress::Done)
        return Explain(progress);
    phase_ = Phase::Reading;
    events_ = EPOLLIN;
    return Read(); // the request may have come with the last of the handshake
}

Connection::Step Connection::Read() {
    // What TLS holds already, epoll would not report.
    for (;;) {
        char piece[pieceSize];
        std::size_t size = sizeof piece;
        const Progress progress = tls_->Read(piece, size);
        if (progress != Progress::Done)
            return Explain(progress);
        if (reader_.Feed({piece, size}) != RequestReader::State::Incomplete) {
            phase_ = Phase::Running;
            events_ = EPOLLRDHUP; // honest clients don't end their side before the answer
            return Step::HasRequest;
        }
    }
}

void Connection::SetAnswer(SecretText answer) {
    answer_ = std::move(answer);
    phase_ = Phase::Writing;
    events_ = EPOLLOUT;
}

Connection::Step Connection::Write() {
    while (written_ < answer_.View().size()) {
        std::size_t size = 0;
        const Progress progress = tls_->Write(answer_.View().substr(written_), size);
        if (progress != Progress::Done)
            return Explain(progress);
        written_ += size;
    }
    answer_ = SecretText();
    tls_->SayGoodbye();
    // Closed while something of the client's is unread, the connection would be reset, and the
    // answer lost on its way.
    shutdown(socket_.Get(), SHUT_WR);
    phase_ = Phase::Lingering;
    events_ = EPOLLIN;
    return Linger();
}

Connection::Step Connection::Linger() {
    for (int i = 0; i < piecesPerTurn; ++i) {
        char piece[pieceSize];
        const ssize_t size = recv(socket_.Get(), piece, sizeof piece, 0);
        if (size < 0 && (errno == EAGAIN || errno == EINTR))
            return Step::Waits;
        if (size <= 0)
            return Step::Ended;
    }
    return Step::Waits;
}

Connection::Step Connection::Explain(Progress progress) {
    switch (progress) {
    case Progress::WantsRead:
        if (tls_->BytesRead() >= (phase_ == Phase::Handshake ? mostInHandshake : mostInAll))
            return Step::TooMuch;
        events_ = EPOLLIN;
        return Step::Waits;
    case Progress::WantsWrite:
        events_ = EPOLLOUT;
        return Step::Waits;
    case Progress::Closed:
        return Step::ClosedEarly;
    default:
        return Step::Failed;
    }
}

} // namespace tessary::proxy
