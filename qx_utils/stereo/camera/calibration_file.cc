#include "qx_utils/stereo/camera/calibration_file.h"

#include <algorithm>
#include <cstddef>
#include <filesystem>
#include <fstream>
#include <stdexcept>

namespace qx::utils::stereo {
namespace {

constexpr std::size_t kMaxFileBytes = std::size_t{1} << 20;

constexpr const char* kKeyCharacters =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_.";
constexpr const char* kByteOrderMark = "\xEF\xBB\xBF";

// OpenCV's first line ("%YAML:1.0") is no directive of YAML, and OpenCV reads "data:[ 1" without
// the space that YAML wants after a key. Line numbers stay as they are.
std::string AsYaml(const std::string& text) {
  std::string yaml;
  std::size_t start = text.rfind(kByteOrderMark, 0) == 0 ? 3 : 0;
  if (text.compare(start, 5, "%YAML") == 0) start = std::min(text.find('\n', start), text.size());
  while (start < text.size()) {
    const std::size_t end = std::min(text.find('\n', start), text.size() - 1) + 1;
    const std::size_t key = text.find_first_not_of(" \t", start);
    const std::size_t key_end = text.find_first_not_of(kKeyCharacters, key);
    const bool is_key = key < key_end && key_end < end && text[key_end] == ':';
    const std::size_t split = is_key ? key_end + 1 : start;
    yaml.append(text, start, split - start);
    if (is_key) yaml += ' ';
    yaml.append(text, split, end - split);
    start = end;
  }
  return yaml;
}

void CheckText(const std::string& name, const std::string& text) {
  if (text.size() > kMaxFileBytes) FailAt(name, 1, "is larger than 1 MiB");
  if (text.find('\0') != std::string::npos) FailAt(name, 1, "is not a text file");
  const std::size_t start = text.find_first_not_of(std::string(" \t\r\n") + kByteOrderMark);
  if (start == std::string::npos) FailAt(name, 1, "is empty");
  if (text[start] == '<') {
    FailAt(name, 1, "is XML: write the calibration as YAML, as OpenCV does for *.yml");
  }
}

}  // namespace

CalibrationFile ParseCalibrationFile(const std::string& name, const std::string& text) {
  CheckText(name, text);
  CalibrationFile file = {name, ParseYaml(name, AsYaml(text))};
  if (file.root.kind != YamlNode::Kind::kMap) FailAt(name, 1, "has no named values");
  return file;
}

std::string ReadCalibrationText(const std::string& path) {
  std::error_code error;
  const auto status = std::filesystem::status(path, error);
  if (std::filesystem::is_directory(status)) throw std::invalid_argument(path + ": is a directory");
  std::ifstream stream(path, std::ios::binary);
  if (!stream) throw std::invalid_argument(path + ": cannot be opened");
  std::string text(kMaxFileBytes + 1, '\0');
  stream.read(text.data(), static_cast<std::streamsize>(text.size()));
  if (stream.bad()) throw std::invalid_argument(path + ": cannot be read");
  text.resize(static_cast<std::size_t>(stream.gcount()));
  return text;
}

}  // namespace qx::utils::stereo
