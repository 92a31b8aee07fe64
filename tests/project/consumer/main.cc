// Links one thing of each family, so that a symbol that does not leave the library is noticed.
#include <qxtools/annexb_filter.h>
#include <qxtools/argb.h>
#include <qxtools/cost_volume.h>
#include <qxtools/depth.h>
#include <qxtools/emulated_board.h>
#include <qxtools/ffmpeg_demuxer.h>
#include <qxtools/ffmpeg_media_proc.h>
#include <qxtools/ffmpeg_video_decoder.h>
#include <qxtools/fpga_correlation.h>
#include <qxtools/h264_h265_info_parse.h>
#include <qxtools/image_copy.h>
#include <qxtools/image_frame.h>
#include <qxtools/instruction_sets.h>
#include <qxtools/media_proc.h>
#include <qxtools/memory_buffer.h>
#include <qxtools/stereo_camera.h>
#include <qxtools/stereo_rectifier.h>
#include <qxtools/version.h>
#include <qxtools/video.h>

#include <cstdio>
#include <vector>

int main() {
  using velkar::vision::ImageFrameImpl;
  std::vector<std::uint8_t> left(32, 1), right(32, 1), cost(1, 0xEE);
  const auto l = ImageFrameImpl::Create(kQXPixelFormatUint8, left.data(), 1, 1, 32);
  const auto r = ImageFrameImpl::Create(kQXPixelFormatUint8, right.data(), 1, 1, 32);
  const auto out = ImageFrameImpl::Create(kQXPixelFormatUint8, cost.data(), 1, 1, 1);
  qx::utils::image::CostVolume(l.get(), r.get(), out.get());
  std::vector<std::uint8_t> rgb(3, 7), argb(4);
  qx::utils::image::CvtColorRGB2ARGB(rgb.data(), rgb.size(), argb.data(), argb.size());
  qx::utils::stereo::StereoCalibration cameras;
  for (auto* const camera : {&cameras.left, &cameras.right}) {
    camera->camera_matrix = {1, 0, 1, 0, 1, 1, 0, 0, 1};
    camera->rectification = {1, 0, 0, 0, 1, 0, 0, 0, 1};
    camera->projection = {2, 0, 1, 0, 0, 2, 1, 0, 0, 0, 1, 0};
  }
  cameras.right.projection[3] = -1;
  cameras.has_rectification = true;
  const qx::utils::stereo::StereoRectifier rectifier(cameras, 3, 3);
  qx::utils::video::AnnexBFilter filter;
  const bool others =
      argb[3] == 7 && qx::utils::stereo::GeometryOf(cameras).baseline == 0.5 &&
      rectifier.Geometry().baseline == 0.5 && filter.Init(qx::utils::video::FfmpegDemuxer()) != 0 &&
      qx::utils::ffmpeg::CreateFfmpegDecoder()->Init() == 0 &&
      qx::utils::ParseH264Params("", 0).width == 0 && !qx::utils::InstructionSets().empty() &&
      qx::utils::image::CreateMediaProc(0) == nullptr &&
      qx::utils::image::CreateFfmpegMediaProc() != nullptr &&
      qx::utils::AllocMem(1, qx::utils::kMemTypeHost, 0).data == nullptr &&
      qx::emulated_board::GetStatus().runs == 0 && qx::utils::stereo::DepthMap(3, 2).Width() == 3 &&
      qx::utils::image::KernelTimeLimit().count() > 0;
  const bool demuxer = qx::utils::video::Demuxer::CreateInstance() != nullptr;
  const bool rounded = qx::utils::image::AlignmentHelper(17, 16) == 32;
  std::printf("qxtools %s: cost %d, demuxer %d, rounded %d, others %d\n", qx::utils::Version(),
              cost[0], demuxer, rounded, others);
  return cost[0] == 1 && demuxer && rounded && others ? 0 : 1;
}
