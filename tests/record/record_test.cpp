// What passes a relay arrives as it is, ends as it would without one, and is in the recording.
#include <gmock/gmock.h>
#include <sys/resource.h>

#include <csignal>
#include <numeric>
#include <set>
#include <sstream>

#include "record/Recordings.h"
#include "support/RunningService.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;

TEST(Relay, MessagesOfManyPassUnchangedHoweverTheyAreCutAndArePacketsEach) {
  service::ServerOptions options;
  options.onRegister = {{7, "first"}, {8, "second"}};
  RunningService service({}, options);
  RunningRelay relay(service.name());
  const auto sent = [](int64_t id) {
    std::vector<Bytes> all(30, request(1003, "", id));
    all[0] = request(1010, "", id);
    all[1] = request(1008, "\x08\x02\x12\x04main", id);
    return all;
  };
  const auto answered = [](int64_t id) {
    std::vector<Bytes> all(33, reply(1003, 0, "", id, 1234567));
    all[0] = reply(1010, 0, "", id, 1234567);
    all[1] = reply(1010, 0, hex("0807 1205") + "first");
    all[2] = reply(1010, 0);
    all[3] = reply(1010, 0, hex("0808 1206") + "second");
    all[4] = reply(1008, 0, "", id, 1234567);
    return all;
  };
  const auto joined = [](const std::vector<Bytes>& all) {
    return std::accumulate(all.begin(), all.end(), Bytes());
  };
  constexpr size_t kPieces[] = {1, 7, 31, 33, 1000}, kApplications = 20;
  std::vector<std::future<void>> applications;
  for (size_t id = 0; id < kApplications; ++id) {
    applications.push_back(std::async(std::launch::async, [&, id] {
      BytesClient application(relay.name());
      const Bytes all = joined(sent(id)), replies = joined(answered(id));
      const size_t piece = kPieces[id % std::size(kPieces)];
      for (size_t at = 0; at < all.size(); at += piece) EXPECT_TRUE(application.write(all.substr(at, piece)));
      EXPECT_EQ(application.read(replies.size()), replies);
    }));
  }
  applications.clear();  // waits for them
  const ReadBack read = relay.stop();
  EXPECT_EQ(read.problem, "");
  ASSERT_EQ(read.interfaces.size(), kApplications);
  EXPECT_EQ(read.interfaces[0].name, "@" + service.name());
  EXPECT_THAT(read.interfaces[1].description,
              HasSubstr("connection 2: pid " + std::to_string(getpid()) + " ("));
  std::set<int64_t> ids;
  for (size_t connection = 0; connection < kApplications; ++connection) {
    std::vector<Bytes> out, in;
    int64_t before = 0;
    for (const Recorded& packet : read.packets) {
      if (packet.connection != connection) continue;
      EXPECT_EQ(packet.tags, record::connectionTags(connection + 1, packet.direction));
      (packet.direction == kOut ? out : in).push_back(packet.bytes);
      EXPECT_GE(packet.timeNs, before);
      before = packet.timeNs;
    }
    ASSERT_FALSE(out.empty());
    const auto id = static_cast<int64_t>(read64le(reinterpret_cast<const uint8_t*>(&out[0][24])));
    ids.insert(id);
    EXPECT_EQ(out, sent(id));
    EXPECT_EQ(in, answered(id));
  }
  EXPECT_EQ(ids.size(), kApplications);
}

TEST(Relay, ConnectionsEndAsTheyWouldWithoutIt) {
  FakeService service(uniqueName());
  RunningRelay relay(service.name());
  const Bytes noMessages[] = {"garbage", request(1001), "RCD", "X and more", request(1003), "RC"};
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
    for (const Bytes& piece : noMessages) {
      application.write(piece);
      EXPECT_EQ(service.read(piece.size()), piece);
    }
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
  EXPECT_EQ(read.stream(0, kIn), reply(1001, 0));
  EXPECT_EQ(read.stream(1, kOut), request(1002));
  std::vector<Bytes> packets;  // what is no message as it came, what was cut off too
  for (const Recorded& packet : read.packets) {
    if (packet.connection == 2 && packet.direction == kOut) packets.push_back(packet.bytes);
  }
  ASSERT_GE(packets.size(), 5u);
  EXPECT_EQ(packets[4].substr(0, 2), "RC");
  packets.resize(4);
  EXPECT_THAT(packets, ElementsAre("garbage", request(1001), "RCDX and more", request(1003)));
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
  EXPECT_TRUE(read.stream(0, kOut) == all);
  EXPECT_EQ(read.packets.size(), 40u * 4) << "pieces of messages longer than a packet";
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
  EXPECT_EQ(whole.packets[0].direction, kIn);
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
