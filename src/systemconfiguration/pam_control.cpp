#include "systemconfiguration/pam.h"

#include "keyword_table.h"

namespace SystemConfiguration {
namespace {

constexpr KeywordTable<PAMControl::Control, InvalidControlException, 6> controls{
    "Invalid Control: ",
    {{{PAMControl::Required, "required"},
      {PAMControl::Requisite, "requisite"},
      {PAMControl::Sufficient, "sufficient"},
      {PAMControl::Optional, "optional"},
      {PAMControl::Include, "include"},
      {PAMControl::Substack, "substack"}}}};

PAMControl::Control Parse(const std::string& text) {
    if (!text.empty() && text.front() == '[' && text.back() == ']')
        return PAMControl::Bracketed;
    return controls.ValueOf(text);
}

} // namespace

InvalidControlException::InvalidControlException(const std::string& message) : message_(message) {}

InvalidControlException::~InvalidControlException() = default;

const char* InvalidControlException::what() const noexcept {
    return message_.c_str();
}

PAMControl::PAMControl() : value_(None) {}

PAMControl::PAMControl(Control control) : value_(control) {}

PAMControl::PAMControl(Control control, const std::string& text) : value_(control), text_(text) {}

PAMControl::PAMControl(const std::string& keyword) : PAMControl() {
    *this = keyword;
}

PAMControl& PAMControl::operator=(Control control) {
    if (control != Bracketed)
        text_.clear();
    value_ = control;
    return *this;
}

PAMControl& PAMControl::operator=(const std::string& keyword) {
    const Control control = Parse(keyword);
    if (control == Bracketed)
        text_ = keyword;
    value_ = control;
    return *this;
}

bool PAMControl::operator==(const PAMControl& other) const {
    return value_ == other.value_ && (value_ != Bracketed || text_ == other.text_);
}

bool PAMControl::operator==(const std::string& keyword) const {
    return value_ == Bracketed ? text_ == keyword : value_ == Parse(keyword);
}

bool PAMControl::operator==(Control control) const {
    return value_ == control;
}

PAMControl::operator std::string() const {
    return value_ == Bracketed ? text_ : controls.TextOf(value_);
}

PAMControl::operator Control() const {
    return value_;
}

} // namespace SystemConfiguration
