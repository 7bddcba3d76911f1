#include "stored_list.h"

#include "error.h"
#include "files.h"

#include <sstream>

namespace tessary::directory {
namespace {

constexpr std::chrono::seconds lockTime{5};

} // namespace

std::vector<std::string> ReadList(const std::string& path) {
    std::vector<std::string> items;
    std::istringstream lines(ReadFile(path).value_or(""));
    for (std::string line; std::getline(lines, line);)
        if (!line.empty())
            items.push_back(line);
    return items;
}

void ReplaceList(const std::string& path, const std::vector<std::string>& items,
                 bool (*isItem)(const std::string&), const char* kind) {
    std::string text;
    for (const std::string& item : items) {
        if (!isItem(item))
            throw Error(Status::InvalidParameter, "'" + item + "' is not " + kind);
        text += item + "\n";
    }
    const StateLock lock(listLock, Deadline::In(lockTime));
    if (text.empty()) {
        RemoveFile(path);
        return;
    }
    Replacement file(path);
    file.Write(text);
    file.Commit();
}

} // namespace tessary::directory
