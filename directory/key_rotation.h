/// A new key for the host's account, now and then.
#ifndef TESSARY_DIRECTORY_KEY_ROTATION_H
#define TESSARY_DIRECTORY_KEY_ROTATION_H

#include <chrono>

namespace tessary::directory {

/// Gives the host's account a new random password and puts its keys into the keytab, the old ones
/// beside them: see KeyChange. The host can log in, and its services take tickets, at any moment on
/// the way and after any failure.
/// \param minimumAge a key that is younger is left alone
/// \return whether there is a new key
/// \throws Error FileNotFound when the host is not joined; MachineKeyRejected, NoMachineAccount,
///         AccountDisabled, PasswordRefused, AccessDenied, ClockSkew, CallInProgress and the
///         statuses of LocateController(); NoController also when the controller has not heard of
///         the key that is to be replaced
/// Thread safety: any number of threads and processes; one after the other runs.
bool RotateKey(std::chrono::seconds minimumAge);

} // namespace tessary::directory

#endif
