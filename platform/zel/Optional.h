// A value or nothing. Differs from std::optional in one point that callers rely on: dereferencing
// nothing raises BadOptionalAccess instead of being undefined.
#pragma once

#include "platform/zel/Exceptions.h"
#include <optional>
#include <utility>

namespace Zel {

template <class T>
class Optional {
public:
  Optional() = default;
  Optional(std::nullopt_t) {}
  Optional(T value) : value_(std::move(value)) {}

  explicit operator bool() const { return value_.has_value(); }
  T const & operator*() const { return checked(); }
  T const * operator->() const { return &checked(); }
  bool operator==(Optional const &) const = default;

private:
  T const & checked() const {
    if (!value_)
      throw BadOptionalAccess();
    return *value_;
  }

  std::optional<T> value_;
};

} // namespace Zel
