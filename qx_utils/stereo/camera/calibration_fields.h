// Values of calibration files that know their place, so that every message names file and line.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "qx_utils/stereo/camera/calibration_file.h"

namespace qx::utils::stereo {

// One value; borrows its file.
class Field {
 public:
  Field(const CalibrationFile& file, const YamlNode& node) : file_(&file), node_(&node) {}

  [[nodiscard]] const std::string& Key() const { return node_->key; }
  [[nodiscard]] std::string Place() const;  // "file:line"

  // Both are single values, and the same.
  [[nodiscard]] bool IsSameWord(const Field& other) const;

  // Throws std::invalid_argument "file:line: 'key' text".
  [[noreturn]] void Fail(const std::string& text) const;

  // For a single value: fails with "is 'value', expected ...".
  [[noreturn]] void FailWord(const std::string& expected) const;

  // Each fails unless the value is ...
  [[nodiscard]] const std::string& Word() const;      // ... a single value
  [[nodiscard]] int PictureSize() const;              // ... an integer of 1 .. 65535
  [[nodiscard]] std::vector<double> Numbers() const;  // ... a list or matrix of finite numbers

  // Fails unless the value is a matrix of this size, or a list of as many numbers. A column may be
  // written as a row.
  template <std::size_t rows, std::size_t columns>
  [[nodiscard]] std::array<double, rows * columns> Matrix() const {
    const std::vector<double> values = Matrix(rows, columns);
    std::array<double, rows * columns> matrix{};
    std::copy(values.begin(), values.end(), matrix.begin());
    return matrix;
  }

 private:
  [[nodiscard]] Field Part(const char* name) const;
  [[nodiscard]] std::size_t Extent(const char* name) const;
  void CheckElements() const;
  [[nodiscard]] std::vector<double> ListedNumbers(const YamlNode& list) const;
  [[nodiscard]] std::vector<double> CountedNumbers(const YamlNode& list, std::size_t count) const;
  [[nodiscard]] std::vector<double> Matrix(std::size_t rows, std::size_t columns) const;

  const CalibrationFile* file_;
  const YamlNode* node_;
};

// The spellings of one value's name; the first is used in messages.
using Names = std::vector<const char*>;

// Where the values of one camera, or of the pair, are looked up; borrows the files.
class FieldSource {
 public:
  explicit FieldSource(std::vector<const CalibrationFile*> files) : files_(std::move(files)) {}

  // Fails when the value is there twice, under one name or two; the same word twice is accepted.
  [[nodiscard]] std::optional<Field> Find(const Names& names) const;

  // Fails when the value is missing.
  [[nodiscard]] Field Get(const Names& names) const;

  // Throws std::invalid_argument "file:1: text", naming the last of the files.
  [[noreturn]] void Fail(const std::string& text) const;

 private:
  std::vector<const CalibrationFile*> files_;
};

}  // namespace qx::utils::stereo
