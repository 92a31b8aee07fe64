#include "qx_utils/stereo/camera/calibration_fields.h"

#include <algorithm>
#include <cmath>
#include <locale>
#include <sstream>
#include <string_view>

namespace qx::utils::stereo {
namespace {

using Kind = YamlNode::Kind;

constexpr std::size_t kMaxQuoted = 40;

// The text in quotes. Damaged bytes become '?', and the tail of a long text dots.
std::string Quoted(std::string text) {
  std::replace_if(
      text.begin(), text.end(), [](char c) { return c < ' ' || c > '~'; }, '?');
  if (text.size() > kMaxQuoted) text = text.substr(0, kMaxQuoted) + "...";
  return "'" + text + "'";
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

void Field::FailWord(const std::string& expected) const {
  Fail("is " + Quoted(node_->text) + ", expected " + expected);
}

bool Field::IsSameWord(const Field& other) const {
  return node_->kind == Kind::kScalar && other.node_->kind == Kind::kScalar &&
         node_->text == other.node_->text;
}

const std::string& Field::Word() const {
  if (node_->kind != Kind::kScalar) Fail("is not a single value");
  return node_->text;
}

int Field::PictureSize() const {
  constexpr double kMaxSize = 65535;
  const double value = NumberIn(Word()).value_or(0);
  if (!(1 <= value && value <= kMaxSize) || value != std::floor(value)) {
    FailWord("1 .. 65535 pixels");
  }
  return static_cast<int>(value);
}

Field Field::Part(const char* name) const {
  const YamlNode* const part = ItemOf(*node_, name);
  if (part == nullptr) Fail(std::string("has no '") + name + "'");
  return {*file_, *part};
}

std::size_t Field::Extent(const char* name) const {
  const Field part = Part(name);
  const double value = NumberIn(part.Word()).value_or(-1);
  if (!(0 <= value && value <= 1000) || value != std::floor(value)) {
    FailAt(file_->name, part.node_->line,
           Quoted(node_->key) + " has " + Quoted(part.Word()) + " " + name);
  }
  return static_cast<std::size_t>(value);
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

std::vector<double> Field::CountedNumbers(const YamlNode& list, std::size_t count) const {
  std::vector<double> values = ListedNumbers(list);
  if (values.size() != count) {
    Fail("has " + std::to_string(values.size()) + " values, expected " + std::to_string(count));
  }
  return values;
}

void Field::CheckElements() const {
  const YamlNode* const type = ItemOf(*node_, "dt");
  if (type == nullptr) return;
  const std::string& name = Field(*file_, *type).Word();
  if (name.size() != 1) Fail("has elements of type " + Quoted(name) + ", expected single numbers");
}

std::vector<double> Field::Numbers() const {
  if (node_->kind == Kind::kList) return ListedNumbers(*node_);
  if (node_->kind != Kind::kMap) Fail("is not a matrix");
  CheckElements();
  const std::size_t rows = Extent("rows"), columns = Extent("cols");
  return CountedNumbers(*Part("data").node_, rows * columns);
}

std::vector<double> Field::Matrix(std::size_t rows, std::size_t columns) const {
  if (node_->kind == Kind::kList) return CountedNumbers(*node_, rows * columns);
  if (node_->kind != Kind::kMap) Fail("is not a matrix");
  const std::size_t actual_rows = Extent("rows"), actual_columns = Extent("cols");
  const bool is_row_vector = columns == 1 && actual_rows == 1 && actual_columns == rows;
  if (!is_row_vector && (actual_rows != rows || actual_columns != columns)) {
    Fail("is " + std::to_string(actual_rows) + " x " + std::to_string(actual_columns) +
         ", expected " + std::to_string(rows) + " x " + std::to_string(columns));
  }
  return Numbers();
}

std::optional<Field> FieldSource::Find(const Names& names) const {
  std::optional<Field> found;
  for (const CalibrationFile* file : files_) {
    for (const YamlNode& item : file->root.items) {
      const auto is_item = [&item](const char* name) { return item.key == name; };
      if (std::none_of(names.begin(), names.end(), is_item)) continue;
      const Field field(*file, item);
      if (found && !found->IsSameWord(field)) {
        field.Fail("is there twice: also " + Quoted(found->Key()) + " in " + found->Place());
      }
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
