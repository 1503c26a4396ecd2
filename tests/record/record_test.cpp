// What passes a relay arrives as it is, ends as it would without one, and is in the recording.
#include <gmock/gmock.h>
#include <sys/resource.h>

#include <csignal>
#include <sstream>

#include "record/Recordings.h"
#include "support/RunningService.h"

namespace {

using pcapng::Direction;
using testing::ElementsAre;
using testing::HasSubstr;

TEST(Relay, MessagesPassUnchangedHoweverTheyAreCutAndArePacketsEach) {
  service::ServerOptions options;
  options.onRegister = {{7, "first"}, {8, "second"}};
  RunningService service({}, options);
  RunningRelay relay(service.name());
  const Bytes sent[] = {request(1010), request(1008, "\x08\x02\x12\x04main", 6), request(1003, "", 7)};
  const Bytes push[] = {reply(1010, 0, hex("0807 1205") + "first"), reply(1010, 0),
                        reply(1010, 0, hex("0808 1206") + "second")};
  const Bytes expected[] = {
      reply(1010, 0, "", 5, 1234567), push[0], push[1], push[2], reply(1008, 0, "", 6, 1234567),
      reply(1003, 0, "", 7, 1234567)};
  const Bytes replies = expected[0] + push[0] + push[1] + push[2] + expected[4] + expected[5];
  constexpr size_t kPieces[] = {1, 7, 31, 33, 1000};
  for (const size_t piece : kPieces) {
    BytesClient application(relay.name());
    const Bytes all = sent[0] + sent[1] + sent[2];
    for (size_t at = 0; at < all.size(); at += piece) ASSERT_TRUE(application.write(all.substr(at, piece)));
    EXPECT_EQ(application.read(replies.size()), replies);
  }
  const ReadBack read = relay.stop();
  EXPECT_EQ(read.problem, "");
  ASSERT_EQ(read.interfaces.size(), std::size(kPieces));
  EXPECT_EQ(read.interfaces[0].name, "@" + service.name());
  EXPECT_THAT(read.interfaces[1].description,
              HasSubstr("connection 2: pid " + std::to_string(getpid()) + " ("));
  for (size_t connection = 0; connection < std::size(kPieces); ++connection) {
    std::vector<Bytes> out, in;
    int64_t before = 0;
    for (const Recorded& packet : read.packets) {
      if (packet.connection != connection) continue;
      (packet.direction == Direction::ToService ? out : in).push_back(packet.bytes);
      EXPECT_GE(packet.timeNs, before);
      before = packet.timeNs;
    }
    EXPECT_THAT(out, testing::ElementsAreArray(sent));
    EXPECT_THAT(in, testing::ElementsAreArray(expected));
  }
}

TEST(Relay, ConnectionsEndAsTheyWouldWithoutIt) {
  FakeService service(uniqueName());
  RunningRelay relay(service.name());
  {  // The application shuts its end and still gets its answer.
    BytesClient application(relay.name());
    ASSERT_TRUE(service.accept());
    application.write(request(1001));
    application.finish();
    EXPECT_EQ(service.read(1000), request(1001));
    service.write(reply(1001, 0));
    service.hangUp();
    EXPECT_EQ(application.read(1000), reply(1001, 0));
  }
  {  // The application dies behind its last request.
    BytesClient application(relay.name());
    ASSERT_TRUE(service.accept());
    application.write(request(1002));
    application.hangUp();
    EXPECT_EQ(service.read(1000), request(1002));
  }
  {  // The service dies behind its last reply: the application reads it, then its requests fail.
    BytesClient application(relay.name());
    ASSERT_TRUE(service.accept());
    application.write("RC");  // the recording has what was cut off, too
    EXPECT_EQ(service.read(2), "RC");
    service.write(reply(1003, 0));
    service.hangUp();
    EXPECT_EQ(application.read(1000), reply(1003, 0));
    EXPECT_TRUE(eventually([&] { return !application.write(request(1003)); }));
  }
  service.stop();
  BytesClient application(relay.name());
  EXPECT_EQ(application.read(1), "");
  const ReadBack read = relay.stop();
  EXPECT_THAT(relay.lines(), ElementsAre(HasSubstr("Connection refused): an application was turned away")));
  EXPECT_EQ(read.stream(0, Direction::FromService), reply(1001, 0));
  EXPECT_EQ(read.stream(1, Direction::ToService), request(1002));
  EXPECT_EQ(read.stream(2, Direction::ToService).substr(0, 2), "RC");
}

TEST(Relay, ASlowReaderSlowsItsWriterAndNothingIsLost) {
  FakeService service(uniqueName());
  RunningRelay relay(service.name());
  BytesClient application(relay.name());
  ASSERT_TRUE(service.accept());
  Bytes all;
  for (int i = 0; i < 40; ++i) all += request(1011, Bytes(1000000, static_cast<char>(i)), i);
  std::atomic<size_t> written{0};
  std::thread writer([&] {
    for (size_t at = 0; at < all.size(); at += 50000) {
      application.write(all.substr(at, 50000));
      written = at;
    }
  });
  // The writer stands still while far from done, and other connections are served meanwhile.
  EXPECT_TRUE(eventually([&] {
    const size_t before = written;
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    return written == before;
  }));
  EXPECT_LT(written, all.size() / 2);
  const bool same = service.read(all.size()) == all;
  EXPECT_TRUE(same);
  writer.join();
  application.hangUp();
  EXPECT_EQ(service.read(1), "");
  const ReadBack read = relay.stop();
  EXPECT_TRUE(read.stream(0, Direction::ToService) == all);
  EXPECT_EQ(read.packets.size(), 40u * 4) << "pieces of messages longer than a packet";
}

TEST(Relay, ManyConnectionsAtOnceAreKeptApart) {
  RunningService service;
  RunningRelay relay(service.name());
  std::vector<std::thread> applications;
  std::atomic<int> good{0};
  constexpr int kApplications = 40, kRequests = 50;
  for (int a = 0; a < kApplications; ++a) {
    applications.emplace_back([&, a] {
      BytesClient application(relay.name());
      Bytes requests, replies;
      for (int i = 0; i < kRequests; ++i) {
        requests += request(1009, "", a * 1000 + i);
        replies += reply(1009, 0, "", a * 1000 + i, 1234567);
      }
      application.write(requests);
      good += application.read(replies.size()) == replies;
    });
  }
  for (std::thread& application : applications) application.join();
  EXPECT_EQ(good, kApplications);
  const ReadBack read = relay.stop();
  EXPECT_EQ(read.packets.size(), size_t{2} * kApplications * kRequests);
  for (const Recorded& packet : read.packets) {
    const Bytes first = read.stream(packet.connection, Direction::ToService).substr(24, 8);
    EXPECT_EQ(read64le(reinterpret_cast<const uint8_t*>(&packet.bytes[24])) / 1000,
              read64le(reinterpret_cast<const uint8_t*>(first.data())) / 1000);
  }
}

TEST(Relay, BytesThatAreNoMessageAreRecordedAsTheyCame) {
  FakeService service(uniqueName());
  RunningRelay relay(service.name());
  BytesClient application(relay.name());
  ASSERT_TRUE(service.accept());
  const Bytes pieces[] = {"garbage", request(1001), "RCD", "X and more", request(1003)};
  for (const Bytes& piece : pieces) {
    application.write(piece);
    EXPECT_EQ(service.read(piece.size()), piece);
  }
  std::vector<Bytes> packets;
  for (const Recorded& packet : relay.stop().packets) packets.push_back(packet.bytes);
  EXPECT_THAT(packets, ElementsAre("garbage", request(1001), "RCDX and more", request(1003)));
}

TEST(Relay, AFullDiskIsOneLineAndEndsNothingButTheRecording) {
  rlimit before{};
  getrlimit(RLIMIT_FSIZE, &before);
  signal(SIGXFSZ, SIG_IGN);
  RunningService service;
  RunningRelay relay(service.name());
  BytesClient application(relay.name());
  EXPECT_EQ(application.ask(1003), 0u);
  rlimit limit = before;
  limit.rlim_cur = 5001;
  setrlimit(RLIMIT_FSIZE, &limit);
  for (int i = 0; i < 200; ++i) EXPECT_EQ(application.ask(1003), 0u);
  EXPECT_TRUE(eventually([&] { return !relay.lines().empty(); }));
  setrlimit(RLIMIT_FSIZE, &before);
  for (int i = 0; i < 10; ++i) EXPECT_EQ(application.ask(1003), 0u);
  const ReadBack read = relay.stop();
  EXPECT_EQ(read.problem, "");
  EXPECT_GT(read.packets.size(), 10u);
  EXPECT_THAT(relay.lines(),
              ElementsAre(HasSubstr("File too large; what passes from now on is not recorded")));
}

// The other byte order, microseconds, a block of an unknown kind and a packet cut off by its capture length.
TEST(Pcapng, FilesOfOtherProgramsAreReadAndBrokenOnesNeverTrusted) {
  const Bytes file =
      hex("0A0D0D0A 0000001C 1A2B3C4D 0001 0000 FFFFFFFF FFFFFFFF 0000001C"
          "00000001 00000014 00FC 0000 00000000 00000014"
          "00000BAD 00000010 01020304 00000010"
          "00000006 00000030 00000000 00000000 0000000F 00000002 00000005 61620000 0002 0004 00000001 "
          "00000000 00000030");
  const auto read = [](const Bytes& bytes) {
    std::istringstream in(bytes);
    return readRecording(in);
  };
  const ReadBack whole = read(file);
  EXPECT_EQ(whole.problem, "");
  ASSERT_EQ(whole.packets.size(), 1u);
  EXPECT_EQ(whole.packets[0].bytes, "ab");
  EXPECT_EQ(whole.packets[0].timeNs, 15000);
  EXPECT_EQ(whole.packets[0].direction, Direction::FromService);
  EXPECT_EQ(read("plain text, long enough").problem, "this is no pcapng file");
  for (size_t length = 0; length < file.size(); ++length) {
    const bool atBlock = length == 28 || length == 48 || length == 64;
    EXPECT_EQ(read(file.substr(0, length)).problem.empty(), atBlock) << length;
  }
  for (size_t at = 0; at < file.size(); ++at) {  // must neither crash nor allocate what is only claimed
    for (const char byte : {'\0', '\x7f', '\xff'}) {
      Bytes broken = file;
      broken[at] = byte;
      read(broken);
    }
  }
}

}  // namespace
