/// A user's name as somebody wrote it, taken apart.
#ifndef TESSARY_DIRECTORY_USER_REFERENCE_H
#define TESSARY_DIRECTORY_USER_REFERENCE_H

#include <string>
#include <vector>

namespace tessary::directory {

/// Which user is meant, by what.
struct UserReference {
    enum class Form {
        AccountName,      ///< "alice", "CORP\alice"
        PrincipalName,    ///< "alice@corp.example"
        Path,             ///< "corp.example/Users/alice"
        DistinguishedName ///< "CN=alice,CN=Users,DC=corp,DC=example"
    };

    Form form = Form::AccountName;
    std::string domain; ///< DNS or NetBIOS name; a principal name's suffix; empty when not written
    std::string name;   ///< the account's name, a principal name's first part, or the whole
                        ///< distinguished name
    std::vector<std::string> levels; ///< a path's, from the top; the last one is the user's own

    /// Takes a name for a distinguished one when it begins with an attribute and "=", else for a
    /// path or "DOMAIN\user" by which of "/" and "\" comes first. In a path a backslash makes the
    /// next character part of a name.
    /// \throws Error InvalidUserName when it is none of the forms, is longer than any name can be,
    ///         has control characters or is no UTF-8
    static UserReference Parse(const std::string& text);
};

} // namespace tessary::directory

#endif
