#include "verbs.h"

#include <sstream>

#include "file_change.h"
#include "pam_file.h"

namespace ctl {

using namespace SystemConfiguration;

namespace {

constexpr PAMFacility::Facility facilities[] = {PAMFacility::Account, PAMFacility::Auth,
                                                PAMFacility::Password, PAMFacility::Session};

PAMFacility ParseFacility(const std::string& word) {
    try {
        return PAMFacility(word);
    } catch (const InvalidFacilityException&) {
        throw UsageError("'" + word + "' is no facility: account, auth, password or session");
    }
}

PAMControl ControlOf(const FileArguments& arguments) {
    try {
        return ParseControl(arguments.control);
    } catch (const InvalidControlException&) {
        throw UsageError("'" + arguments.control +
                         "' is no control: required, requisite, sufficient, optional, include, "
                         "substack, or actions as \"[success=1 default=ignore]\"");
    }
}

PamLine EntryOf(const FileArguments& arguments) {
    PamLine line = {ParseFacility(arguments.facility),
                    PAMEntry(ControlOf(arguments), arguments.module)};
    line.entry.parameters().assign(arguments.parameters.begin(), arguments.parameters.end());
    if (!CanBeWritten(line)) {
        throw UsageError("a policy cannot hold this entry: module and parameters are words without "
                         "white space, the last of them does not end in a backslash, and a list of "
                         "actions ends with its first \"]\" before a blank");
    }
    return line;
}

Json ToJson(const PAMFacility& facility, const PAMEntry& entry) {
    return {{"facility", static_cast<std::string>(facility)},
            {"control", static_cast<std::string>(entry.control())},
            {"module", entry.module()},
            {"parameters", entry.parameters()}};
}

} // namespace

Answer ShowPolicy(const Arguments& arguments) {
    const std::string& name = arguments.file.file;
    PAMPolicy policy = PamFile(name, ReadFile(name).content).Policy();
    std::ostringstream text;
    text << policy;
    Json entries = Json::array();
    for (const PAMFacility facility : facilities) {
        for (const PAMEntry& entry : policy[facility].entries()) {
            entries.push_back(ToJson(facility, entry));
        }
    }
    Answer answer{text.str(), {{"entries", entries}}};
    answer.isFileText = true;
    return answer;
}

Answer FindEntry(const Arguments& arguments) {
    const std::string& name = arguments.file.file;
    const PAMFacility facility = ParseFacility(arguments.file.facility);
    const PamFile file(name, ReadFile(name).content);
    PAMPolicy policy = file.Policy();
    const PAMStack& stack = policy[facility];
    const auto found = stack.find(arguments.file.module);
    if (found == stack.entries().end()) {
        throw file.NoSuchEntry(facility, arguments.file.module);
    }
    Answer answer{LineOf({facility, *found}) + "\n", {{"entry", ToJson(facility, *found)}}};
    answer.isFileText = true;
    return answer;
}

Answer AddEntry(const Arguments& arguments) {
    const PamLine added = EntryOf(arguments.file);
    const FileSnapshot before = ReadFile(arguments.file.file);
    const PamFile file(arguments.file.file, before.content);
    return ChangeFile(arguments.file, arguments.json, before,
                      file.WithEntry(added, PlaceOf(arguments.file), WayOf(arguments.file)));
}

Answer RemoveEntry(const Arguments& arguments) {
    const PAMFacility facility = ParseFacility(arguments.file.facility);
    const FileSnapshot before = ReadFile(arguments.file.file);
    const PamFile file(arguments.file.file, before.content);
    return ChangeFile(arguments.file, arguments.json, before,
                      file.WithoutEntry(facility, arguments.file.module, WayOf(arguments.file)));
}

Answer Restore(const Arguments& arguments) {
    return RestoreFile(arguments.file, arguments.json);
}

} // namespace ctl
