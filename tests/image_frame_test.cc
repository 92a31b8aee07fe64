#include "qxtools/image_frame.h"

#include "tests/testing/test.h"

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
      {kQXPixelFormatGray16, &byte, 4, 5, 1, true, 40},  // was counted as 20
      {kQXPixelFormatGray16, &byte, 32768, 65535, 1, true, 0xFFFF0000},
      {kQXPixelFormatGray16, &byte, 32768, 65536, 1, false, 0},
      {kQXPixelFormatRGB888, &byte, 4, 5, 3, true, 60},
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
  EXPECT_THAT((std::vector<float>{box.x1, box.y1, box.x2, box.y2, box.attr_a, box.attr_b}),
              ::testing::ElementsAre(0, 1, 639.5F, 200, 0, 0));
  EXPECT_EQ(box.name, "face");
  EXPECT_TRUE(BBox_<float>(0, 0, 1, 1).name.empty());
}

}  // namespace
}  // namespace vision
}  // namespace velkar
