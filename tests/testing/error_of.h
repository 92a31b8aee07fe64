// What a call throws.
#pragma once

#include <exception>
#include <string>

namespace qx::testing {

// Returns: the text of the exception; "" when there is none. Other exceptions pass.
template <typename Exception = std::exception, typename Call>
std::string ErrorOf(const Call& call) {
  try {
    call();
    return "";
  } catch (const Exception& error) {
    return error.what();
  }
}

}  // namespace qx::testing
