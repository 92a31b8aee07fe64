// A YAML text as a tree whose nodes know their lines. Its source is the only includer of yaml-cpp.
#pragma once

#include <string>
#include <vector>

namespace qx::utils::stereo {

struct YamlNode {
  enum class Kind { kScalar, kList, kMap };

  Kind kind = Kind::kScalar;
  int line = 0;                 // counted from 1; in a map, the key's
  std::string key;              // in a map; otherwise empty
  std::string text;             // of a scalar
  std::vector<YamlNode> items;  // of a list or map
};

// Ends the reading of a calibration file: throws std::invalid_argument "file:line: text". Control
// characters of `text` become '?', so that it is one line.
[[noreturn]] void FailAt(const std::string& file, int line, const std::string& text);

// Parses the first document of `text`.
//
// Inputs:  file  the name to use in messages.
// Errors:  FailAt() for what is not YAML, and for more than a calibration needs: nesting, number
//          of values, aliases. They are refused before yaml-cpp spends time or stack on them.
YamlNode ParseYaml(const std::string& file, const std::string& text);

}  // namespace qx::utils::stereo
