#include "qxtools/image_frame.h"

#include <gtest/gtest.h>

#include <limits>
#include <memory>
#include <vector>

namespace velkar {
namespace vision {
namespace {

void ExpectEmpty(const ImageFrame& frame) {
  EXPECT_EQ(frame.pixel_format, 0U);
  EXPECT_EQ(frame.scale, 1.0F);
  EXPECT_TRUE(frame.name.empty());
  EXPECT_EQ(frame.reserved0 | frame.reserved1, 0U);
  EXPECT_EQ(frame.Data(), nullptr);
  EXPECT_EQ(frame.Holder(), nullptr);
  EXPECT_EQ(frame.Aux64B(), -1);
  EXPECT_EQ(frame.Aux32A(), -1);
  EXPECT_EQ(frame.Aux64A() | frame.Aux64C() | frame.Aux64D() | frame.Aux64E(), 0U);
  EXPECT_EQ(frame.DataSize() | frame.Width() | frame.Height() | frame.Channel(), 0U);
  EXPECT_EQ(frame.Aux32B() | frame.Aux32C() | frame.Aux32D(), 0U);
}

TEST(ImageFrame, FreshFramesOfBothClassesAreEmpty) {
  ExpectEmpty(ImageFrame());
  ExpectEmpty(ImageFrameImpl());
}

// Frames built by other components are called through the table, so its order is an interface.
TEST(ImageFrame, AccessorsKeepTheirSlots) {
  const ImageFrame frame;
  using Slot32 = std::uint32_t (*)(const ImageFrame*);
  using Slot64 = std::int64_t (*)(const ImageFrame*);
  void* const* table = *reinterpret_cast<void* const* const*>(&frame);
  EXPECT_EQ(reinterpret_cast<Slot64>(table[3])(&frame), -1);
  EXPECT_EQ(static_cast<std::int32_t>(reinterpret_cast<Slot32>(table[4])(&frame)), -1);

  std::vector<std::uint8_t> bytes(2 * 3 * 5);
  const auto full = ImageFrameImpl::Create(kQXPixelFormatUint8, bytes.data(), 2, 3, 5);
  table = *reinterpret_cast<void* const* const*>(static_cast<const ImageFrame*>(full.get()));
  EXPECT_EQ(reinterpret_cast<std::uint8_t* (*)(const ImageFrame*)>(table[5])(full.get()),
            bytes.data());
  EXPECT_EQ(reinterpret_cast<Slot32>(table[10])(full.get()), 30U);
  EXPECT_EQ(reinterpret_cast<Slot32>(table[12])(full.get()), 3U);
  EXPECT_EQ(reinterpret_cast<Slot32>(table[13])(full.get()), 2U);
  EXPECT_EQ(reinterpret_cast<Slot32>(table[15])(full.get()), 5U);
  EXPECT_EQ(reinterpret_cast<Slot32>(table[16])(full.get()), 0U);
}

TEST(ImageFrame, CreateChecksSizes) {
  constexpr auto kMax = std::numeric_limits<std::uint32_t>::max();
  std::uint8_t byte = 0;
  const struct {
    QXPixelFormat format;
    std::uint8_t* data;
    std::uint32_t height, width, channels;
    bool valid;
    std::uint32_t size;
  } cases[] = {
      {kQXPixelFormatUint8, &byte, 4, 5, 6, true, 120},
      {kQXPixelFormatUint8, &byte, 65535, 65537, 1, true, kMax},
      {kQXPixelFormatUint8, &byte, 65536, 65536, 1, false, 0},
      {kQXPixelFormatUint8, &byte, kMax, kMax, kMax, false, 0},
      {kQXPixelFormatUint8, &byte, kMax, kMax, 0, true, 0},
      {kQXPixelFormatUint8, nullptr, 0, 640, 3, true, 0},
      {kQXPixelFormatUint8, nullptr, 1, 1, 1, false, 0},
      {kQXPixelFormatNV12, &byte, 480, 640, 1, true, 460800},
      {kQXPixelFormatYUV420P, &byte, 481, 640, 1, false, 0},
      {kQXPixelFormatNV21, &byte, 480, 639, 1, false, 0},
      {kQXPixelFormatNV12, &byte, 480, 640, 2, false, 0},
      {kQXPixelFormatNV12, &byte, 65534, 65534, 1, false, 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(::testing::Message() << c.format << " " << c.height << "x" << c.width);
    const auto frame = ImageFrameImpl::Create(c.format, c.data, c.height, c.width, c.channels);
    ASSERT_EQ(frame != nullptr, c.valid);
    if (!frame) continue;
    EXPECT_EQ(frame->pixel_format, c.format);
    EXPECT_EQ(frame->DataSize(), c.size);
    EXPECT_EQ(frame->Data(), c.data);
  }
}

TEST(ImageFrame, HolderIsReleasedWithTheLastReference) {
  auto owner = std::make_shared<std::vector<std::uint8_t>>(12);
  const std::weak_ptr<std::vector<std::uint8_t>> watch = owner;
  std::shared_ptr<ImageFrame> frame =
      ImageFrameImpl::Create(kQXPixelFormatUint8, owner->data(), 2, 2, 3, owner);
  owner.reset();
  EXPECT_EQ(frame->Holder().use_count(), 2);  // the frame and the copy asked for here
  std::shared_ptr<ImageFrame> copy = frame;
  frame.reset();
  EXPECT_FALSE(watch.expired());
  copy.reset();
  EXPECT_TRUE(watch.expired());
}

TEST(BBox, TakesCornersOfAnyType) {
  const BBox_<float> box(0, 1U, 639.5, static_cast<std::uint8_t>(200), "face");
  EXPECT_EQ(box.x1, 0.0F);
  EXPECT_EQ(box.y1, 1.0F);
  EXPECT_EQ(box.x2, 639.5F);
  EXPECT_EQ(box.y2, 200.0F);
  EXPECT_EQ(box.attr_a, 0.0F);
  EXPECT_EQ(box.attr_b, 0.0F);
  EXPECT_EQ(box.name, "face");
  EXPECT_TRUE(BBox_<float>(0, 0, 1, 1).name.empty());
}

}  // namespace
}  // namespace vision
}  // namespace velkar
