/// What a verb has to say when it is done.
#ifndef TESAUTHCTL_ANSWER_H
#define TESAUTHCTL_ANSWER_H

#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "failure.h"

namespace ctl {

/// The order of the keys is the order in which they are written.
using Json = nlohmann::ordered_json;

/// One answer in its two forms. A verb that could answer in part gives the rest as a failure.
struct Answer {
    std::string text; ///< lines, the last one without its line end
    Json json;
    std::optional<Failure> failure = std::nullopt;
    ExitCode exitCode = ExitCode::Done; ///< of an answer that is itself bad news
    bool isFileText = false;            ///< whole lines, told byte for byte, unless to a terminal
};

} // namespace ctl

#endif
