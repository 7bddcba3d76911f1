#include "file_change.h"

#include <cerrno>
#include <cstring>
#include <unistd.h>

#include "file_backup.h"
#include "file_lock.h"
#include "file_replacement.h"
#include "output.h"
#include "unified_diff.h"

namespace ctl {

namespace {

/// Says how the file changes. Throws HintedError when that cannot be told: what nobody saw is not
/// done.
void Show(const std::string& diff, bool asJson) {
    if (!asJson && !TellFileText(diff)) {
        throw HintedError("the difference cannot be shown",
                          "standard output takes no more; nothing was changed");
    }
}

Json Described(const std::string& file, const std::string& diff, bool changed) {
    const std::string backup = BackupNameOf(file);
    return {{"file", file},
            {"diff", diff},
            {"changed", changed},
            {"backup", access(backup.c_str(), F_OK) == 0 ? Json(backup) : Json()}};
}

Answer NothingToChange(const std::string& file, const std::string& text) {
    return {text, Described(file, "", false)};
}

} // namespace

Place PlaceOf(const FileArguments& arguments) {
    if (!arguments.before.empty()) {
        return {Place::Before, arguments.before};
    }
    if (!arguments.after.empty()) {
        return {Place::After, arguments.after};
    }
    return {arguments.first ? Place::First : Place::Last};
}

Way WayOf(const FileArguments& arguments) {
    return arguments.rewrite ? Way::Rewrite : Way::Lines;
}

Answer ChangeFile(const FileArguments& arguments, bool asJson, const FileSnapshot& before,
                  const std::string& content) {
    const std::string& file = arguments.file;
    const std::string diff = UnifiedDiff(file, before.content, content);
    if (diff.empty()) {
        return NothingToChange(file, file + " is like that already: nothing was changed");
    }
    Show(diff, asJson);
    if (arguments.dryRun) {
        return {"", Described(file, diff, false)};
    }
    CheckThatReplaceable(file, true);
    const FileLock lock(TargetOf(file, true));
    const auto now = ReadIfThere(file); // its owner and permissions may be others by now
    CheckThatNobodyChangedIt(file, before, now);
    FileBackup backup(file, *now);
    ReplaceFile(file, now, *now, content);
    backup.Keep();
    return {"changed " + file + "; " + BackupNameOf(file) +
                " is what it was before the first change",
            Described(file, diff, true)};
}

Answer RestoreFile(const FileArguments& arguments, bool asJson) {
    const std::string& file = arguments.file;
    const std::string name = BackupNameOf(file);
    const auto backup = ReadBackup(file);
    if (!backup) {
        throw HintedError("there is no " + name,
                          "a backup is made when the file is changed for the first time");
    }
    const auto before = ReadIfThere(file);
    const std::string diff = UnifiedDiff(file, before ? before->content : "", backup->content);
    const bool differs = !diff.empty() || !before;
    Show(diff, asJson);
    if (!arguments.dryRun) {
        CheckThatReplaceable(file, before.has_value());
        const FileLock lock(TargetOf(file, before.has_value()));
        CheckThatNobodyChangedIt(name, backup, ReadBackup(file));
        const auto now = ReadIfThere(file);
        CheckThatNobodyChangedIt(file, before, now);
        if (differs) {
            ReplaceFile(file, now, now ? *now : *backup, backup->content);
        }
        if (unlink(name.c_str()) != 0) {
            ThrowFileError(file + " is restored, but " + name + " cannot be removed", errno);
        }
        SyncFolderOf(name);
    }
    Json json = Described(file, diff, differs && !arguments.dryRun);
    if (differs) {
        return {arguments.dryRun ? "" : "restored " + file, json};
    }
    return {file + " is like its backup: nothing was changed" +
                (arguments.dryRun ? "" : "; the backup was removed"),
            json};
}

} // namespace ctl
