/// Key-value settings files, and the three that libtesauth keeps under /etc/tessary/tesauth/.
///
/// A file holds one assignment a line. The first "=" splits key from value, blanks and tabs around
/// each side are dropped, and one pair of matching quotes around a side is removed. There are no
/// comments, no escapes and no sections; a key that occurs again is ignored.
#ifndef TESAUTH_CONFIGURATION_H
#define TESAUTH_CONFIGURATION_H

#include <map>
#include <string>
#include <utility>

#include "tesauth/export.h"

namespace tessary {
namespace authentication {

/// The content of one settings file, read whole at construction. Not synchronised; writers of one
/// file replace it whole, the last one wins.
///
/// The map's own interface may be used too: insert() adds keys, which operator[] never does.
class TESAUTH_API Configuration : public std::map<std::string, std::string> {
public:
    /// Reads the file. Throws IOError when it cannot be read and ConfigurationError, with the line
    /// number, for a line that is no assignment.
    explicit Configuration(const std::string& filename);

    /// Never writes.
    virtual ~Configuration();

    /// Replaces the file atomically with the current content, keys in ascending order. Throws
    /// IOError when that fails, also when the content could not be written whole: the old file
    /// stays in place. Throws FilePermissionError as AtomicFileStream does: the new one is in
    /// place.
    virtual void Write() const;

    /// The value of an existing key. Kept on purpose, unlike the map's own operator: a missing key
    /// is never inserted but throws InvalidKeyException.
    const std::string& operator[](const std::string& key) const;
    std::string& operator[](const std::string& key);

protected:
    std::string filename;
};

/// Parses one line into key and value; lineNumber is used in messages. Throws ConfigurationError
/// for a line without "=" and for a side that is one quote character alone.
TESAUTH_API std::pair<std::string, std::string> GetKeyValuePair(const std::string& line,
                                                                int lineNumber);

/// The decimal text of a number.
template <typename T>
std::string string_cast(T value);
template <>
TESAUTH_API std::string string_cast<int>(int value);

/// The host's authentication settings, /etc/tessary/tesauth/authentication.conf. Its key
/// "remote-authentication-store" holds the display name of the active store.
class TESAUTH_API AuthenticationConfiguration : public Configuration {
public:
    AuthenticationConfiguration();
    ~AuthenticationConfiguration() override;
};

/// /etc/tessary/tesauth/provider.conf. Its key "provider" names the directory provider plug-in;
/// empty means none.
class TESAUTH_API ProviderConfiguration : public Configuration {
public:
    ProviderConfiguration();
    ~ProviderConfiguration() override;
};

/// /etc/tessary/tesauth/apxprovider.conf. Its key "provider" names the authentication-proxy client
/// plug-in; empty means none.
class TESAUTH_API APXProviderConfiguration : public Configuration {
public:
    APXProviderConfiguration();
    ~APXProviderConfiguration() override;
};

} // namespace authentication
} // namespace tessary

#endif
