// Values of calibration files that know their place, so that every message names file and line.
#pragma once

#include <array>
#include <cstddef>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "qx_utils/stereo/camera/yaml_text.h"

namespace qx::utils::stereo {

struct CalibrationFile {
  std::string name;
  YamlNode root;
};

// One value; borrows its file. A field that is absent from the files knows where it was expected.
class Field {
 public:
  Field(const CalibrationFile& file, const YamlNode& node) : file_(&file), node_(&node) {}

  [[nodiscard]] const std::string& Key() const { return node_->key; }
  [[nodiscard]] std::string Place() const;  // "file:line"

  // Throws std::invalid_argument "file:line: 'key' text".
  [[noreturn]] void Fail(const std::string& text) const;

  // Each fails unless the value is ...
  [[nodiscard]] const std::string& Word() const;      // ... a single value
  [[nodiscard]] int PictureSize() const;              // ... an integer of 1 .. 65535
  [[nodiscard]] std::vector<double> Numbers() const;  // ... a list or matrix of numbers
  [[nodiscard]] std::vector<double> Matrix(int rows, int columns) const;  // ... of that size

  template <std::size_t size>
  [[nodiscard]] std::array<double, size> Matrix(int rows) const {
    const std::vector<double> values = Matrix(rows, static_cast<int>(size) / rows);
    std::array<double, size> array{};
    for (std::size_t i = 0; i < size; ++i) array[i] = values[i];
    return array;
  }

 private:
  [[nodiscard]] Field Part(const char* name) const;
  [[nodiscard]] int Extent(const char* name) const;
  [[nodiscard]] std::vector<double> ListedNumbers(const YamlNode& list) const;

  const CalibrationFile* file_;
  const YamlNode* node_;
};

// The spellings of one value's name; the first is used in messages.
using Names = std::vector<const char*>;

// Where the values of one camera, or of the pair, are looked up; borrows the files.
class FieldSource {
 public:
  explicit FieldSource(std::vector<const CalibrationFile*> files) : files_(std::move(files)) {}

  // Fails when the value is there twice, under one name or two.
  [[nodiscard]] std::optional<Field> Find(const Names& names) const;

  // Fails when the value is missing.
  [[nodiscard]] Field Get(const Names& names) const;

  // Throws std::invalid_argument "file:1: text", naming the last of the files.
  [[noreturn]] void Fail(const std::string& text) const;

 private:
  std::vector<const CalibrationFile*> files_;
};

}  // namespace qx::utils::stereo
