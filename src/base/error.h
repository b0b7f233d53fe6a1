// Errors with a domain, a code and a readable description, and a small
// result type for operations that either produce a value or fail.
#pragma once

#include <string>
#include <system_error>
#include <type_traits>
#include <utility>
#include <variant>

namespace qor {

struct Error {
  std::string domain;
  int code = 0;
  std::string description;
};

// The program's own errors share one domain.
inline Error qorError(int code, std::string description) {
  return Error{"QOR", code, std::move(description)};
}

// A platform failure, described as "<what>: <system message>".
inline Error systemError(std::error_code ec, const std::string& what) {
  return Error{ec.category().name(), ec.value(), what + ": " + ec.message()};
}

inline Error systemError(int errnum, const std::string& what) {
  return systemError(std::error_code(errnum, std::generic_category()), what);
}

template <typename T = std::monostate>
class [[nodiscard]] Result {
 public:
  Result() requires std::is_same_v<T, std::monostate>
  = default;
  Result(T value) : state_(std::move(value)) {}
  Result(Error error) : state_(std::move(error)) {}

  bool ok() const { return std::holds_alternative<T>(state_); }
  explicit operator bool() const { return ok(); }

  const T& value() const& { return std::get<T>(state_); }
  T& value() & { return std::get<T>(state_); }
  T&& value() && { return std::get<T>(std::move(state_)); }
  const T& operator*() const& { return value(); }
  const T* operator->() const { return &value(); }

  const Error& error() const { return std::get<Error>(state_); }

 private:
  std::variant<T, Error> state_;
};

}  // namespace qor
