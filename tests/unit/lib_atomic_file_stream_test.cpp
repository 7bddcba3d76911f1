#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <memory>
#include <thread>

#include "faults.h"
#include "scripted_host.h"
#include "tesauth/atomic_file_stream.h"
#include "tesauth/exceptions.h"

namespace {

using namespace tessary::authentication;
using namespace scripted;

class AtomicFileStreamTest : public HostTest {
protected:
    AtomicFileStreamTest() { std::filesystem::create_directories(folder); }
    ~AtomicFileStreamTest() override { std::filesystem::remove_all(folder); }

    /// The temporary files in the folder, by name.
    std::vector<std::string> Temporaries() const {
        std::vector<std::string> names = NamesIn(folder);
        names.erase(std::remove(names.begin(), names.end(), "target"), names.end());
        return names;
    }

    void Replace(const std::string& text) const {
        AtomicFileStream file(target.c_str(), std::ios_base::out);
        file << text;
        file.Commit();
    }

    const std::string folder = "/run/atomic-file-test";
    const std::string target = folder + "/target";
};

TEST_F(AtomicFileStreamTest, NewTargetHasMode0600WhateverTheUmask) {
    for (const mode_t mask : {0000, 0022, 0077, 0777}) {
        const mode_t before = umask(mask);
        std::filesystem::remove(target);
        Replace("text");
        umask(before);
        EXPECT_EQ(ReadFile(target), "text");
        EXPECT_EQ(Mode(target), 0600u);
    }
    EXPECT_EQ(Temporaries().size(), 0u);
}

TEST_F(AtomicFileStreamTest, ReplacedTargetKeepsItsPermissionBits) {
    for (const mode_t mode : {0644, 0400, 0777, 04755, 01640}) {
        WriteFile(target, "old");
        ASSERT_EQ(chmod(target.c_str(), mode), 0);
        Replace("new");
        EXPECT_EQ(ReadFile(target), "new");
        EXPECT_EQ(Mode(target), mode);
    }
}

TEST_F(AtomicFileStreamTest, NothingChangesBeforeTheCommit) {
    WriteFile(target, "old");
    AtomicFileStream file(target.c_str(), std::ios_base::out);
    file << "new" << std::flush;
    EXPECT_EQ(ReadFile(target), "old");
    ASSERT_EQ(Temporaries().size(), 1u);
    const std::string temporary = folder + "/" + Temporaries()[0];
    EXPECT_EQ(ReadFile(temporary), "new");
    EXPECT_EQ(Mode(temporary), 0600u);
}

TEST_F(AtomicFileStreamTest, DestroyingWithoutCommitLeavesTargetAndTemporaryFile) {
    WriteFile(target, "old");
    {
        AtomicFileStream file(target.c_str(), std::ios_base::out);
        file << "new";
    }
    EXPECT_EQ(ReadFile(target), "old");
    ASSERT_EQ(Temporaries().size(), 1u);
    const std::string name = Temporaries()[0];
    EXPECT_EQ(name.size(), std::string("target.").size() + 6);
    EXPECT_EQ(name.rfind("target.", 0), 0u);
    EXPECT_EQ(ReadFile(folder + "/" + name), "new");
}

TEST_F(AtomicFileStreamTest, OpeningAgainForgetsTheFirstTemporaryFile) {
    const std::string other = folder + "/other";
    AtomicFileStream file(target.c_str(), std::ios_base::out);
    file << "first";
    file.open(other.c_str(), std::ios_base::out);
    EXPECT_TRUE(file.good());
    file << "second";
    file.Commit();
    EXPECT_EQ(ReadFile(other), "second");
    EXPECT_EQ(ReadFile(target), "(missing)");
    std::vector<std::string> names = Temporaries();
    ASSERT_EQ(names.size(), 2u); // "other" and the forgotten one
    EXPECT_EQ(ReadFile(folder + "/" + names[1]), "first");
}

TEST_F(AtomicFileStreamTest, ModeIsTakenAndOutputAdded) {
    AtomicFileStream file(target.c_str(), std::ios_base::app);
    file << "one";
    file.seekp(0);
    file << "two"; // appending ignores the position
    file.Commit();
    EXPECT_EQ(ReadFile(target), "onetwo");
}

TEST_F(AtomicFileStreamTest, TemporaryFileThatCannotBeOpenedSetsTheFailBit) {
    AtomicFileStream file(target.c_str(), std::ios_base::out);
    // Output, input and appending to a truncated file exclude one another.
    file.open(target.c_str(), std::ios_base::trunc | std::ios_base::app);
    EXPECT_TRUE(file.fail());
    file.open(target.c_str(), std::ios_base::out);
    EXPECT_TRUE(file.good()) << "a later success clears the state";
}

TEST_F(AtomicFileStreamTest, FolderThatDoesNotExist) {
    const std::string path = folder + "/none/target";
    EXPECT_EQ(TextOf<IOError>([&] { AtomicFileStream file(path.c_str(), std::ios_base::out); }),
              "Unable to create temporary file to write '" + path + "': No such file or directory");
}

TEST_F(AtomicFileStreamTest, PathThatLeavesNoRoomForTheTemplate) {
    // 4088 characters, ".XXXXXX" and the end make the buffer's 4096 bytes: the last that fits.
    for (const std::size_t length : {4088u, 4089u, 4095u, 6000u}) {
        std::string path = folder;
        while (path.size() < length) {
            path += path.size() % 100 == 0 ? '/' : 'x';
        }
        const std::string text =
            TextOf<IOError>([&] { AtomicFileStream file(path.c_str(), std::ios_base::out); });
        const std::string expected = "Unable to create temporary file to write '" + path + "': ";
        EXPECT_EQ(text.substr(0, expected.size()), expected);
        EXPECT_EQ(text.substr(expected.size()),
                  length == 4088u ? "No such file or directory" : "Invalid argument");
    }
}

TEST_F(AtomicFileStreamTest, RenameThatFailsLeavesBothFiles) {
    WriteFile(target, "old");
    const faults::Scope scope;
    faults::hooks.rename = [](const char*) { return EACCES; };
    AtomicFileStream file(target.c_str(), std::ios_base::out);
    file << "new";
    const std::string temporary = folder + "/" + Temporaries().at(0);
    EXPECT_EQ(TextOf<IOError>([&] { file.Commit(); }),
              "Unable to rename '" + temporary + "' to '" + target + "': Permission denied");
    EXPECT_EQ(ReadFile(target), "old");
    EXPECT_EQ(ReadFile(temporary), "new");
}

TEST_F(AtomicFileStreamTest, RenameToANewTargetThatFails) {
    const faults::Scope scope;
    std::vector<std::string> renamed;
    faults::hooks.rename = [&](const char* path) { return renamed.push_back(path), EROFS; };
    AtomicFileStream file(target.c_str(), std::ios_base::out);
    const std::string temporary = folder + "/" + Temporaries().at(0);
    EXPECT_EQ(TextOf<IOError>([&] { file.Commit(); }),
              "Unable to rename '" + temporary + "' to '" + target + "': Read-only file system");
    EXPECT_EQ(renamed.size(), 2u) << "tried once more after the first failure";
    EXPECT_EQ(ReadFile(target), "(missing)");
    EXPECT_EQ(ReadFile(temporary), "");
}

TEST_F(AtomicFileStreamTest, TargetThatIsAFolderStays) {
    std::filesystem::create_directory(target);
    AtomicFileStream file(target.c_str(), std::ios_base::out);
    const std::string text = TextOf<IOError>([&] { file.Commit(); });
    EXPECT_EQ(text.substr(text.rfind(": ")), ": Is a directory");
    EXPECT_TRUE(std::filesystem::is_directory(target));
}

TEST_F(AtomicFileStreamTest, CommittingTwiceFails) {
    AtomicFileStream file(target.c_str(), std::ios_base::out);
    file << "text";
    file.Commit();
    EXPECT_FALSE(file.is_open());
    const std::string text = TextOf<IOError>([&] { file.Commit(); });
    EXPECT_EQ(text.rfind("Unable to rename '", 0), 0u);
    EXPECT_EQ(ReadFile(target), "text");
}

TEST_F(AtomicFileStreamTest, PermissionBitsThatCannotBeRead) {
    WriteFile(target, "old");
    ASSERT_EQ(chmod(target.c_str(), 0644), 0);
    const faults::Scope scope;
    faults::hooks.stat = [](const char*) { return EIO; };
    bool changed = false;
    faults::hooks.chmod = [&](const char*) { return changed = true, 0; };
    AtomicFileStream file(target.c_str(), std::ios_base::out);
    file << "new";
    EXPECT_EQ(TextOf<FilePermissionError>([&] { file.Commit(); }),
              "Failed to save file permissions, file permissions may be incorrect: "
              "Input/output error");
    EXPECT_EQ(ReadFile(target), "new");
    EXPECT_EQ(Mode(target), 0600u);
    EXPECT_FALSE(changed);
}

TEST_F(AtomicFileStreamTest, PermissionBitsThatCannotBeReadAndARenameThatFails) {
    WriteFile(target, "old");
    const faults::Scope scope;
    faults::hooks.stat = [](const char*) { return EIO; };
    faults::hooks.rename = [](const char*) { return EACCES; };
    AtomicFileStream file(target.c_str(), std::ios_base::out);
    const std::string text = TextOf<IOError>([&] { file.Commit(); });
    EXPECT_EQ(text.rfind("Unable to rename '", 0), 0u);
    EXPECT_EQ(ReadFile(target), "old");
}

TEST_F(AtomicFileStreamTest, PermissionBitsThatCannotBeSet) {
    WriteFile(target, "old");
    ASSERT_EQ(chmod(target.c_str(), 0644), 0);
    const faults::Scope scope;
    faults::hooks.chmod = [](const char*) { return EPERM; };
    AtomicFileStream file(target.c_str(), std::ios_base::out);
    file << "new";
    EXPECT_EQ(TextOf<FilePermissionError>([&] { file.Commit(); }),
              "Failed to save file permissions, file permissions may be incorrect: "
              "Operation not permitted");
    EXPECT_EQ(ReadFile(target), "new");
}

TEST_F(AtomicFileStreamTest, NewTargetIsNotChmodded) {
    const faults::Scope scope;
    faults::hooks.chmod = [](const char*) { return EPERM; };
    Replace("new");
    EXPECT_EQ(ReadFile(target), "new");
}

TEST_F(AtomicFileStreamTest, CommitGoesOnAfterAFailedWrite) {
    WriteFile(target, "old");
    AtomicFileStream file(target.c_str(), std::ios_base::out);
    file << "part" << std::flush;
    file.setstate(std::ios_base::failbit);
    file.Commit();
    EXPECT_EQ(ReadFile(target), "part");
}

TEST_F(AtomicFileStreamTest, ReadersNeverSeeAPart) {
    const std::string one(20000, '1'), two(20000, '2');
    Replace(one);
    std::atomic<bool> stop(false);
    std::vector<std::thread> writers;
    for (const std::string& text : {one, two}) {
        writers.emplace_back([&, text] {
            while (!stop) {
                Replace(text);
            }
        });
    }
    for (int i = 0; i < 500; ++i) {
        const std::string seen = ReadFile(target);
        EXPECT_TRUE(seen == one || seen == two) << seen.size();
    }
    stop = true;
    for (std::thread& writer : writers) {
        writer.join();
    }
    EXPECT_EQ(Temporaries().size(), 0u);
}

TEST_F(AtomicFileStreamTest, IsDestroyedThroughItsBase) {
    std::unique_ptr<std::ofstream> file =
        std::make_unique<AtomicFileStream>(target.c_str(), std::ios_base::out);
    *file << "text";
    file.reset();
    EXPECT_EQ(ReadFile(folder + "/" + Temporaries().at(0)), "text") << "closed, not deleted";
}

} // namespace
