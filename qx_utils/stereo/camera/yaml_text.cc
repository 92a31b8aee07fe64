#include "qx_utils/stereo/camera/yaml_text.h"

#include <yaml-cpp/eventhandler.h>
#include <yaml-cpp/exceptions.h>
#include <yaml-cpp/mark.h>
#include <yaml-cpp/parser.h>

#include <algorithm>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <utility>

namespace qx::utils::stereo {
namespace {

using Kind = YamlNode::Kind;

constexpr std::size_t kMaxDepth = 16;
constexpr std::size_t kMaxValues = 100000;

int LineOf(const YAML::Mark& mark) { return mark.line + 1; }

// Builds the tree from yaml-cpp's events.
class TreeBuilder : public YAML::EventHandler {
 public:
  explicit TreeBuilder(const std::string& file) : file_(file) {}

  YamlNode TakeRoot() { return std::move(root_); }

  void OnDocumentStart(const YAML::Mark& /*mark*/) override {}
  void OnDocumentEnd() override {}
  void OnNull(const YAML::Mark& mark, YAML::anchor_t /*anchor*/) override { AddScalar(mark, ""); }
  void OnAlias(const YAML::Mark& mark, YAML::anchor_t /*anchor*/) override {
    FailAt(file_, LineOf(mark), "aliases (*name) are not supported");
  }
  void OnScalar(const YAML::Mark& mark, const std::string& /*tag*/, YAML::anchor_t /*anchor*/,
                const std::string& value) override {
    AddScalar(mark, value);
  }
  void OnSequenceStart(const YAML::Mark& mark, const std::string& /*tag*/,
                       YAML::anchor_t /*anchor*/, YAML::EmitterStyle::value /*style*/) override {
    Open(mark, Kind::kList);
  }
  void OnSequenceEnd() override { Close(); }
  void OnMapStart(const YAML::Mark& mark, const std::string& /*tag*/, YAML::anchor_t /*anchor*/,
                  YAML::EmitterStyle::value /*style*/) override {
    Open(mark, Kind::kMap);
  }
  void OnMapEnd() override { Close(); }

 private:
  // A list or map whose end has not come yet.
  struct OpenNode {
    YamlNode node;
    std::optional<YamlNode> key;  // of a map, while its value is awaited
  };

  void Open(const YAML::Mark& mark, Kind kind) {
    if (open_.size() == kMaxDepth) FailAt(file_, LineOf(mark), "nested too deeply");
    open_.push_back({{kind, LineOf(mark), {}, {}, {}}, {}});
  }

  void Close() {
    YamlNode node = std::move(open_.back().node);
    open_.pop_back();
    Add(std::move(node));
  }

  void AddScalar(const YAML::Mark& mark, const std::string& text) {
    if (++values_ > kMaxValues) {
      FailAt(file_, LineOf(mark), "more than " + std::to_string(kMaxValues) + " values");
    }
    Add({Kind::kScalar, LineOf(mark), {}, text, {}});
  }

  void Add(YamlNode node) {
    if (open_.empty()) {
      root_ = std::move(node);
      return;
    }
    OpenNode& parent = open_.back();
    if (parent.node.kind == Kind::kMap && !parent.key) {
      if (node.kind != Kind::kScalar) FailAt(file_, node.line, "a key that is not a word");
      parent.key = std::move(node);
      return;
    }
    if (parent.key) {
      node.key = parent.key->text;
      node.line = parent.key->line;
      parent.key.reset();
    }
    parent.node.items.push_back(std::move(node));
  }

  const std::string& file_;
  std::vector<OpenNode> open_;
  YamlNode root_;
  std::size_t values_ = 0;
};

// yaml-cpp reads the whole of nested brackets before it reports the first, so that their number is
// bounded before. Brackets in comments and quotes are counted, too: it is a limit, not a parse.
void CheckBrackets(const std::string& file, const std::string& text) {
  std::size_t depth = 0;
  int line = 1;
  for (const char c : text) {
    if (c == '\n') ++line;
    if (c == '[' || c == '{') ++depth;
    if ((c == ']' || c == '}') && depth > 0) --depth;
    if (depth > kMaxDepth) FailAt(file, line, "nested too deeply");
  }
}

}  // namespace

void FailAt(const std::string& file, int line, const std::string& text) {
  std::string printable = text;
  std::replace_if(
      printable.begin(), printable.end(), [](unsigned char c) { return c < 0x20 || c == 0x7F; },
      '?');
  throw std::invalid_argument(file + ":" + std::to_string(line) + ": " + printable);
}

YamlNode ParseYaml(const std::string& file, const std::string& text) {
  CheckBrackets(file, text);
  std::istringstream stream(text);
  TreeBuilder builder(file);
  try {
    YAML::Parser(stream).HandleNextDocument(builder);
  } catch (const YAML::Exception& error) {
    FailAt(file, std::max(LineOf(error.mark), 1), "is not YAML: " + error.msg);
  }
  return builder.TakeRoot();
}

}  // namespace qx::utils::stereo
