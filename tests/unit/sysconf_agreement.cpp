#include "sysconf_agreement.h"

#include "sysconf_library.h"
#include "sysconf_nss_model.h"
#include "sysconf_pam_model.h"

namespace SysconfTest {

namespace {

/// What is written and read may go on losing a character at a time; the first few times are enough.
const int kWritings = 4;

bool ReadsAgainTheSame(const PAMModel& model) {
    return !model.IsCutOff();
}
bool ReadsAgainTheSame(const NSSModel& model) {
    return model.IsStable();
}

std::string Difference(const std::string& what, const std::string& text, const Reading& library,
                       const Reading& model) {
    return what + " " + Escaped(text) + "\n  by the library:\n" + Described(library) +
           "  by the model:\n" + Described(model);
}

/// What was written is read and written, until nothing changes or often enough. Where the model
/// says that it is read as what it is, nothing may change at all.
template <class Library, class Model>
std::string RewritingDisagreement(std::string written, bool stable) {
    for (int i = 0; i < kWritings; ++i) {
        Library library;
        Model model;
        const Reading byLibrary = library.Read(written);
        const Reading byModel = model.Read(written);
        if (byLibrary != byModel)
            return Difference("written, and read again:", written, byLibrary, byModel);
        if (stable && byLibrary.written != written)
            return Difference("not the same when read again:", written, byLibrary, byModel);
        if (stable && !byLibrary.thrown.empty())
            return Difference("refused when read again:", written, byLibrary, byModel);
        if (byLibrary.written == written)
            return "";
        written = byLibrary.written;
        stable = ReadsAgainTheSame(model);
    }
    return "";
}

template <class Library, class Model>
std::string Disagreement(const std::string& text, bool thorough) {
    Library library;
    Model model;
    const Reading byLibrary = library.Read(text);
    const Reading byModel = model.Read(text);
    if (byLibrary != byModel)
        return Difference("read:", text, byLibrary, byModel);
    const std::string again =
        RewritingDisagreement<Library, Model>(byLibrary.written, ReadsAgainTheSame(model));
    if (!again.empty())
        return again + "  which came of " + Escaped(text) + "\n";
    if (!thorough)
        return "";
    const Reading secondByLibrary = library.Read(text);
    const Reading secondByModel = model.Read(text);
    if (secondByLibrary != secondByModel)
        return Difference("read a second time:", text, secondByLibrary, secondByModel);
    const std::string pieces = library.Pieces();
    if (pieces != secondByLibrary.written)
        return "taken apart: " + Escaped(pieces) +
               "\n    but written: " + Escaped(secondByLibrary.written) +
               "\n  read twice: " + Escaped(text) + "\n";
    return "";
}

} // namespace

std::string PAMDisagreement(const std::string& text, bool thorough) {
    return Disagreement<PAMLibrary, PAMModel>(text, thorough);
}

std::string NSSDisagreement(const std::string& text, bool thorough) {
    return Disagreement<NSSLibrary, NSSModel>(text, thorough);
}

} // namespace SysconfTest
