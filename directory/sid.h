/// Security identifiers.
#ifndef TESSARY_DIRECTORY_SID_H
#define TESSARY_DIRECTORY_SID_H

#include <string>

namespace tessary::directory {

/// The text form, such as "S-1-5-21-1-2-3", of a security identifier as a directory stores it;
/// empty when it is malformed.
std::string SidText(const std::string& bytes);

} // namespace tessary::directory

#endif
