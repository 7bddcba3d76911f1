/// How clients are told that they are refused.
#ifndef TESSARY_PROXY_REFUSAL_ANSWER_H
#define TESSARY_PROXY_REFUSAL_ANSWER_H

#include "account_service.h"
#include "secret_text.h"

#include <string>

namespace tessary::proxy {

/// The body of a refusal: a JSON object with the code and the message.
std::string RefusalBody(Code code, const std::string& message);

/// The HTTP status that goes with a code.
int HttpStatusOf(Code code);

/// The whole HTTP answer, for a request that never was one.
SecretText RefusalAnswer(int status, Code code, const std::string& message);

} // namespace tessary::proxy

#endif
