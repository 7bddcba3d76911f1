/// What C++20 makes of an operator== by itself, for programs in C++17: the operands the other way
/// round, and operator!=.
#ifndef SYSTEMCONFIGURATION_COMPARISON_H
#define SYSTEMCONFIGURATION_COMPARISON_H

#if __cplusplus < 202002L

namespace SystemConfiguration {

template <typename Other, typename Value>
auto operator==(const Other& other, const Value& value) -> decltype(value.operator==(other)) {
    return value.operator==(other);
}

template <typename Value, typename Other>
auto operator!=(const Value& value, const Other& other) -> decltype(value.operator==(other)) {
    return !value.operator==(other);
}

} // namespace SystemConfiguration

#endif

#endif
