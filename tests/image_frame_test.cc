#include "qxtools/image_frame.h"

#include "tests/testing/test.h"

namespace velkar::vision {
namespace {

TEST(ImageFrame, FreshFramesOfBothClassesAreEmpty) {
  const ImageFrame base;
  const ImageFrameImpl made;
  for (const ImageFrame* f : {&base, static_cast<const ImageFrame*>(&made)}) {
    EXPECT_TRUE(f->pixel_format == 0 && f->scale == 1.0F && f->name.empty());
    EXPECT_TRUE(f->Data() == nullptr && f->Holder() == nullptr);
    EXPECT_TRUE(f->Aux64B() == -1 && f->Aux32A() == -1);
    EXPECT_EQ(f->reserved0 | f->reserved1 | f->Aux64A() | f->Aux64C() | f->Aux64D() | f->Aux64E() |
                  f->DataSize() | f->Width() | f->Height() | f->Channel() | f->Aux32B() |
                  f->Aux32C() | f->Aux32D(),
              0U);
  }
}

TEST(ImageFrame, CreateChecksSizes) {
  constexpr auto kMax = std::numeric_limits<std::uint32_t>::max();
  constexpr std::uint32_t kRefused = 7;  // a size that nothing below has
  std::uint8_t byte = 0;
  const struct {
    QXPixelFormat format;
    std::uint8_t* data;
    std::uint32_t height, width, channels;
    std::uint32_t size;
  } cases[] = {
      {kQXPixelFormatUint8, &byte, 4, 5, 6, 120},
      {kQXPixelFormatUint8, &byte, 65535, 65537, 1, kMax},
      {kQXPixelFormatUint8, &byte, 65536, 65536, 1, kRefused},
      {kQXPixelFormatUint8, &byte, kMax, kMax, kMax, kRefused},
      {kQXPixelFormatUint8, &byte, kMax, kMax, 0, 0},
      {kQXPixelFormatUint8, nullptr, 0, 640, 3, 0},
      {kQXPixelFormatUint8, nullptr, 1, 1, 1, kRefused},
      {kQXPixelFormatGray16, &byte, 4, 5, 1, 40},  // was counted as 20
      {kQXPixelFormatGray16, &byte, 32768, 65535, 1, 0xFFFF0000},
      {kQXPixelFormatGray16, &byte, 32768, 65536, 1, kRefused},
      {kQXPixelFormatRGB888, &byte, 4, 5, 3, 60},
      {kQXPixelFormatNV12, &byte, 480, 640, 1, 460800},
      {kQXPixelFormatYUV420P, &byte, 481, 640, 1, kRefused},
      {kQXPixelFormatNV21, &byte, 480, 639, 1, kRefused},
      {kQXPixelFormatNV12, &byte, 480, 640, 2, kRefused},
      {kQXPixelFormatNV12, &byte, 65534, 65534, 1, kRefused},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(::testing::Message() << c.format << " " << c.height << "x" << c.width);
    const auto frame = ImageFrameImpl::Create(c.format, c.data, c.height, c.width, c.channels);
    EXPECT_TRUE(frame == nullptr || (frame->pixel_format == c.format && frame->Data() == c.data));
    EXPECT_EQ(frame == nullptr ? kRefused : frame->DataSize(), c.size);
  }
}

TEST(ImageFrame, HolderIsReleasedWithTheLastReference) {
  auto owner = std::make_shared<std::vector<std::uint8_t>>(12);
  const std::weak_ptr<void> watch = owner;
  auto frame = ImageFrameImpl::Create(kQXPixelFormatUint8, owner->data(), 2, 2, 3, owner);
  owner.reset();
  EXPECT_EQ(frame->Holder(), watch.lock());
  EXPECT_EQ(watch.use_count(), 1);
  frame.reset();
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
}  // namespace velkar::vision
