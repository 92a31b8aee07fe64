#include "qx_utils/stereo/camera/calibration_fields.h"

#include <algorithm>
#include <cmath>
#include <locale>
#include <sstream>
#include <string_view>

namespace qx::utils::stereo {
namespace {

using Kind = YamlNode::Kind;

// Longer values are shortened in messages.
constexpr std::size_t kMaxQuoted = 40;

std::string Quoted(const std::string& text) {
  if (text.size() <= kMaxQuoted) return "'" + text + "'";
  return "'" + text.substr(0, kMaxQuoted) + "...'";
}

const YamlNode* ItemOf(const YamlNode& map, std::string_view name) {
  if (map.kind != Kind::kMap) return nullptr;
  for (const YamlNode& item : map.items) {
    if (item.key == name) return &item;
  }
  return nullptr;
}

// Returns: the number that `text` is; nothing for other texts, NaN and infinity, however they are
// written. The decimal separator is always a point.
std::optional<double> NumberIn(const std::string& text) {
  std::istringstream stream(text);
  stream.imbue(std::locale::classic());
  double value = 0;
  if (!(stream >> value) || stream.peek() != std::char_traits<char>::eof()) return std::nullopt;
  if (!std::isfinite(value)) return std::nullopt;
  return value;
}

}  // namespace

std::string Field::Place() const { return file_->name + ":" + std::to_string(node_->line); }

void Field::Fail(const std::string& text) const {
  FailAt(file_->name, node_->line, Quoted(node_->key) + " " + text);
}

const std::string& Field::Word() const {
  if (node_->kind != Kind::kScalar) Fail("is not a single value");
  return node_->text;
}

int Field::PictureSize() const {
  constexpr double kMaxSize = 65535;
  const double value = NumberIn(Word()).value_or(0);
  if (!(1 <= value && value <= kMaxSize) || value != std::floor(value)) {
    Fail("is " + Quoted(Word()) + ", expected 1 .. 65535 pixels");
  }
  return static_cast<int>(value);
}

Field Field::Part(const char* name) const {
  const YamlNode* const part = ItemOf(*node_, name);
  if (part == nullptr) Fail(std::string("has no '") + name + "'");
  return {*file_, *part};
}

int Field::Extent(const char* name) const {
  const Field part = Part(name);
  const double value = NumberIn(part.Word()).value_or(-1);
  if (!(0 <= value && value <= 1000) || value != std::floor(value)) {
    FailAt(file_->name, part.node_->line,
           Quoted(node_->key) + " has " + Quoted(part.Word()) + " " + name);
  }
  return static_cast<int>(value);
}

std::vector<double> Field::ListedNumbers(const YamlNode& list) const {
  if (list.kind != Kind::kList) Fail("has no list of numbers");
  std::vector<double> numbers;
  for (const YamlNode& item : list.items) {
    const auto number = item.kind == Kind::kScalar ? NumberIn(item.text) : std::nullopt;
    if (!number) {
      FailAt(file_->name, item.line,
             Quoted(node_->key) + " has " +
                 (item.kind == Kind::kScalar ? Quoted(item.text) : "a nested list") +
                 ", expected a finite number");
    }
    numbers.push_back(*number);
  }
  return numbers;
}

std::vector<double> Field::Numbers() const {
  if (node_->kind == Kind::kList) return ListedNumbers(*node_);
  if (node_->kind != Kind::kMap) Fail("is not a matrix");
  const int rows = Extent("rows"), columns = Extent("cols");
  std::vector<double> values = ListedNumbers(*Part("data").node_);
  if (values.size() != static_cast<std::size_t>(rows) * static_cast<std::size_t>(columns)) {
    Fail("has " + std::to_string(values.size()) + " values, expected " +
         std::to_string(rows * columns));
  }
  return values;
}

std::vector<double> Field::Matrix(int rows, int columns) const {
  if (node_->kind == Kind::kMap) {
    const int actual_rows = Extent("rows"), actual_columns = Extent("cols");
    const bool same = actual_rows == rows && actual_columns == columns;
    const bool transposed_vector = columns == 1 && actual_rows == columns && actual_columns == rows;
    if (!same && !transposed_vector) {
      Fail("is " + std::to_string(actual_rows) + " x " + std::to_string(actual_columns) +
           ", expected " + std::to_string(rows) + " x " + std::to_string(columns));
    }
  }
  std::vector<double> values = Numbers();
  if (values.size() != static_cast<std::size_t>(rows) * static_cast<std::size_t>(columns)) {
    Fail("has " + std::to_string(values.size()) + " values, expected " +
         std::to_string(rows * columns));
  }
  return values;
}

std::optional<Field> FieldSource::Find(const Names& names) const {
  std::optional<Field> found;
  for (const CalibrationFile* file : files_) {
    for (const YamlNode& item : file->root.items) {
      const auto is_item = [&item](const char* name) { return item.key == name; };
      if (std::none_of(names.begin(), names.end(), is_item)) continue;
      const Field field(*file, item);
      if (found)
        field.Fail("is there twice: also " + Quoted(found->Key()) + " in " + found->Place());
      found = field;
    }
  }
  return found;
}

Field FieldSource::Get(const Names& names) const {
  if (const auto field = Find(names)) return *field;
  Fail("'" + std::string(names.front()) + "' is missing");
}

void FieldSource::Fail(const std::string& text) const {
  std::string others;
  for (const CalibrationFile* file : files_) {
    if (file != files_.back()) others += ", also from " + file->name;
  }
  FailAt(files_.back()->name, 1, text + others);
}

}  // namespace qx::utils::stereo
