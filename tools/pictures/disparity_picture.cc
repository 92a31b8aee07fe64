#include "tools/pictures/disparity_picture.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <string>

#include "qxtools/stereo_matcher.h"

namespace qx::tools {

using utils::stereo::kDisparityUnits;
using utils::stereo::kMissingDisparity;

namespace {

// Equally spaced; between them colours are interpolated.
constexpr std::array<Rgb, 9> kColours = {{{13, 8, 135},
                                          {76, 2, 161},
                                          {126, 3, 168},
                                          {170, 35, 149},
                                          {204, 71, 120},
                                          {230, 108, 92},
                                          {248, 149, 64},
                                          {253, 197, 39},
                                          {240, 249, 33}}};
constexpr Rgb kBlack = {0, 0, 0};
constexpr Rgb kWhite = {255, 255, 255};

// The legend, in pixels: margin, bar, ticks, digits, margin.
constexpr int kMargin = 6;
constexpr int kBarHeight = 10;
constexpr int kTickHeight = 3;
constexpr int kDot = 2;  // size of a dot of the digits
constexpr int kGlyphRows = 5;
constexpr int kGlyphPitch = 4 * kDot;
constexpr int kLegendHeight = 2 * kMargin + kBarHeight + kTickHeight + 1 + kGlyphRows * kDot;
constexpr int kLabelGap = 12;  // at least, between two numbers

// 3 x 5 dots; each row is 3 bits, the top row is the most significant.
struct Glyph {
  char character;
  unsigned dots;
};
constexpr std::array<Glyph, 12> kGlyphs = {{{'0', 0b111101101101111},
                                            {'1', 0b010110010010111},
                                            {'2', 0b111001111100111},
                                            {'3', 0b111001111001111},
                                            {'4', 0b101101111001001},
                                            {'5', 0b111100111001111},
                                            {'6', 0b111100111101111},
                                            {'7', 0b111001010010010},
                                            {'8', 0b111101111101111},
                                            {'9', 0b111101111001111},
                                            {'p', 0b000111101111100},
                                            {'x', 0b000101010101000}}};

std::uint8_t Mix(std::uint8_t from, std::uint8_t to, float share) {
  const float mixed = static_cast<float>(from) + share * static_cast<float>(to - from);
  return static_cast<std::uint8_t>(std::lround(mixed));
}

// Fills the part of a rectangle that is inside the picture.
void FillRectangle(Image<Rgb>& picture, int x, int y, int width, int height) {
  const int x_end = std::min(x + width, picture.width);
  for (int v = std::max(y, 0); v < std::min(y + height, picture.height); ++v) {
    for (int u = std::max(x, 0); u < x_end; ++u) picture.Row(v)[u] = kWhite;
  }
}

void DrawCharacter(Image<Rgb>& picture, char character, int x, int y) {
  const auto glyph = std::find_if(kGlyphs.begin(), kGlyphs.end(),
                                  [=](const Glyph& g) { return g.character == character; });
  if (glyph == kGlyphs.end()) return;  // a space
  for (int i = 0; i < 3 * kGlyphRows; ++i) {
    if ((glyph->dots >> (3 * kGlyphRows - 1 - i) & 1U) == 0) continue;
    FillRectangle(picture, x + i % 3 * kDot, y + i / 3 * kDot, kDot, kDot);
  }
}

int BarWidth(int width) { return std::max(width - 2 * kMargin, 1); }

int TextWidth(const std::string& text) {
  return static_cast<int>(text.size()) * kGlyphPitch - kDot;
}

// The labels of the multiples of `step`, each number centred below its tick or moved inwards. The
// first one names the unit.
std::vector<LegendLabel> LabelsOf(int width, DisparityRange range, int step, const char* unit) {
  const int first = (range.first + step - 1) / step * step;
  std::vector<LegendLabel> labels;
  for (int d = first; d < range.first + range.count; d += step) {
    const int tick = kMargin + (BarWidth(width) - 1) * (d - range.first) / (range.count - 1);
    const std::string number = std::to_string(d);
    const std::string text = d == first ? number + unit : number;
    const int rightmost = width - kMargin - TextWidth(text);
    const int left = std::max(std::min(tick - TextWidth(number) / 2, rightmost), kMargin);
    labels.push_back({d, text, tick, left, left + TextWidth(text)});
  }
  return labels;
}

bool Fit(const std::vector<LegendLabel>& labels, int width) {
  const auto touch = [](const LegendLabel& a, const LegendLabel& b) {
    return b.left - a.right < kLabelGap;
  };
  return labels.back().right <= width - kMargin &&
         std::adjacent_find(labels.begin(), labels.end(), touch) == labels.end();
}

void DrawLegend(Image<Rgb>& picture, int top, DisparityRange range) {
  const int bar_width = BarWidth(picture.width);
  const int bar_top = top + kMargin;
  for (int y = bar_top; y < bar_top + kBarHeight; ++y) {
    for (int i = 0; i < bar_width && kMargin + i < picture.width; ++i) {
      picture.Row(y)[kMargin + i] =
          ColourOf(static_cast<float>(i) / static_cast<float>(std::max(bar_width - 1, 1)));
    }
  }
  for (const LegendLabel& label : LegendLabels(picture.width, range)) {
    FillRectangle(picture, label.tick, bar_top + kBarHeight, 1, kTickHeight);
    int x = label.left;
    for (const char character : label.text) {
      DrawCharacter(picture, character, x, bar_top + kBarHeight + kTickHeight + 1);
      x += kGlyphPitch;
    }
  }
}

}  // namespace

Rgb ColourOf(float value) {
  const float position = std::clamp(value, 0.0F, 1.0F) * (kColours.size() - 1);
  const auto below = std::min(static_cast<std::size_t>(position), kColours.size() - 2);
  const float share = position - static_cast<float>(below);
  const Rgb& from = kColours[below];
  const Rgb& to = kColours[below + 1];
  return {Mix(from.r, to.r, share), Mix(from.g, to.g, share), Mix(from.b, to.b, share)};
}

std::vector<LegendLabel> LegendLabels(int width, DisparityRange range) {
  for (const char* unit : {" px", ""}) {
    for (int power = 1; power < range.count; power *= 10) {
      for (const int factor : {1, 2, 5}) {
        auto labels = LabelsOf(width, range, factor * power, unit);
        if (labels.size() > 1 && Fit(labels, width)) return labels;
      }
    }
  }
  return {};
}

Image<std::uint16_t> SamplesOf(const DisparityImage& map) {
  Image<std::uint16_t> samples = map;
  for (std::uint16_t& value : samples.values) {
    value = value == kMissingDisparity ? 0 : std::max<std::uint16_t>(value, 1);
  }
  return samples;
}

Image<float> PixelsOf(const DisparityImage& map) {
  Image<float> pixels(map.width, map.height);
  std::transform(map.values.begin(), map.values.end(), pixels.values.begin(),
                 [](std::uint16_t value) {
                   if (value == kMissingDisparity) return std::numeric_limits<float>::infinity();
                   return static_cast<float>(value) / kDisparityUnits;
                 });
  return pixels;
}

Image<Rgb> Paint(const DisparityImage& map, DisparityRange range) {
  const int far = range.first * kDisparityUnits;
  const int span = std::max(range.count - 1, 1) * kDisparityUnits;
  std::vector<Rgb> colours;  // of far .. far + span
  for (int value = 0; value <= span; ++value) {
    colours.push_back(ColourOf(static_cast<float>(value) / static_cast<float>(span)));
  }
  Image<Rgb> picture(map.width, map.height + kLegendHeight, kBlack);
  std::transform(map.values.begin(), map.values.end(), picture.values.begin(),
                 [&](std::uint16_t value) {
                   if (value == kMissingDisparity) return kBlack;
                   return colours[static_cast<std::size_t>(std::clamp(value - far, 0, span))];
                 });
  DrawLegend(picture, map.height, range);
  return picture;
}

}  // namespace qx::tools
