/// Lists that the host's administrator sets and that are kept on the host.
#ifndef TESSARY_DIRECTORY_STORED_LIST_H
#define TESSARY_DIRECTORY_STORED_LIST_H

#include <string>
#include <vector>

namespace tessary::directory {

/// \return the items in their order; empty when none have been set
std::vector<std::string> ReadList(const std::string& path);

/// Replaces a list as a whole; an empty one removes it.
/// \param isItem tells whether a text can be an item; one that holds a line end cannot
/// \param kind   what an item is, for the Error's text: "the name of a service"
/// \throws Error InvalidParameter when one of the items is none; then the list is as it was
void ReplaceList(const std::string& path, const std::vector<std::string>& items,
                 bool (*isItem)(const std::string&), const char* kind);

} // namespace tessary::directory

#endif
