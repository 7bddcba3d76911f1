/// Puts a new content into the place of a file's old one.
#ifndef TESAUTHCTL_FILE_REPLACEMENT_H
#define TESAUTHCTL_FILE_REPLACEMENT_H

#include <optional>
#include <string>

#include "file_snapshot.h"

namespace ctl {

/// Throws NotPermittedError or HintedError unless the file may be written and its folder, too; the
/// folder's rights alone would do for a rename.
void CheckThatReplaceable(const std::string& name, bool isThere);

/// The file itself, where the name is a link to it. Throws NotPermittedError or HintedError, also
/// for a link to nothing.
std::string TargetOf(const std::string& name, bool isThere);

/// Throws HintedError unless the file is still what it was, or still not there.
void CheckThatNobodyChangedIt(const std::string& name, const std::optional<FileSnapshot>& before,
                              const std::optional<FileSnapshot>& now);

/// Replaces a file whole or not at all: owner, permissions and attributes stay those of the old
/// one, and the target of a symbolic link is replaced, not the link. A file that is not there is
/// made like `model`.
///
/// \param before what the file was when it was looked at
/// Throws NotPermittedError or HintedError, and leaves the file and its folder as they were then;
/// also when the file is another one by now.
void ReplaceFile(const std::string& name, const std::optional<FileSnapshot>& before,
                 const FileSnapshot& model, const std::string& content);

} // namespace ctl

#endif
