// Start-code search over packets without a parameter set, which are scanned whole: FindStartCode
// against FFmpeg's byte scanner, FFmpeg's H.264 parser, memmem and memchr, in one run.
//
// Prints medians in GB/s and how many times faster FindStartCode is than each rival.
#include <dlfcn.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <random>
#include <vector>

#include "bench/interleaved.h"
#include "qx_utils/h264_h265_info_parse/start_code.h"

extern "C" {
#include <libavcodec/avcodec.h>
}

namespace qx::bench {
namespace {

using Buffer = std::vector<std::uint8_t>;
// Counts the start codes of a whole buffer.
using Scan = std::size_t (*)(const Buffer&);

// A large key frame, which stays in the second cache.
constexpr std::size_t kPacketBytes = std::size_t{256} << 10;

std::size_t ScanWithFindStartCode(const Buffer& data) {
  const std::uint8_t* const end = data.data() + data.size();
  std::size_t count = 0;
  const std::uint8_t* p = utils::FindStartCode(data.data(), end);
  for (; p != end; p = utils::FindStartCode(p + utils::kStartCodeBytes, end)) ++count;
  return count;
}

// The way FFmpeg's scanner works, where its own is not exported: look at the byte that would end a
// 00 00 01 and advance by as much as that byte, or the ones before it, exclude.
std::size_t ScanBySkipping(const Buffer& data) {
  std::size_t count = 0;
  for (std::size_t last = 2; last < data.size();) {
    if (data[last] > 1) {
      last += 3;
    } else if (data[last - 1] != 0) {
      last += 2;
    } else {
      const bool code = data[last] == 1 && data[last - 2] == 0;
      count += code ? 1 : 0;
      last += code ? 3 : 1;
    }
  }
  return count;
}

volatile std::size_t scans_sum = 0;  // what was found, so that no scan is left out

using FfmpegScanner = const std::uint8_t* (*)(const std::uint8_t*, const std::uint8_t*,
                                              std::uint32_t*);
// Null where FFmpeg does not export it.
const auto ffmpeg_scanner =
    reinterpret_cast<FfmpegScanner>(dlsym(RTLD_DEFAULT, "avpriv_find_start_code"));

std::size_t ScanWithFfmpeg(const Buffer& data) {
  const std::uint8_t* const end = data.data() + data.size();
  std::uint32_t state = ~std::uint32_t{0};
  std::size_t count = 0;
  for (const std::uint8_t* p = data.data(); p < end; ++count) p = ffmpeg_scanner(p, end, &state);
  return count;
}

struct CloseParser {
  void operator()(AVCodecParserContext* parser) const { av_parser_close(parser); }
  void operator()(AVCodecContext* codec) const { avcodec_free_context(&codec); }
};

std::size_t ScanWithFfmpegParser(const Buffer& data) {
  const std::unique_ptr<AVCodecParserContext, CloseParser> parser(av_parser_init(AV_CODEC_ID_H264));
  const std::unique_ptr<AVCodecContext, CloseParser> codec(avcodec_alloc_context3(nullptr));
  std::size_t frames = 0;
  const std::uint8_t* p = data.data();
  for (auto left = static_cast<int>(data.size()); left > 0;) {
    std::uint8_t* out = nullptr;
    int out_size = 0;
    const int used = av_parser_parse2(parser.get(), codec.get(), &out, &out_size, p, left,
                                      AV_NOPTS_VALUE, AV_NOPTS_VALUE, 0);
    if (used <= 0) break;
    p += used;
    left -= used;
    frames += out_size > 0 ? 1 : 0;
  }
  return frames;
}

std::size_t ScanWithMemmem(const Buffer& data) {
  static constexpr std::uint8_t kCode[] = {0, 0, 0, 1};
  const std::uint8_t* p = data.data();
  const std::uint8_t* const end = p + data.size();
  std::size_t count = 0;
  while (const void* hit = memmem(p, static_cast<std::size_t>(end - p), kCode, sizeof kCode)) {
    p = static_cast<const std::uint8_t*>(hit) + sizeof kCode;
    ++count;
  }
  return count;
}

std::size_t ScanWithMemchr(const Buffer& data) {
  const std::uint8_t* p = data.data() + 3;
  const std::uint8_t* const end = data.data() + data.size();
  std::size_t count = 0;
  while (const void* hit = std::memchr(p, 1, static_cast<std::size_t>(end - p))) {
    const auto* one = static_cast<const std::uint8_t*>(hit);
    count += one[-1] == 0 && one[-2] == 0 && one[-3] == 0 ? 1 : 0;
    p = one + 1;
  }
  return count;
}

Buffer RandomBytes(std::size_t bytes) {
  std::mt19937 random(1);
  Buffer data(bytes);
  for (std::uint8_t& byte : data) byte = static_cast<std::uint8_t>(random());
  return data;
}

Buffer Repeated(const Buffer& unit) {
  Buffer data;
  while (data.size() < kPacketBytes) data.insert(data.end(), unit.begin(), unit.end());
  return data;
}

// Entropy-coded slices of 1,400 bytes: no two zeros are followed by a byte below 4, except in the
// start codes in front of the slices (3 bytes, and 4 for the first).
Buffer Slices() {
  Buffer data = {0};
  std::size_t zeros = 0;
  for (const std::uint8_t byte : RandomBytes(kPacketBytes)) {
    if (data.size() % 1400 == 1) data.insert(data.end(), {0, 0, 1, 0x41});
    const std::uint8_t written = zeros >= 2 && byte < 4 ? std::uint8_t{3} : byte;
    zeros = written == 0 ? zeros + 1 : 0;
    data.push_back(written);
  }
  return data;
}

void Compare(const char* kind, const Buffer& data) {
  std::vector<Contender> contenders;
  const auto add = [&](const char* name, Scan scan) {
    contenders.push_back({name, [scan, &data] { scans_sum += scan(data); }});
  };
  add("FindStartCode", ScanWithFindStartCode);
  if (ffmpeg_scanner != nullptr) add("FFmpeg byte scanner", ScanWithFfmpeg);
  add("same algorithm, here", ScanBySkipping);
  add("FFmpeg H.264 parser", ScanWithFfmpegParser);
  add("memmem", ScanWithMemmem);
  add("memchr for the 01", ScanWithMemchr);
  Rounds rounds;
  rounds.count = 31;
  rounds.untimed_runs = 1;
  rounds.seconds = 200e-6;
  const std::vector<Times> times = RunInterleaved(contenders, rounds);
  const auto speed = [&](std::size_t i) {
    return static_cast<double>(data.size()) / Median(times[i].processor) / 1e9;
  };
  std::printf("%-24s FindStartCode %31.2f GB/s\n", kind, speed(0));
  for (std::size_t i = 1; i < contenders.size(); ++i) {
    std::printf("%-24s %-24s %20.2f GB/s   ratio %7.1f\n", kind, contenders[i].name.c_str(),
                speed(i), MedianRatio(times[i].processor, times[0].processor));
  }
}

void CompareAll() {
  Compare("slice data", Slices());
  Compare("random bytes", RandomBytes(kPacketBytes));
  Compare("all zeros", Buffer(kPacketBytes, 0));
  Compare("3-byte codes, no gaps", Repeated({0, 0, 1}));
  Compare("3-byte codes, 16 apart", Repeated({0, 0, 1, 9, 9, 9, 9, 9, 9, 9, 9, 9, 9, 9, 9, 9}));
  Buffer unit(64, 9);
  std::copy_n("\0\0\0\1", 4, unit.begin());
  Compare("4-byte codes, 64 apart", Repeated(unit));
}

}  // namespace
}  // namespace qx::bench

int main() {
  av_log_set_level(AV_LOG_QUIET);
  qx::bench::CompareAll();
}
