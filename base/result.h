// Result type used across the library: failures are values, nothing throws across the API.
#pragma once

#include <string>
#include <utility>

#include <tl/expected.hpp>

namespace linkwash {

// A failure with a message meant for a person (one line, no trailing period needed).
struct Error {
  std::string message;
};

template <typename T>
using Result = tl::expected<T, Error>;

inline tl::unexpected<Error> fail(std::string message) {
  return tl::unexpected<Error>(Error{std::move(message)});
}

}  // namespace linkwash
