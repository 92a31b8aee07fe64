// The driver of the feature maps' vector kernels, shared by the instruction sets.
//
// A picture is described in stripes of columns, from top to bottom, so that all that a row leaves
// for the rows after it stays in the processor's first cache. Neighbours are added row by row, and
// a row's part depends only on how far it is from the pixel: 2 neighbours three rows away, 5 at two
// rows, 7 at one row and 4 in the pixel's own row. A picture row that arrives gets these four sums
// for each column, once, and a pixel adds the sums of seven rows. Squares have 16 bits and are
// added as low and high bytes apart, which keeps all sums within 16 bits.
//
// A source file includes this header and gives the driver its primitives in a struct `Isa`:
//
//   Vector, kLanes        unsigned 16-bit values, a divisor of kStripe of them
//   Load(from), Store(to, a), LoadBytes(from)            the last one widens
//   Add(a, b), Shift<n>(a), Square(a), Low(a), High(a)   the last two: bytes as 16-bit values
//   MinusLengths(sum, low, high)    minus the length of features.h from the sums of the values and
//                                   of their squares' bytes
//   Describe(neighbours, x, sum4, minus_lengths, to)     writes the features of kLanes pixels;
//                                   neighbours[i] + x leads to channel i of the first, times 128
//
// Everything is in an unnamed namespace: inline code that is compiled for one instruction set must
// never replace another's at link time.
#pragma once

#include <cstddef>
#include <cstdint>

#include "qx_utils/image/kernels/kernel-inl.h"
#include "qx_utils/stereo/kernels/features.h"

namespace qx::utils::stereo {
namespace {

inline constexpr std::size_t kStripe = 128;  // columns
inline constexpr std::size_t kMargin = 3;    // columns on each side of a stripe
inline constexpr std::size_t kRows = 7;      // of a neighbourhood
inline constexpr std::size_t kReadBeyond = 32;
inline constexpr std::size_t kPadded = kStripe + kReadBeyond;

enum Quantity { kGrey, kSquareLow, kSquareHigh, kQuantities };

// What one picture row adds to the sums of a pixel in the same column.
struct Parts {
  std::uint16_t four[kStripe];   // columns -2, -1, 1, 2: for pixels of this row
  std::uint16_t seven[kStripe];  // -3 .. 3: one row away
  std::uint16_t five[kStripe];   // -2 .. 2: two rows away
  std::uint16_t two[kStripe];    // -1 and 1: three rows away
};

// A picture row in a stripe. Column 0 of the stripe is scaled[kMargin].
struct StripeRow {
  std::uint16_t scaled[kPadded];  // grey * 128
  Parts parts[kQuantities];
};

// Copies columns first - kMargin .. first + columns + kMargin - 1 of a picture row; the outermost
// pixels repeat beyond the border.
inline void CopyRow(const std::uint8_t* row, std::size_t width, std::size_t first,
                    std::size_t columns, std::uint8_t* to) {
  const std::size_t count = columns + 2 * kMargin;
  std::size_t i = 0;
  for (; first + i < kMargin; ++i) to[i] = row[0];
  const std::size_t inside = width + kMargin - first;
  const std::size_t end = inside < count ? inside : count;
  for (; i < end; ++i) to[i] = row[first + i - kMargin];
  for (; i < count; ++i) to[i] = row[width - 1];
}

template <typename Isa>
void SumParts(const std::uint16_t* values, std::size_t columns, Parts& parts) {
  for (std::size_t x = 0; x < columns; x += Isa::kLanes) {
    const std::uint16_t* const from = values + x;  // 3 columns to the left
    const auto two = Isa::Add(Isa::Load(from + 2), Isa::Load(from + 4));
    const auto four = Isa::Add(two, Isa::Add(Isa::Load(from + 1), Isa::Load(from + 5)));
    const auto five = Isa::Add(four, Isa::Load(from + 3));
    const auto seven = Isa::Add(five, Isa::Add(Isa::Load(from), Isa::Load(from + 6)));
    Isa::Store(parts.two + x, two);
    Isa::Store(parts.four + x, four);
    Isa::Store(parts.five + x, five);
    Isa::Store(parts.seven + x, seven);
  }
}

// Takes in a picture row, of which CopyRow() made `grey`.
template <typename Isa>
void TakeRow(const std::uint8_t* grey, std::size_t columns, StripeRow& row) {
  std::uint16_t values[kQuantities][kPadded] = {};
  for (std::size_t x = 0; x < columns + 2 * kMargin; x += Isa::kLanes) {
    const auto value = Isa::LoadBytes(grey + x);
    const auto square = Isa::Square(value);
    Isa::Store(row.scaled + x, Isa::template Shift<7>(value));
    Isa::Store(values[kGrey] + x, value);
    Isa::Store(values[kSquareLow] + x, Isa::Low(square));
    Isa::Store(values[kSquareHigh] + x, Isa::High(square));
  }
  for (std::size_t q = 0; q < kQuantities; ++q) SumParts<Isa>(values[q], columns, row.parts[q]);
}

// The sums over the neighbourhoods of kLanes pixels from column x on.
template <typename Isa>
QXTOOLS_INLINE typename Isa::Vector SumRows(const StripeRow* const* rows, Quantity q,
                                            std::size_t x) {
  const auto pair = [&](const std::uint16_t* a, const std::uint16_t* b) {
    return Isa::Add(Isa::Load(a + x), Isa::Load(b + x));
  };
  const auto outer = pair(rows[0]->parts[q].two, rows[6]->parts[q].two);
  const auto middle = pair(rows[1]->parts[q].five, rows[5]->parts[q].five);
  const auto inner = pair(rows[2]->parts[q].seven, rows[4]->parts[q].seven);
  return Isa::Add(Isa::Add(outer, middle), Isa::Add(inner, Isa::Load(rows[3]->parts[q].four + x)));
}

// Describes `columns` pixels of the row in the middle of `rows`.
template <typename Isa>
void DescribeRow(const StripeRow* const* rows, std::size_t columns, std::int8_t* to) {
  const std::uint16_t* neighbours[kFeatureChannels];
  for (std::size_t i = 0; i < kFeatureChannels; ++i) {
    const auto [dx, dy] = kFeatureOffsets[i];
    neighbours[i] = rows[dy + kFeatureReach]->scaled + (dx + kFeatureReach);
  }
  for (std::size_t x = 0; x < columns; x += Isa::kLanes) {
    const auto sum = SumRows<Isa>(rows, kGrey, x);
    const auto minus_lengths = Isa::MinusLengths(sum, SumRows<Isa>(rows, kSquareLow, x),
                                                 SumRows<Isa>(rows, kSquareHigh, x));
    const auto sum4 = Isa::template Shift<2>(sum);
    if (x + Isa::kLanes <= columns) {
      Isa::Describe(neighbours, x, sum4, minus_lengths, to + x * kFeatureChannels);
      continue;
    }
    std::int8_t last[Isa::kLanes * kFeatureChannels];
    Isa::Describe(neighbours, x, sum4, minus_lengths, last);
    const std::size_t bytes = (columns - x) * kFeatureChannels;
    for (std::size_t i = 0; i < bytes; ++i) to[x * kFeatureChannels + i] = last[i];
  }
}

// Describes columns first .. first + columns - 1 of rows first_row .. end_row - 1.
// Output: to  the feature of the first one; rows are `pitch` bytes apart.
template <typename Isa>
void DescribeStripe(const GreyView& picture, std::size_t first, std::size_t columns,
                    std::size_t first_row, std::size_t end_row, std::int8_t* to,
                    std::size_t pitch) {
  StripeRow storage[kRows] = {};
  const StripeRow* rows[kRows];  // from above
  std::uint8_t grey[kPadded + kReadBeyond] = {};
  for (std::size_t i = 0; i < kRows; ++i) rows[i] = &storage[i];
  // Row `taken` arrives as the last of the seven around row `taken` - kMargin.
  for (std::size_t taken = first_row; taken < end_row + 2 * kMargin; ++taken) {
    StripeRow* const row = &storage[taken % kRows];
    for (std::size_t i = 0; i + 1 < kRows; ++i) rows[i] = rows[i + 1];
    rows[kRows - 1] = row;
    const std::size_t y = taken < kMargin ? 0 : taken - kMargin;
    const std::size_t last = picture.height - 1;
    CopyRow(picture.data + (y < last ? y : last) * picture.pitch, picture.width, first, columns,
            grey);
    TakeRow<Isa>(grey, columns, *row);
    if (taken < first_row + 2 * kMargin) continue;
    DescribeRow<Isa>(rows, columns, to + (taken - 2 * kMargin) * pitch);
  }
}

template <typename Isa>
void DescribeRows(const GreyView& picture, std::size_t shift, std::size_t first_row,
                  std::size_t end_row, std::int8_t* map) {
  const std::size_t pitch = picture.width * kFeatureChannels;
  const std::size_t nulls = shift < picture.width ? shift : picture.width;
  for (std::size_t y = first_row; y < end_row; ++y) {
    std::int8_t* const row = map + y * pitch;
    for (std::size_t i = 0; i < nulls * kFeatureChannels; ++i) row[i] = 0;
  }
  for (std::size_t first = 0; first < picture.width - nulls; first += kStripe) {
    const std::size_t left = picture.width - nulls - first;
    DescribeStripe<Isa>(picture, first, left < kStripe ? left : kStripe, first_row, end_row,
                        map + (nulls + first) * kFeatureChannels, pitch);
  }
}

}  // namespace
}  // namespace qx::utils::stereo
