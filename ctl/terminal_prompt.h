/// Asks for a password at the terminal.
#ifndef TESAUTHCTL_TERMINAL_PROMPT_H
#define TESAUTHCTL_TERMINAL_PROMPT_H

#include <string>

#include "password.h"

namespace ctl {

/// Writes the prompt to the controlling terminal and reads a line from it, with its echo off. The
/// terminal is put back before this returns, throws, or hands a signal on: a signal that ends or
/// stops the process does so after that, and after a stop the prompt is written anew.
///
/// Throws UsageError without a terminal and std::runtime_error when the input ends before a line
/// does. Call it while the process has one thread.
void PromptForPassword(const std::string& prompt, Password& password);

} // namespace ctl

#endif
