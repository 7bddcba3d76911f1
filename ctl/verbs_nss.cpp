#include "verbs.h"

#include <sstream>

#include "file_change.h"
#include "nss_file.h"

namespace ctl {

using namespace SystemConfiguration;

namespace {

NSSDatabase ParseDatabase(const std::string& word) {
    try {
        return NSSDatabase(word);
    } catch (const InvalidDatabaseException&) {
        std::string known;
        for (const NSSDatabase database : NssDatabases()) {
            known += (known.empty() ? "" : ", ") + static_cast<std::string>(database);
        }
        throw UsageError("'" + word + "' is none of the databases " + known);
    }
}

NSSService ServiceOf(const FileArguments& arguments) {
    NSSService service(arguments.service);
    const auto words = SplitWords(arguments.criteria);
    service.parameters().assign(words.begin(), words.end());
    if (!CanBeWritten(service)) {
        throw UsageError("a service and its criteria are words without white space, brackets and "
                         "\"#\"; the brackets around the criteria are added");
    }
    return service;
}

} // namespace

Answer ShowSwitch(const Arguments& arguments) {
    const std::string& name = arguments.file.file;
    NSSConfiguration configuration = NssFile(name, ReadFile(name).content).Configuration();
    std::ostringstream text;
    text << configuration;
    Json databases = Json::array();
    for (const NSSDatabase database : NssDatabases()) {
        Json services = Json::array();
        for (const NSSService& service : configuration[database]) {
            services.push_back({{"service", service.module()}, {"criteria", service.parameters()}});
        }
        if (!services.empty()) {
            databases.push_back(
                {{"database", static_cast<std::string>(database)}, {"services", services}});
        }
    }
    Answer answer{text.str(), {{"databases", databases}}};
    answer.isFileText = true;
    return answer;
}

Answer AddService(const Arguments& arguments) {
    const NSSDatabase database = ParseDatabase(arguments.file.database);
    const NSSService added = ServiceOf(arguments.file);
    const FileSnapshot before = ReadFile(arguments.file.file);
    const NssFile file(arguments.file.file, before.content);
    return ChangeFile(
        arguments.file, arguments.json, before,
        file.WithService(database, added, PlaceOf(arguments.file), WayOf(arguments.file)));
}

Answer RemoveService(const Arguments& arguments) {
    const NSSDatabase database = ParseDatabase(arguments.file.database);
    const FileSnapshot before = ReadFile(arguments.file.file);
    const NssFile file(arguments.file.file, before.content);
    return ChangeFile(arguments.file, arguments.json, before,
                      file.WithoutService(database, arguments.file.service, WayOf(arguments.file)));
}

} // namespace ctl
