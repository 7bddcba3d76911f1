#include "systemconfiguration/pam.h"

#include <istream>
#include <ostream>

#include "keyword_table.h"

namespace SystemConfiguration {
namespace {

constexpr KeywordTable<PAMFacility::Facility, InvalidFacilityException, 4> facilities{
    "Invalid Facility: ",
    {{{PAMFacility::Auth, "auth"},
      {PAMFacility::Account, "account"},
      {PAMFacility::Password, "password"},
      {PAMFacility::Session, "session"}}}};

} // namespace

InvalidFacilityException::InvalidFacilityException(const std::string& message)
    : message_(message) {}

InvalidFacilityException::~InvalidFacilityException() = default;

const char* InvalidFacilityException::what() const noexcept {
    return message_.c_str();
}

PAMFacility::PAMFacility() : value_(None) {}

PAMFacility::PAMFacility(Facility facility) : value_(facility) {}

PAMFacility::PAMFacility(const std::string& keyword) : value_(facilities.ValueOf(keyword)) {}

PAMFacility& PAMFacility::operator=(Facility facility) {
    value_ = facility;
    return *this;
}

PAMFacility& PAMFacility::operator=(const std::string& keyword) {
    value_ = facilities.ValueOf(keyword);
    return *this;
}

bool PAMFacility::operator==(const PAMFacility& other) const {
    return value_ == other.value_;
}

bool PAMFacility::operator==(const std::string& keyword) const {
    return value_ == facilities.ValueOf(keyword);
}

bool PAMFacility::operator==(Facility facility) const {
    return value_ == facility;
}

PAMFacility::operator std::string() const {
    return facilities.TextOf(value_);
}

PAMFacility::operator Facility() const {
    return value_;
}

std::ostream& operator<<(std::ostream& out, const PAMFacility& facility) {
    return out << static_cast<std::string>(facility);
}

std::istream& operator>>(std::istream& in, PAMFacility& facility) {
    std::string word;
    in >> word;
    facility = word;
    return in;
}

} // namespace SystemConfiguration
