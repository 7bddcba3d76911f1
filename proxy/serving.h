/// What the process does while its server serves, and how it ends.
#ifndef TESSARY_PROXY_SERVING_H
#define TESSARY_PROXY_SERVING_H

#include "certificate.h"
#include "decision_log.h"
#include "server.h"

#include <chrono>
#include <csignal>
#include <functional>
#include <string>

namespace tessary::proxy {

/// Logs it when a certificate expires soon, or has done so.
/// \param file the certificate's, for the text
void WarnOfExpiry(const Identity& identity, const std::string& file, const LogSink& sink);

/// Waits for one of these signals.
/// \param signals blocked by all threads
/// \param chore   called at once, and again whenever another interval has passed
void WaitForSignal(const sigset_t& signals, std::chrono::milliseconds interval,
                   const std::function<void()>& chore);

/// Ends the server once it has answered what is being answered. When that takes longer than it may,
/// ends the process instead, with status 0: threads that wait for others cannot be ended.
void EndServer(Server& server, std::chrono::milliseconds time, const LogSink& sink);

} // namespace tessary::proxy

#endif
