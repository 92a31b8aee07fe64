#include <atomic>
#include <deque>
#include <future>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>

#include "qx_utils/ffmpeg_video_decoder/blocking_queue.h"
#include "tests/testing/decoding.h"
#include "tests/testing/effort.h"
#include "tests/testing/test.h"

namespace qx::utils::ffmpeg {
namespace {

using ::testing::EndsWith;
using testing::FramePtr;
using testing::MakePacket;
using testing::Receiver;
using testing::SendAll;

const std::vector<testing::PacketPtr>& Packets() {
  static const auto packets = [] {
    auto all = testing::ReadPackets("two_videos.mp4");  // small pictures
    all.resize(6);
    return all;
  }();
  return packets;
}

TEST(BlockingQueue, KeepsOrderAndEndsAWait) {
  BlockingQueue<int> queue;
  std::deque<int> spare = {9};
  for (const int value : {1, 2, 3}) queue.Push(value);
  EXPECT_EQ(queue.Size(), 3U);
  EXPECT_EQ(queue.Pop(), 1);
  EXPECT_EQ(queue.Size(), 2U);
  queue.Replace(spare);
  EXPECT_THAT(spare, ElementsAre(2, 3));
  EXPECT_EQ(queue.Size(), 1U);
  EXPECT_EQ(queue.Pop(), 9);
  auto waiting = std::async(std::launch::async, [&] { return queue.Pop(); });
  EXPECT_EQ(waiting.wait_for(std::chrono::milliseconds(20)), std::future_status::timeout);
  queue.Push(4);
  EXPECT_EQ(waiting.get(), 4);
}

// A decoder in some state. Where the state blocks the worker, `gate` lets it go on.
struct Subject {
  std::shared_ptr<FfmpegDecoder> decoder = CreateFfmpegDecoder();
  std::promise<void> gate;
  std::shared_future<void> opened = gate.get_future().share();
};

// Blocks the worker in the callback of the first frame; it takes no notice of later ones.
void BlockWorker(Subject& s) {
  auto inside = std::make_shared<std::promise<void>>();
  s.decoder->SetCallback([inside, opened = s.opened, first = true](FramePtr, void*) mutable {
    if (std::exchange(first, false)) inside->set_value();
    opened.wait();
  });
  for (std::size_t i = 0; s.decoder->SendFrame(Packets()[i], nullptr) != kDecodeOk;) ++i;
  inside->get_future().wait();
}

void FillQueue(Subject& s) {
  BlockWorker(s);
  SendAll(*s.decoder, Packets());
}

void StartDrain(Subject& s) {
  SendAll(*s.decoder, Packets());
  EXPECT_EQ(s.decoder->SendFrame(MakePacket(nullptr, 0), nullptr), kDecodeOk);
}

void DrainWhole(Subject& s) {
  SendAll(*s.decoder, Packets());
  EXPECT_EQ(s.decoder->Drain(nullptr), 0);
}

void SendGarbage(Subject& s) {
  std::uint8_t garbage[] = {0, 0, 0, 1, 0x65, 0xFF, 0xFF, 0xFF};
  EXPECT_EQ(s.decoder->SendFrame(MakePacket(garbage, sizeof(garbage)), nullptr), kDecodeFailed);
}

void Send(Subject& s, bool is_new) {
  EXPECT_EQ(SendAll(*s.decoder, Packets()).empty(), is_new);
  s.gate.set_value();
}

void SendDrain(Subject& s, bool is_new) {
  EXPECT_EQ(s.decoder->Drain(nullptr), is_new ? kDecodeNotInitialised : kDecodeOk);
  EXPECT_EQ(s.decoder->SendFrame(MakePacket(nullptr, 0), nullptr),
            is_new ? kDecodeNotInitialised : kDecodeEndOfStream);
  s.gate.set_value();
}

// Waits for the frames on several threads; the new callback gets all that are queued from here on.
void SetCallback(Subject& s, bool /*is_new*/) {
  Receiver receiver;
  EXPECT_EQ(s.decoder->SetCallback(receiver.Callback()), 0);
  const std::size_t sent = SendAll(*s.decoder, Packets()).size();
  const auto frames = [&] { return receiver.Frames(*s.decoder).size(); };
  auto other = std::async(std::launch::async, frames);
  s.gate.set_value();
  EXPECT_GE(frames(), sent);
  EXPECT_GE(other.get(), sent);
  s.decoder.reset();
}

void Destroy(Subject& s, bool /*is_new*/) {
  std::thread opener([&s] { s.gate.set_value(); });
  s.decoder.reset();
  opener.join();
}

void DestroyFromCallback(Subject& s, bool is_new) {
  std::atomic<int> calls{0};
  std::promise<void> target_gone;
  const auto tell = [&target_gone](void*) { target_gone.set_value(); };
  s.decoder->SetCallback([&, token = std::shared_ptr<void>(&s, tell)](FramePtr, void*) {
    s.opened.wait();
    ++calls;
    s.decoder.reset();
    EXPECT_NE(token, nullptr) << "the running target was destroyed";
  });
  SendAll(*s.decoder, Packets());
  s.gate.set_value();
  if (is_new) s.decoder.reset();
  target_gone.get_future().wait();
  EXPECT_EQ(calls, is_new ? 0 : 1);
}

void ThrowFromCallback(Subject& s, bool is_new) {
  const LogCapture log;
  Receiver receiver;
  s.decoder->SetCallback(
      [&, receive = receiver.Callback(), calls = 0](FramePtr frame, void* user_data) mutable {
        s.decoder->WaitUntilDelivered();  // from here it would wait for itself
        receive(frame, user_data);
        if (++calls == 1) throw 1;
        throw std::runtime_error("lost");
      });
  SendAll(*s.decoder, Packets());
  s.gate.set_value();
  EXPECT_EQ(receiver.Frames(*s.decoder).empty(), is_new);
  s.decoder.reset();
  const auto lines = log.Messages(google::ERROR);
  EXPECT_THAT(lines, SizeIs(receiver.Tags().size()));
  for (std::size_t i = 0; i < lines.size(); ++i) {
    EXPECT_THAT(lines[i], EndsWith(i == 0 ? "no std::exception, delivery goes on" : "lost"));
  }
}

using Enter = void (*)(Subject&);
using Act = void (*)(Subject&, bool is_new);

// Creates, uses and destroys on three threads.
void RunCase(Enter enter, Act act) {
  Subject subject;
  const bool is_new = enter == nullptr;
  if (!is_new) {
    std::thread([&] {
      EXPECT_EQ(subject.decoder->Init(), 0);
      EXPECT_EQ(subject.decoder->SetReorderDepth(2), 0);  // holds pictures back
      enter(subject);
    }).join();
  }
  std::thread([&] { act(subject, is_new); }).join();
}

TEST(Decoder, TakesEveryActionInEveryState) {
  const Enter idle = [](Subject&) {};
  const std::pair<const char*, Enter> states[] = {{"new", nullptr},
                                                  {"idle", idle},
                                                  {"queue full", FillQueue},
                                                  {"callback", BlockWorker},
                                                  {"draining", StartDrain},
                                                  {"drained", DrainWhole},
                                                  {"after error", SendGarbage}};
  const std::pair<const char*, Act> actions[] = {{"send", Send},
                                                 {"drain", SendDrain},
                                                 {"set callback", SetCallback},
                                                 {"destroy", Destroy},
                                                 {"destroy from the callback", DestroyFromCallback},
                                                 {"throw", ThrowFromCallback}};
  for (const auto& [state, enter] : states) {
    for (const auto& [action, act] : actions) {
      SCOPED_TRACE(std::string(state) + ": " + action);
      RunCase(enter, act);
    }
  }
}

TEST(Decoder, DiesInFiveWaysManyTimesEach) {
  for (std::size_t i = 0; i < 100 * testing::Effort(); ++i) {
    RunCase([](Subject&) {}, Destroy);
    RunCase(FillQueue, Destroy);
    RunCase(BlockWorker, Destroy);
    RunCase(FillQueue, DestroyFromCallback);
    RunCase(FillQueue, ThrowFromCallback);
  }
}

TEST(Decoder, QueuesWithoutLimitForASlowConsumerAndReleasesWhatItTook) {
  Subject s;
  ASSERT_EQ(s.decoder->Init(), 0);
  Receiver receiver;
  std::weak_ptr<velkar::vision::ImageFrame> last;
  s.decoder->SetCallback([&, receive = receiver.Callback()](const FramePtr& frame, void* tag) {
    s.opened.wait();
    EXPECT_TRUE(last.expired()) << "an earlier frame is still held";
    last = frame;
    receive(nullptr, tag);
  });
  std::vector<testing::PacketPtr> many(1000);
  for (std::size_t i = 0; i < many.size(); ++i) many[i] = Packets()[i % Packets().size()];
  const auto queued = SendAll(*s.decoder, many);
  EXPECT_GT(queued.size(), 900U);
  s.gate.set_value();
  s.decoder->WaitUntilDelivered();
  EXPECT_EQ(receiver.Tags(), queued);
  EXPECT_TRUE(last.expired());
}

TEST(Decoder, DrainsFromInsideTheCallback) {
  Subject s;
  ASSERT_EQ(s.decoder->Init(), 0);
  ASSERT_EQ(s.decoder->SetReorderDepth(3), 0);
  std::vector<void*> tags;
  s.decoder->SetCallback([&](const FramePtr&, void* user_data) {
    s.opened.wait();
    tags.push_back(user_data);
    if (tags.size() > 1) return;
    EXPECT_EQ(s.decoder->Drain(testing::Tag(9)), 0);
  });
  for (std::size_t i = 0; s.decoder->SendFrame(Packets()[i], nullptr) != kDecodeOk;) ++i;
  s.gate.set_value();
  s.decoder->WaitUntilDelivered();  // for the first frame
  s.decoder->WaitUntilDelivered();  // for those of the drain
  void* const drained = testing::Tag(9);
  EXPECT_THAT(tags, ElementsAre(nullptr, drained, drained, drained));
}

TEST(Decoder, SixtyFourAtOnceDecodeTheSame) {
  Subject s;
  const auto decode = [opened = s.opened] {
    Receiver receiver;
    const auto decoder = testing::OpenDecoder(receiver.Callback());
    opened.wait();
    SendAll(*decoder, Packets());
    decoder->Drain(nullptr);
    std::string samples;
    for (const FramePtr& frame : receiver.Frames(*decoder)) samples += testing::Samples(frame);
    return samples;
  };
  std::vector<std::future<std::string>> decoders(64);
  for (auto& decoder : decoders) decoder = std::async(std::launch::async, decode);
  s.gate.set_value();
  const std::string first = decoders[0].get();
  EXPECT_EQ(first.size(), Packets().size() * 160 * 120 * 3 / 2);
  for (std::size_t i = 1; i < decoders.size(); ++i) EXPECT_TRUE(decoders[i].get() == first) << i;
}

TEST(Decoder, DiesWithACallbackThatOwnsIt) {
  for (const Enter enter : {BlockWorker, Enter([](Subject&) {})}) {
    Subject s;
    EXPECT_EQ(s.decoder->Init(), 0);
    enter(s);
    std::promise<void> gone;
    std::shared_ptr<void> token(&s, [&gone](void*) { gone.set_value(); });
    s.decoder->SetCallback([owned = s.decoder, token = std::move(token)](FramePtr, void*) {});
    FfmpegDecoder* const decoder = s.decoder.get();
    s.decoder.reset();
    s.gate.set_value();
    decoder->SetCallback(nullptr);
    gone.get_future().wait();
  }
}

}  // namespace
}  // namespace qx::utils::ffmpeg
