#include "ctl_file_fixture.h"

#include <filesystem>

namespace ctl_test {

FileTest::FileTest() {
    std::filesystem::remove_all(folder);
    std::filesystem::create_directories(folder);
    std::filesystem::permissions(folder, std::filesystem::perms(0755));
}

FileTest::~FileTest() {
    std::filesystem::remove_all(folder);
}

void FileTest::Fill(const std::string& text) const {
    scripted::WriteFile(file, text);
    filled_ = text;
}

std::string FileTest::Text() const {
    return scripted::ReadFile(file);
}

std::vector<std::string> FileTest::Names() {
    return scripted::NamesIn(folder);
}

void FileTest::ExpectUntouched() const {
    EXPECT_EQ(Text(), filled_);
    EXPECT_EQ(Names(), Words{"edited"});
}

void FileTest::ExpectWrongUsage(const std::string& group, const Words& words) const {
    Words line = Words{group} + words;
    if (line.size() > 2) {
        line[2] = file;
    }
    const Result result = Ctl(line);
    EXPECT_EQ(result.status, 2) << result.out << result.err;
    EXPECT_EQ(result.out, "");
    EXPECT_NE(result.err, "");
    ExpectUntouched();
}

std::string Done(const Words& arguments) {
    const Result result = Ctl(arguments);
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(result.err, "");
    return result.out;
}

Words operator+(Words words, const Words& more) {
    words.insert(words.end(), more.begin(), more.end());
    return words;
}

std::string DiffOf(const std::string& file, const std::string& hunks) {
    return "--- " + file + "\n+++ " + file + "\n" + hunks;
}

std::string ChangedLine(const std::string& file) {
    return "changed " + file + "; " + file +
           ".tesauth-backup is what it was before the first change\n";
}

} // namespace ctl_test
