#pragma once

#include <string>
#include <vector>

#include "ctl_host.h"

namespace ctl_test {

/// A folder for files that the command edits; it is emptied before and after each test.
class FileTest : public scripted::HostTest {
protected:
    FileTest();
    ~FileTest() override;

    static constexpr const char* folder = "/run/ctl-files";
    static std::string In(const std::string& name) { return std::string(folder) + "/" + name; }

    /// The file that most tests edit, and its backup.
    const std::string file = In("edited");
    const std::string backup = file + ".tesauth-backup";

    /// Fills it.
    void Fill(const std::string& text) const;
    std::string Text() const;
    /// The names in the folder.
    static std::vector<std::string> Names();

    /// Expects that the command refuses these words of a group such as "pam" as wrong usage; the
    /// second one stands for the file.
    void ExpectWrongUsage(const std::string& group, const Words& words) const;

    /// Expects that the file and its folder are as Fill left them.
    void ExpectUntouched() const;

private:
    mutable std::string filled_;
};

/// Runs the command without trouble and returns its standard output.
std::string Done(const Words& arguments);

/// The words with more at the end.
Words operator+(Words words, const Words& more);

/// "--- FILE", "+++ FILE" and the rest.
std::string DiffOf(const std::string& file, const std::string& hunks);

/// What the command says when it has changed a file.
std::string ChangedLine(const std::string& file);

} // namespace ctl_test
