/// Do the library's readers and writers agree with the models of them about a text?
#ifndef TESTS_UNIT_SYSCONF_AGREEMENT_H
#define TESTS_UNIT_SYSCONF_AGREEMENT_H

#include <string>

namespace SysconfTest {

/// Reads `text` with the library and with the model, and compares what is read, what is thrown and
/// what is left in the stream; then the same for what was written, which has to come out as it was
/// wherever the format can hold it. Returns what differs, in words, or nothing.
///
/// \param thorough also reads the text a second time into what has been read, and takes what the
///                 library read apart, piece by piece, beside what it writes
std::string PAMDisagreement(const std::string& text, bool thorough = false);
std::string NSSDisagreement(const std::string& text, bool thorough = false);

} // namespace SysconfTest

#endif
