/// Signals and threads.
#ifndef TESSARY_PROXY_SIGNALS_H
#define TESSARY_PROXY_SIGNALS_H

#include <csignal>

namespace tessary::proxy {

/// While it lives, this thread takes no signals, nor does any that it starts in the meantime: they
/// are for the main thread.
class BlockedSignals {
public:
    BlockedSignals() {
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, &before_);
    }
    ~BlockedSignals() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
    BlockedSignals(const BlockedSignals&) = delete;
    BlockedSignals& operator=(const BlockedSignals&) = delete;

private:
    sigset_t before_{};
};

} // namespace tessary::proxy

#endif
