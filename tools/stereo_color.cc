#include "tools/stereo_color.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <string>

namespace qx {
namespace tools {
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
constexpr int kTickDistance = 80;  // at least

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

// Fills a rectangle as far as it lies inside the picture.
void FillRectangle(RgbPicture& picture, int x, int y, int width, int height) {
  const int x_end = std::min(x + width, picture.width);
  for (int v = std::max(y, 0); v < std::min(y + height, picture.height); ++v) {
    for (int u = std::max(x, 0); u < x_end; ++u) picture.Row(v)[u] = kWhite;
  }
}

void DrawCharacter(RgbPicture& picture, char character, int x, int y) {
  const auto glyph = std::find_if(kGlyphs.begin(), kGlyphs.end(),
                                  [=](const Glyph& g) { return g.character == character; });
  if (glyph == kGlyphs.end()) return;  // a blank
  for (int i = 0; i < 3 * kGlyphRows; ++i) {
    if ((glyph->dots >> (3 * kGlyphRows - 1 - i) & 1U) == 0) continue;
    FillRectangle(picture, x + i % 3 * kDot, y + i / 3 * kDot, kDot, kDot);
  }
}

// Draws `text` centred on column `x`, moved inwards where it would leave the picture.
void DrawText(RgbPicture& picture, const std::string& text, int x, int y) {
  const int width = static_cast<int>(text.size()) * kGlyphPitch - kDot;
  int left = std::max(std::min(x - width / 2, picture.width - kMargin - width), kMargin);
  for (const char character : text) {
    DrawCharacter(picture, character, left, y);
    left += kGlyphPitch;
  }
}

void DrawLegend(RgbPicture& picture, int top, int disparities) {
  const int bar_width = std::max(picture.width - 2 * kMargin, 1);
  const int bar_top = top + kMargin;
  for (int y = bar_top; y < bar_top + kBarHeight; ++y) {
    for (int i = 0; i < bar_width && kMargin + i < picture.width; ++i) {
      picture.Row(y)[kMargin + i] =
          ColourOf(static_cast<float>(i) / static_cast<float>(std::max(bar_width - 1, 1)));
    }
  }
  const int range = disparities - 1;
  const int steps = std::max(std::min(std::min(bar_width / kTickDistance, 8), range), 1);
  for (int i = 0; i <= steps; ++i) {
    const int disparity = range * i / steps;
    const int x = kMargin + (bar_width - 1) * disparity / std::max(range, 1);
    FillRectangle(picture, x, bar_top + kBarHeight, 1, kTickHeight);
    DrawText(picture, std::to_string(disparity) + (i == steps ? " px" : ""), x,
             bar_top + kBarHeight + kTickHeight + 1);
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

RgbPicture Paint(const DisparityMap& map, int disparities) {
  RgbPicture picture(map.width, map.height + kLegendHeight, kBlack);
  const float range = static_cast<float>(std::max(disparities - 1, 1));
  std::transform(map.values.begin(), map.values.end(), picture.pixels.begin(),
                 [range](float d) { return d == kMissing ? kBlack : ColourOf(d / range); });
  DrawLegend(picture, map.height, disparities);
  return picture;
}

}  // namespace tools
}  // namespace qx
