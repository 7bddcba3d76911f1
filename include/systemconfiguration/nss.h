/// The name-service switch: value types that read and write the file which says where a host looks
/// for users, groups, hosts and so on.
///
///     NSSConfiguration configuration;
///     std::ifstream("/etc/nsswitch.conf") >> configuration;
///     configuration[NSSDatabase::Passwd].push_back(NSSService("x"));
///     std::cout << configuration;
///
/// A configuration that is read and written loses comments, blank lines, spacing, the order of the
/// lines, and lines of databases that are unknown here. Nothing here knows of files, locks or logs.
/// The types are plain values: different objects may be used by different threads, one object by
/// one thread at a time. Every function may throw std::bad_alloc.
#ifndef SYSTEMCONFIGURATION_NSS_H
#define SYSTEMCONFIGURATION_NSS_H

#include <cstdint>
#include <deque>
#include <exception>
#include <iosfwd>
#include <list>
#include <map>
#include <string>

#include "systemconfiguration/comparison.h"
#include "tesauth/export.h"

namespace SystemConfiguration {

/// A text that is no database, or a database that has no name.
class TESAUTH_API InvalidDatabaseException : public std::exception {
public:
    explicit InvalidDatabaseException(const std::string& message);
    ~InvalidDatabaseException() override;
    /// The message; valid as long as the object lives.
    const char* what() const noexcept override;

private:
    std::string message_;
};

/// What is looked up.
class TESAUTH_API NSSDatabase {
public:
    /// In the order in which a configuration is written.
    enum Database : std::uint32_t {
        Passwd = 1,
        Group = 2,
        Shadow = 3,
        Hosts = 4,
        Netmasks = 5,
        Networks = 6,
        Protocols = 7,
        Services = 8,
        Ethers = 9,
        Rpc = 10,
        Netgroup = 11,
        Bootparams = 12,
        Publickey = 13,
        Automount = 14,
        Aliases = 15,
    };

    /// Kept on purpose: leaves the value unset. Assign one before anything else.
    NSSDatabase();
    NSSDatabase(Database database);
    /// A name, in lower case. Throws InvalidDatabaseException for any other text: "Invalid
    /// Database: " and the text.
    NSSDatabase(const std::string& name);

    NSSDatabase& operator=(Database database);
    /// Throws as the constructor does, and leaves the database as it was then.
    NSSDatabase& operator=(const std::string& name);

    bool operator==(const NSSDatabase& other) const;
    /// Looks the name up, which throws as the constructor does.
    bool operator==(const std::string& name) const;
    bool operator==(Database database) const;

    /// The name, as std::string(database). Throws InvalidDatabaseException for a value without one.
    /// Kept on purpose: its message is "Invalid Database: " without its first N characters, N being
    /// the value.
    operator std::string() const;
    operator Database() const;

private:
    Database value_;
};

/// One place to look, with what follows it in brackets.
class TESAUTH_API NSSService {
public:
    NSSService(const std::string& module);

    bool operator==(const NSSService& other) const;

    const std::string& module() const { return module_; }
    /// The words in the brackets.
    std::list<std::string>& parameters() { return parameters_; }
    const std::list<std::string>& parameters() const { return parameters_; }

private:
    std::string module_;
    std::list<std::string> parameters_;
};

/// Writes the module and, if there are parameters, " [", them with blanks between, and "]".
TESAUTH_API std::ostream& operator<<(std::ostream& out, const NSSService& service);

/// Where to look, for each database.
class TESAUTH_API NSSConfiguration {
public:
    NSSConfiguration();

    /// The services of a database, the first choice first; an empty list is made where there is
    /// none.
    std::deque<NSSService>& operator[](NSSDatabase database);

private:
    friend TESAUTH_API std::ostream& operator<<(std::ostream& out,
                                                const NSSConfiguration& configuration);

    std::map<NSSDatabase, std::deque<NSSService>> databases_;
};

/// Writes a line for each database: name, colon, and each service with a blank before it. Throws
/// InvalidDatabaseException for a database without a name.
TESAUTH_API std::ostream& operator<<(std::ostream& out, const NSSConfiguration& configuration);

/// Reads to the end of the stream and adds the services to those that the configuration has. A line
/// that begins with '#' is a comment; one whose first word is no database and a colon is skipped.
///
/// Kept on purpose: the colon stands directly after the database's name, with white space behind
/// it; what follows a service is looked at from the second character on; and where a ']' follows on
/// the line, reading goes on as far behind it as the service's end is from the line's beginning,
/// which is most often behind the end of the line, so that services after brackets are not read.
///
/// Throws std::out_of_range when a service is followed by exactly one more character, such as a
/// blank or the carriage return of a line end; what was read before that service stays.
TESAUTH_API std::istream& operator>>(std::istream& in, NSSConfiguration& configuration);

} // namespace SystemConfiguration

#endif
