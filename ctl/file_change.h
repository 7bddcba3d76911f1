/// Changes a file of the host's: shows how, then does it.
#ifndef TESAUTHCTL_FILE_CHANGE_H
#define TESAUTHCTL_FILE_CHANGE_H

#include <string>

#include "answer.h"
#include "file_arguments.h"
#include "file_snapshot.h"
#include "lines.h"

namespace ctl {

/// Where the arguments put something new.
Place PlaceOf(const FileArguments& arguments);

/// How the arguments want the file changed.
Way WayOf(const FileArguments& arguments);

/// Gives the file that the arguments name a new content, with a backup of the one before the first
/// change. A difference is written to standard output before anything else is, or is part of the
/// JSON answer; with --dry-run that is all.
///
/// \param before what the new content was made from
/// Throws NotPermittedError or HintedError; nothing is changed then.
Answer ChangeFile(const FileArguments& arguments, bool asJson, const FileSnapshot& before,
                  const std::string& content);

/// Puts the content of the file's backup back, in the same way, and removes the backup.
Answer RestoreFile(const FileArguments& arguments, bool asJson);

} // namespace ctl

#endif
