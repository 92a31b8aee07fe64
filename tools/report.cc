#include "tools/report.h"

#include <iostream>
#include <string>

namespace qx::tools {

void PrintReport(const nlohmann::ordered_json& report, bool json) {
  if (json) {
    // File names need not be UTF-8, JSON does.
    std::cout << report.dump(2, ' ', false, nlohmann::json::error_handler_t::replace) << '\n';
    return;
  }
  for (const auto& [key, value] : report.items()) {
    const std::string text = value.is_string() ? value.get<std::string>() : value.dump();
    std::cout << key << ": " << text << '\n';
  }
}

}  // namespace qx::tools
