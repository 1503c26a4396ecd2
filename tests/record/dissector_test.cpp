// wireshark/tarnbooster.lua, as tshark runs it over recordings: each row is one packet's fields.
#include <gmock/gmock.h>

#include <random>
#include <sstream>

#include "record/Recordings.h"
#include "support/RunningService.h"
#include "tools/record/MessageCutter.h"
#include "udp/crc32.h"

namespace {

using testing::ElementsAreArray;
using testing::HasSubstr;

void addDatagram(Capture& capture, bool fromClient, const Bytes& bytes, int afterMs = 1,
                 uint16_t servicePort = 4000) {
  sockaddr_in client = loopback(), service = loopback();
  client.sin_port = htons(5000);
  service.sin_port = htons(servicePort);
  const Bytes tags =
      fromClient ? record::datagramTags(client, service, kOut) : record::datagramTags(service, client, kIn);
  capture.put(tags, fromClient ? kOut : kIn, bytes, afterMs);
}

std::string tshark(const std::string& path, const std::string& options) {
  return shellOutput("HOME=/nonexistent " TARNBOOSTER_TSHARK " -n -r " + path +
                     " -X lua_script:" TARNBOOSTER_DISSECTOR " " + options + " 2>&1 | grep -v 'Running as'");
}

/// The named fields of each packet, separated by '|'; several values of one by ','.
std::vector<std::string> rows(const std::string& path, const std::string& fields,
                              const std::string& options = "") {
  std::string wanted = options + " -T fields -E 'separator=|'";
  std::istringstream names(fields);
  for (std::string name; names >> name;)
    wanted += " -e " + (name.rfind("_ws", 0) == 0 ? name : "tarnbooster" + name);
  std::istringstream lines(tshark(path, wanted));
  std::vector<std::string> found;
  for (std::string line; std::getline(lines, line);) found.push_back(line);
  return found;
}

/// scene -3, level 2, 1000 ms, action -5000000000
const Bytes kLeveled = hex("08 FDFFFFFFFFFFFFFFFF01 10 02 18 E807 20 809CE8AFEDFFFFFFFF01");

TEST(Dissector, ShowsEveryFieldOfEveryRequest) {
  const std::string leveled = "|-3|2|1000||-5000000000||||",
                    values = " scene=-3 level=2 timeoutms=1000 action=-5000000000";
  const struct {
    uint16_t funcid;
    Bytes body;
    std::string fields;  // message, its numbers, and the line
  } cases[] = {
      {1001, "", "|||||||||1001 checkPermission"},
      {1002, kLeveled, "amc.RequestCPUHighFreq" + leveled + "1002 requestCpuHighFreq" + values},
      {1003, "", "|||||||||1003 cancelCpuHighFreq"},
      {1004, hex("0801 1065 10FEFFFFFFFFFFFFFFFF01 1807 20FFFFFFFFFFFFFFFF7F"),
       "amc.RequestCPUCoreForThread|1|||7|9223372036854775807|101,-2|||1004 requestCpuCoreForThread scene=1 "
       "bindtids=[101,-2] timeout=7 action=9223372036854775807"},
      {1005, hex("0A03 65 AC02"),  // packed
       "amc.CancelCPUCoreForThread||||||101,300|||1005 cancelCpuCoreForThread bindtids=[101,300]"},
      {1006, kLeveled, "amc.RequestHighIOFreq" + leveled + "1006 requestHighIOFreq" + values},
      {1007, "", "|||||||||1007 cancelHighIOFreq"},
      {1008, hex("0803 1204") + "main",
       "amc.RequestScreenResolution||3||||||main|1008 requestScreenResolution level=3 uiName=\"main\""},
      {1009, "", "|||||||||1009 resetScreenResolution"},
      {1010, "", "|||||||||1010 registerANRCallback"},
      {1011, hex("0A0A") + "/etc/hosts" + hex("0A00"),
       "amc.RequestBootPreLoadResource|||||||/etc/hosts,||1011 registerBootPreloadResource "
       "files=[\"/etc/hosts\",\"\"]"},
      {1012, "", "|||||||||1012 terminateApp"},
      {1013, hex("0801 1002 1800 2005 2809 3007"),
       "amc.RequestUnifyCPUIOThreadCore|1|||9|7|5|||1013 requestUnifyCpuIOThreadCore scene=1 cpulevel=2 "
       "iolevel=0 bindtids=[5] timeout=9 action=7"},
      {1014, hex("0801 1000 1801"),
       "amc.CancelUnifyCPUIOThreadCore|||||||||1014 cancelUnifyCpuIOThreadCore cancelcpu=1 cancelio=0 "
       "cancelthread=1 bindtids=[]"},
      {1005, "", "amc.CancelCPUCoreForThread|||||||||1005 cancelCpuCoreForThread bindtids=[]"},
  };
  Capture capture;
  std::vector<std::string> expected;
  for (const auto& c : cases) {
    capture.add(kOut, request(c.funcid, c.body, -77));
    expected.push_back("TarnBooster|application 1|service|request|0x48444352|4|" + std::to_string(c.funcid) +
                       "|" + std::to_string(c.body.size()) + "|1234567|77|-77|" + c.fields);
  }
  EXPECT_THAT(
      rows(capture.path(),
           "_ws.col.Protocol _ws.col.Source _ws.col.Destination .kind .magic .version .funcid .data_len "
           ".send_time .callertid .timestamp .message .scene .level .timeoutms .timeout .action .bindtids "
           ".files .uiName _ws.col.Info"),
      ElementsAreArray(expected));
}

TEST(Dissector, LinksRepliesWithRequestsAndNotesWhatIsWrong) {
  const Bytes push = reply(1010, 0, hex("0807 1203 616263"));
  Bytes wrongMagic = request(1003), oldVersion = request(1003, "", 8);
  wrongMagic[0] = 'X';
  oldVersion[4] = 3;
  const struct {
    pcapng::Direction direction;
    Bytes bytes;
    const char* fields;  // kind, reply in, reply to, time, status, notes, line
  } cases[] = {
      {kOut, request(1010, "", 5), "request|3|||||1010 registerANRCallback"},
      {kOut, request(1002, "\x08\x01", 6),
       "request|4||||The required field level is missing,The required field timeoutms is missing,The "
       "required field action is missing|1002 requestCpuHighFreq scene=1"},
      {kIn, reply(1010, 0, "", 5, 9),
       "reply||1|0.002000000|0||1010 registerANRCallback -> status 0, 2.000 ms"},
      {kIn, reply(1002, 3, "", 6),
       "reply||2|0.002000000|3|Status 3|1002 requestCpuHighFreq -> status 3 (bad argument), 2.000 ms"},
      {kIn, push, "push||||0||push code=7 data=3 bytes"},
      {kIn, reply(1010, 0), "reply||||0||1010 registerANRCallback (empty, between pushes)"},
      {kIn, push, "push||||0||push code=7 data=3 bytes"},
      {kIn, push,
       "push||||0|Between two replies with bodies one without must stand: the library takes it as complete "
       "and empty, and its body as the next header|push code=7 data=3 bytes"},
      {kIn, reply(1003, 0, "", 99),
       "reply||||0|A reply whose request is not in the capture|1003 cancelCpuHighFreq -> status 0"},
      {kOut, request(1003, "", 7), "request|13|||||1003 cancelCpuHighFreq"},
      {kOut, oldVersion, "request|12||||Another version than 4|1003 cancelCpuHighFreq"},
      {kIn, reply(1003, 0, "", 8), "reply||11|0.001000000|0||1003 cancelCpuHighFreq -> status 0, 1.000 ms"},
      {kIn, reply(1003, 0, "", 7),
       "reply||10|0.003000000|0|Answered behind a later request|1003 cancelCpuHighFreq -> status 0, 3.000 "
       "ms"},
      {kOut, request(1100, "abc"),
       "request|||||Unknown function identifier,No reply in the capture|1100 unknown request [3 body bytes]"},
      {kOut, request(1008, "\x08\x02\x12\x09"),
       "request|||||No reply in the capture,The body is not its message: byte 2,The required field uiName is "
       "missing|1008 requestScreenResolution level=2"},
      {kOut, request(1007, "x"),
       "request|||||No reply in the capture,A body where none belongs|1007 cancelHighIOFreq [1 body bytes]"},
      {kOut, wrongMagic, "|||||No header: the magic is wrong|32 bytes that belong to no message"},
      {kOut, "RCDH", "|||||The message is cut off|4 bytes that belong to no message"},
  };
  Capture capture;
  std::vector<std::string> expected;
  for (const auto& c : cases) {
    capture.add(c.direction, c.bytes);
    expected.emplace_back(c.fields);
  }
  EXPECT_THAT(rows(capture.path(),
                   ".kind .reply_in .reply_to .reply_time .status _ws.expert.message _ws.col.Info", "-2"),
              ElementsAreArray(expected));
}

TEST(Dissector, PutsPiecesTogetherAndTakesPacketsWithoutAnyTagsButTheName) {
  Capture capture;
  const Bytes name = "/" + Bytes(600000, 'f');
  const Bytes request1011 = request(1011, hex("0A C1CF24") + name);
  record::MessageCutter cutter(kOut);
  for (size_t at = 0; at < request1011.size(); at += 65536) {
    cutter.add(request1011.substr(at, 65536),
               [&](std::string_view piece) { capture.add(kOut, Bytes(piece)); });
  }
  capture.add(kIn, reply(1011, 0, "", 5));
  const Bytes tag = hex("000C 000C") + "tarnbooster" + hex("00 0000 0000");
  capture.put(tag, pcapng::Direction::Unknown, request(1003, "", 6) + request(1007, "", 6));
  capture.put(tag, pcapng::Direction::Unknown, reply(1003, 5, "", 6));
  EXPECT_THAT(
      rows(capture.path(), ".kind .continues_in .reply_to .funcid .data_len _ws.col.Info"),
      testing::ElementsAre(
          "|||||1011 registerBootPreloadResource (begins here)", "|1||||piece of 261120 bytes",
          "request|1||1011|600005|1011 registerBootPreloadResource files=[\"/" + Bytes(59, 'f') + "\"]",
          "reply||3|1011|0|1011 registerBootPreloadResource -> status 0, 1.000 ms",
          "request,request|||1003,1007|0,0|1003 cancelCpuHighFreq; 1007 cancelHighIOFreq",
          "reply||5|1003|0|1003 cancelCpuHighFreq -> status 5 (no right), 1.000 ms"));
}

TEST(Dissector, FollowsTheUdpTransport) {
  const Bytes message = request(1011, hex("0A C913") + Bytes(2505, 'f')), answer = reply(1011, 0, "", 5);
  const auto data = [&](uint32_t sequence, uint32_t offset) {
    return datagram(PACKET_DATA, sequence, offset, 2540, message.substr(offset, 1000), 1);
  };
  Bytes broken = data(100003, 2000);
  broken[40] ^= 1;
  Capture capture;
  std::vector<std::string> expected;
  const auto add = [&](bool fromClient, const Bytes& bytes, int afterMs, const std::string& fields) {
    addDatagram(capture, fromClient, bytes, afterMs);
    expected.push_back(fields);
  };
  // type, sequence, ack in, ack to, ack time, first sent in, number of the send, given up, complete in,
  // notes, line
  add(true, datagram(PACKET_SYN, 100000), 1, "4|100000|5||||1||||SYN s=100000");
  add(true, data(100001, 0), 1, "1|100001|6||||1||8||DATA s=100001 of=0 tl=2540");
  add(true, data(100002, 1000), 1, "1|100002|9||||1||8||DATA s=100002 of=1000 tl=2540");
  add(true, broken, 1,
      "1|100003||||||||The checksum is wrong; receivers drop this datagram|DATA s=100003 of=2000 tl=2540 "
      "[damaged]");
  add(false, datagram(PACKET_ACK, 100000), 1, "2|100000||1|0.004000000||||||ACK s=100000 of=0 tl=0");
  add(false, datagram(PACKET_ACK, 100001, 1000, 2540, "", 1), 1,
      "2|100001||2|0.004000000||||||ACK s=100001 of=1000 tl=2540");
  add(true, data(100002, 1000), 500,
      "1|100002|9|||3|2|||Sent again: send 2|DATA s=100002 of=1000 tl=2540 [send 2]");
  add(true, data(100003, 2000), 1,
      "1|100003|||||1||||DATA s=100003 of=2000 tl=2540 | 1011 registerBootPreloadResource files=[\"" +
          Bytes(60, 'f') + "\"]");
  add(false, datagram(PACKET_ACK, 100002, 2000, 2540, "", 1), 1,
      "2|100002||7|0.002000000||||||ACK s=100002 of=2000 tl=2540");
  add(false, datagram(PACKET_ACK, 100002, 2000, 2540, "", 1), 1,
      "2|100002||7|0.003000000|||||Acknowledges a packet that was acknowledged before|ACK s=100002 of=2000 "
      "tl=2540");
  add(false, datagram(PACKET_ACK, 7), 1,
      "2|7||||||||Acknowledges a packet that is not in the capture|ACK s=7 of=0 tl=0");
  for (int send = 2; send <= 6; ++send) {
    const std::string number = std::to_string(send),
                      line = "DATA s=100003 of=2000 tl=2540 [send " + number + "]";
    add(true, data(100003, 2000), 500,
        "1|100003||||8|" + number + (send < 6 ? "|" : "|1") + "||Sent again: send " + number +
            (send < 6 ? "" : ",Given up: sent six times and never acknowledged") + "|" + line);
  }
  addDatagram(capture, false, datagram(PACKET_DATA, 100001, 0, 32, answer, 2), 1, 4001);
  expected.push_back(
      "1|100001|||||1||||DATA s=100001 of=0 tl=32 | 1011 registerBootPreloadResource -> status 0, " +
      std::string("2504.000 ms"));
  add(true, "short", 1,
      "|||||||||The stated length is not what is here; receivers drop this datagram|5 bytes, no "
      "datagram");
  EXPECT_THAT(
      rows(capture.path(),
           "_udp.type _udp.sequence _udp.ack_in _udp.ack_to _udp.ack_time _udp.retransmission_of _udp.send "
           "_udp.given_up _udp.reassembled_in _ws.expert.message _ws.col.Info",
           "-2"),
      ElementsAreArray(expected));
}

TEST(Dissector, FindsDatagramsOnAnyPortOfACapture) {
  const Bytes payload = datagram(PACKET_DATA, 100001, 0, 32, request(1003), 1);
  Bytes packet = hex("4500 0000 0000 4000 4011 0000 7F000001 7F000001 1388 2710 0000 0000") + payload;
  packet[3] = static_cast<char>(packet.size());
  packet[25] = static_cast<char>(packet.size() - 20);
  Bytes file;
  pcapng::appendSectionHeader(file);
  pcapng::appendInterface(file, {228, "lo", ""});  // IPv4
  pcapng::appendPacket(file, 0, 0, pcapng::Direction::Unknown, "", packet);
  TemporaryFile path;
  std::ofstream(path.path) << file;
  EXPECT_THAT(rows(path.path, "_udp.checksum_good .funcid _ws.col.Protocol"),
              testing::ElementsAre("1|1003|TarnBooster UDP"));
}

TEST(Dissector, NeverFailsWhateverACaptureHolds) {
  std::mt19937 random(7);
  Capture capture;
  const Bytes seeds[] = {
      request(1002, kLeveled),
      request(1005, hex("0A03 65 AC02")) + request(1011, hex("0A01 2F")),
      reply(1010, 0, hex("0807 1203 616263")) + reply(1003, 0),
      datagram(PACKET_DATA, 100001, 0, 40, request(1008, hex("0802 1204 6D61696E")), 1),
      datagram(PACKET_ACK, 100001, 40, 40, "", 1),
  };
  for (int i = 0; i < 4000; ++i) {
    Bytes bytes = seeds[random() % std::size(seeds)];
    const size_t first = random() % 4 == 0 ? 0 : 4;  // most keep their magic
    for (unsigned change = random() % 4; change > 0; --change) {
      bytes[first + random() % (bytes.size() - first)] =
          static_cast<char>(random() % 3 == 0 ? 0xff : random());
    }
    if (random() % 8 == 0) bytes.resize(random() % (bytes.size() + 1));
    if (random() % 2 == 0) {
      capture.add(random() % 2 == 0 ? kOut : kIn, bytes, random() % 3);
    } else {
      if (bytes.size() >= 28 && random() % 2 == 0) {  // a right checksum lets more through
        write16le(reinterpret_cast<uint8_t*>(&bytes[2]), static_cast<uint16_t>(bytes.size() - 28));
        write32le(reinterpret_cast<uint8_t*>(&bytes[4]), 0);
        write32le(reinterpret_cast<uint8_t*>(&bytes[4]),
                  crc32(reinterpret_cast<const uint8_t*>(bytes.data()), static_cast<uint32_t>(bytes.size())));
      }
      addDatagram(capture, random() % 2 == 0, bytes);
    }
  }
  const std::string output = tshark(capture.path(), "-2 -V");
  EXPECT_THAT(output, HasSubstr("Frame 4000:"));
  for (const char* failure : {"Lua Error", "Dissector bug", "Exception", "lua"}) {
    EXPECT_THAT(output.substr(0, output.find(failure)).size(), output.size())
        << output.substr(std::min(output.size(), output.find(failure)), 300);
  }
}

}  // namespace
