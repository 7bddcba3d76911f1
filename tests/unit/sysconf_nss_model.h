/// A slow and plain reader and writer of name-service switch configurations, to compare the
/// library's with. It moves a stream's position about, as the format's rules are put, and knows
/// nothing of the library.
#ifndef TESTS_UNIT_SYSCONF_NSS_MODEL_H
#define TESTS_UNIT_SYSCONF_NSS_MODEL_H

#include <istream>
#include <map>
#include <string>
#include <vector>

#include "sysconf_reading.h"

namespace SysconfTest {

class NSSModel {
public:
    /// Adds what `text` holds, up to the first service that one last character follows.
    Reading Read(const std::string& text);

    /// Will what is written be read as what it is? What follows a service is not looked at where a
    /// "]" follows on its line, and taken for its brackets where it begins with "[".
    bool IsStable() const;

private:
    struct Service {
        std::string module;
        std::vector<std::string> parameters;
    };

    void ReadLine(std::string line);
    void ReadServices(const std::string& line, std::istream& words, int database);
    static std::string WrittenServices(const std::vector<Service>& services);
    std::string Written() const;

    /// By the place of the database in a written configuration.
    std::map<int, std::vector<Service>> databases_;
};

} // namespace SysconfTest

#endif
