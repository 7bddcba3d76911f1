/// What the tests of the value types ask of each of them.
#ifndef TESAUTH_TESTS_UNIT_LIB_SYSTEMCONFIGURATION_H
#define TESAUTH_TESTS_UNIT_LIB_SYSTEMCONFIGURATION_H

#include <sstream>
#include <string>

/// What an exception of this type, and of no other, says.
template <typename Exception, typename Function>
std::string MessageOf(Function function) {
    try {
        function();
    } catch (const Exception& exception) {
        return exception.what();
    }
    return "nothing was thrown";
}

template <typename Value>
std::string Written(const Value& value) {
    std::ostringstream out;
    out << value;
    return out.str();
}

#endif
