/// A slow and plain reader and writer of PAM policies, to compare the library's with. It takes one
/// word at a time off the stream, as the format's rules are put, and knows nothing of the library.
#ifndef TESTS_UNIT_SYSCONF_PAM_MODEL_H
#define TESTS_UNIT_SYSCONF_PAM_MODEL_H

#include <istream>
#include <map>
#include <string>
#include <vector>

#include "sysconf_reading.h"

namespace SysconfTest {

class PAMModel {
public:
    /// Adds what `text` holds, up to the first word that is out of place.
    Reading Read(const std::string& text);

    /// Was an entry cut off before its module? Then it takes what is written behind it as its
    /// module, and what is read again differs.
    bool IsCutOff() const;

private:
    struct Entry {
        std::string control;
        std::string module;
        std::vector<std::string> parameters;
    };
    struct Refused {
        std::string type;
        std::string message;
    };

    static Entry ReadEntry(std::istream& in);
    void ReadPolicy(std::istream& in);
    std::string Written() const;

    /// By facility; the alphabet's order of the four happens to be the order of a written policy.
    std::map<std::string, std::vector<Entry>> stacks_;
};

} // namespace SysconfTest

#endif
