// What the commands print about one subject, for people and for programs.
#pragma once

#include <nlohmann/json.hpp>

namespace qx::tools {

// Prints an object's fields on standard output: as "key: value" lines, or as JSON.
void PrintReport(const nlohmann::ordered_json& report, bool json);

}  // namespace qx::tools
