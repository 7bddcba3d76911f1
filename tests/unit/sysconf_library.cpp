#include "sysconf_library.h"

#include <exception>
#include <sstream>
#include <stdexcept>

namespace SysconfTest {

using namespace SystemConfiguration;

namespace {

/// Reads `text` into `target`, whose type has no base in common with others that are read.
template <class Target>
Reading ReadInto(Target& target, const std::string& text) {
    Reading reading;
    std::istringstream in(text);
    try {
        in >> target;
    } catch (const InvalidControlException& error) {
        reading.thrown = std::string("InvalidControlException: ") + error.what();
    } catch (const InvalidFacilityException& error) {
        reading.thrown = std::string("InvalidFacilityException: ") + error.what();
    } catch (const InvalidDatabaseException& error) {
        reading.thrown = std::string("InvalidDatabaseException: ") + error.what();
    } catch (const std::out_of_range& error) {
        reading.thrown = std::string("std::out_of_range: ") + error.what();
    } catch (const std::exception& error) {
        reading.thrown = std::string("something else: ") + error.what();
    }
    std::ostringstream out;
    out << target;
    reading.written = out.str();
    NoteStream(in, reading);
    return reading;
}

} // namespace

Reading PAMLibrary::Read(const std::string& text) {
    return ReadInto(policy_, text);
}
Reading NSSLibrary::Read(const std::string& text) {
    return ReadInto(configuration_, text);
}

std::string PAMLibrary::Pieces() {
    std::string pieces = "#%PAM-1.0\n\n";
    for (PAMFacility facility :
         {PAMFacility::Account, PAMFacility::Auth, PAMFacility::Password, PAMFacility::Session}) {
        const PAMStack& stack = policy_[facility];
        for (const PAMEntry& entry : stack.entries()) {
            pieces += std::string(stack.Facility()) + "\t" + std::string(entry.control()) + "\t" +
                      entry.module() + "\t";
            for (const std::string& parameter : entry.parameters())
                pieces += parameter + " ";
            pieces += "\n";
        }
        if (!stack.entries().empty())
            pieces += "\n";
    }
    return pieces;
}

std::string NSSLibrary::Pieces() {
    std::string pieces;
    for (std::uint32_t value = NSSDatabase::Passwd; value <= NSSDatabase::Aliases; ++value) {
        const NSSDatabase database(static_cast<NSSDatabase::Database>(value));
        const std::deque<NSSService>& services = configuration_[database];
        if (services.empty())
            continue;
        pieces += std::string(database) + ":";
        for (const NSSService& service : services) {
            pieces += " " + service.module();
            std::string separator = " [";
            for (const std::string& parameter : service.parameters()) {
                pieces += separator + parameter;
                separator = " ";
            }
            if (!service.parameters().empty())
                pieces += "]";
        }
        pieces += "\n";
    }
    return pieces;
}

} // namespace SysconfTest
