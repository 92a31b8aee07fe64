#include "bench/cameras/clip.h"

#include <algorithm>
#include <stdexcept>
#include <string_view>

#include "qxtools/ffmpeg_demuxer.h"

namespace qx::bench {
namespace {

using utils::video::kVideoCodecH264;

constexpr std::string_view kStartCode("\0\0\0\1", 4);
constexpr std::string_view kShortStartCode("\0\0\1", 3);

// Calls `action` with every NAL unit of an Annex B stream.
template <typename Action>
void ForEachUnit(std::string_view stream, const Action& action) {
  auto begin = stream.find(kShortStartCode);
  while (begin != std::string_view::npos) {
    begin += kShortStartCode.size();
    const auto end = stream.find(kShortStartCode, begin);
    std::string_view unit = stream.substr(begin, end == stream.npos ? end : end - begin);
    while (!unit.empty() && unit.back() == 0) unit.remove_suffix(1);
    if (!unit.empty()) action(unit);
    begin = end;
  }
}

}  // namespace

CameraClip::CameraClip(const std::string& path, bool loose) : loose_(loose) {
  utils::video::FfmpegDemuxer demuxer;
  if (demuxer.Open(path, {}) != 0) throw std::runtime_error("cannot open " + path);
  while (const auto packet = demuxer.ReadFrame()) {
    codec_ = packet->codec;
    pictures_.push_back(Normalise(packet->data, packet->size));
    index_.emplace(pictures_.back(), pictures_.size() - 1);
  }
}

std::size_t CameraClip::Find(const std::string& bytes) const {
  const auto found = index_.find(bytes);
  return found == index_.end() ? size() : found->second;
}

std::string CameraClip::Normalise(const std::uint8_t* data, std::size_t size) const {
  const bool h264 = codec_ == kVideoCodecH264;
  std::string bytes;
  ForEachUnit({reinterpret_cast<const char*>(data), size}, [&](std::string_view unit) {
    const int type = TypeOf(static_cast<std::uint8_t>(unit[0]));
    const bool slice = h264 ? type <= 5 : type < 32;
    if (!loose_ || slice) bytes.append(kStartCode).append(unit);
  });
  return bytes;
}

bool CameraClip::IsKey(const std::string& bytes) const {
  bool key = false;
  ForEachUnit(bytes, [&](std::string_view unit) {
    const int type = TypeOf(static_cast<std::uint8_t>(unit[0]));
    key = key || (codec_ == kVideoCodecH264 ? type == 5 : type >= 16 && type <= 21);
  });
  return key;
}

int CameraClip::TypeOf(std::uint8_t first_byte) const {
  return codec_ == kVideoCodecH264 ? first_byte & 0x1F : (first_byte >> 1) & 0x3F;
}

void Comparison::Take(const std::uint8_t* data, std::size_t size, double seconds, bool key,
                      bool gap) {
  const std::string bytes = clip_.Normalise(data, size);
  ++packets;
  if (gap) {
    ++gaps;
    cut += broken_ ? 1 : 0;
    different -= broken_ ? 1 : 0;
    found_ = false;
  }
  const std::size_t steps = Advance(bytes);
  if (steps > 0 || found_) CheckTime(seconds, gap ? 0 : steps);
  wrong_keys += clip_.IsKey(bytes) != key ? 1 : 0;
}

std::size_t Comparison::Advance(const std::string& bytes) {
  const std::size_t at = clip_.Find(bytes);
  broken_ = false;
  if (at == clip_.size()) {
    ++different;
    broken_ = found_ && std::equal(bytes.begin(), bytes.end(), clip_.picture(next_).begin(),
                                   clip_.picture(next_).begin() +
                                       static_cast<std::ptrdiff_t>(
                                           std::min(bytes.size(), clip_.picture(next_).size())));
    next_ = (next_ + 1) % clip_.size();
    return found_ ? 1 : 0;
  }
  const std::size_t skipped = found_ ? (at + clip_.size() - next_) % clip_.size() : 0;
  const std::size_t steps = found_ ? 1 + skipped : 0;
  missing += skipped;
  late_starts += !found_ && at != 0 ? 1 : 0;
  found_ = true;
  next_ = (at + 1) % clip_.size();
  return steps;
}

void Comparison::CheckTime(double seconds, std::size_t steps) {
  if (std::isnan(seconds)) ++without_time;
  const double step = seconds - last_seconds_;  // NaN where one is unknown
  if (steps > 0 && !std::isnan(step)) {
    worst_time = std::max(worst_time, std::abs(step - static_cast<double>(steps) / rate_));
  }
  last_seconds_ = seconds;
}

}  // namespace qx::bench
