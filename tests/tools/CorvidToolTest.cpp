// The corvid tool seen from outside: each test runs the built binary, as an
// operator or a script would, and checks stdout, stderr and the exit status
// (0 success, 1 a value or frame that does not hold up, 2 a bad command line).
#include <signal.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <nlohmann/json.hpp>
#include <sys/socket.h>
#include <unistd.h>

#include <Brio/Types.h>

#include <algorithm>
#include <cstdio>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "support/NetnsScope.h"
#include "tools/ToolProcess.h"

namespace {

using CorvidTest::runCorvid;
using CorvidTest::ToolProcess;
using CorvidTest::ToolResult;

// Everything a failed expectation needs to show about a run.
std::string shown(ToolResult const& r) {
  return "status " + std::to_string(r.status) + (r.timedOut ? " (timed out)" : "") + "\n--- stdout\n" + r.out +
         "--- stderr\n" + r.err;
}

// Runs the tool into `r`; every failure in the enclosing scope shows the run.
#define RUN(r, ...)                                \
  ToolResult const r = runCorvid(__VA_ARGS__);     \
  SCOPED_TRACE(shown(r))

bool has(std::string const& text, std::string const& part) { return text.find(part) != std::string::npos; }
bool startsWith(std::string const& text, std::string const& part) { return text.rfind(part, 0) == 0; }

class CorvidTool : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string const binary = CorvidTest::corvidBinary();
    ASSERT_EQ(access(binary.c_str(), X_OK), 0) << binary << " is not built";
  }
};

// ---- help, version, usage errors -------------------------------------------

std::vector<std::string> const synopses = {
    "demo",
    "value [--json] TYPE TEXT...",
    "packet [--json] HEX...",
    "capture [--json] --intf NAME [--count N] [--seconds S]",
    "send (--intf NAME | --to IPV4 [--protocol P] [--device D]) HEX...",
};

TEST_F(CorvidTool, HelpAndVersion_PrintTheUsageWhatEachCommandAcceptsAndTheProjectVersion) {
  std::string const cache = CorvidTest::buildDir() + "/CMakeCache.txt";
  std::string const version = CorvidTest::shOutput("sed -n 's/^CMAKE_PROJECT_VERSION:STATIC=//p' " + cache);  // and \n
  ASSERT_EQ(std::count(version.begin(), version.end(), '.'), 2) << "'" << version << "'";
  std::vector<std::string> everySynopsis;
  for (auto const& s : synopses) everySynopsis.push_back("\n  " + s + "\n");
  struct {
    std::vector<std::string> args;
    std::string start;                 // of stdout
    std::vector<std::string> accepts;  // each must appear after it
  } const cases[] = {
      {{"--help"}, "usage: corvid ", everySynopsis},
      {{"-h"}, "usage: corvid ", everySynopsis},
      {{"help"}, "usage: corvid ", everySynopsis},
      {{"demo", "--help"}, "usage: corvid " + synopses[0] + "\n", {}},
      {{"value", "--help"}, "usage: corvid " + synopses[1] + "\n", {"  --json  ", "TYPE words:\n  ipv4 "}},
      {{"packet", "--help"}, "usage: corvid " + synopses[2] + "\n", {"  --json  ", "  HEX  "}},
      {{"capture", "--help"}, "usage: corvid " + synopses[3] + "\n",
       {"  --intf NAME ", "  --count N ", "  --seconds S ", "  --json "}},
      {{"send", "--help"}, "usage: corvid " + synopses[4] + "\n",
       {"  --intf NAME ", "  --to IPV4 ", "  --protocol P ", "  --device D "}},
      {{"--version"}, "corvid " + version, {}},
  };
  for (auto const& c : cases) {
    RUN(r, c.args);
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.err, "");
    EXPECT_TRUE(startsWith(r.out, c.start));
    for (auto const& a : c.accepts) EXPECT_TRUE(has(r.out, a)) << a;
  }
}

TEST_F(CorvidTool, BadCommandLines_ExitTwoWithTheReasonAndUsage_BadHexOrDevicesOneWithTheReasonAlone) {
  struct {
    std::vector<std::string> args;
    char const* message;  // must appear on stderr
    int status = 2;
  } const cases[] = {
      {{}, "missing command"},
      {{"frobnicate"}, "unknown command 'frobnicate'"},
      {{"--frob"}, "unknown option '--frob'"},
      {{"Value", "ipv4", "1.2.3.4"}, "unknown command 'Value'"},
      {{"demo", "extra"}, "demo takes no arguments"},
      {{"value"}, "missing TYPE (one of: "},
      {{"value", "ipv5", "1.2.3.4"}, "unknown TYPE 'ipv5'"},
      {{"value", "ipv4"}, "missing TEXT"},
      {{"packet"}, "missing HEX"},
      {{"capture"}, "missing --intf NAME"},
      {{"capture", "--intf"}, "option '--intf' needs a value"},
      {{"capture", "--intf", "cv0", "--count", "two"}, "option '--count' takes a number, not 'two'"},
      {{"capture", "--intf", "cv0", "extra"}, "unexpected argument 'extra'"},
      {{"send", "00"}, "give exactly one of --intf NAME or --to IPV4"},
      {{"send", "--intf", "cv0"}, "missing HEX bytes to send"},
      {{"send", "--to", "192.0.2.999", "00"}, "--to: Invalid IpAddr"},
      {{"send", "--to", "127.0.0.1", "--protocol", "256", "00"}, "--protocol takes 0 to 255"},
      {{"capture", "--intf", "nosuch0", "--count", "1", "--seconds", "1"},
       "corvid capture: nosuch0: ioctl(SIOCGIFINDEX): No such device\n", 1},
      {{"send", "--intf", "nosuch0", "00"}, "corvid send: ioctl(SIOCGIFINDEX): No such device\n", 1},
      {{"packet", "zz"}, "corvid packet: not a hex digit: 'z'\n", 1},
      {{"packet", "0x00", "00g0"}, "corvid packet: not a hex digit: 'g'\n", 1},
      {{"packet", "000"}, "corvid packet: odd number of hex digits\n", 1},
      {{"packet", "12 3"}, "corvid packet: odd number of hex digits\n", 1},
  };
  for (auto const& c : cases) {
    RUN(r, c.args);
    EXPECT_EQ(r.status, c.status) << c.message;
    EXPECT_EQ(r.out, "") << c.message;
    EXPECT_TRUE(has(r.err, c.message)) << c.message;
    EXPECT_EQ(has(r.err, "usage: corvid "), c.status == 2) << c.message;
  }
}

// ---- value -----------------------------------------------------------------

// Thomas Wang's 32-bit integer hash, written out from its definition.
U32 wang(U32 h) {
  h = h * 32767u - 1u;
  h ^= h >> 12;
  h = h * 5u;
  h ^= h >> 4;
  h = h * 2057u;
  h ^= h >> 16;
  return h;
}

// "0x" and `digits` lower-case hex digits.
std::string hexNum(U32 v, int digits) {
  char buf[16];
  std::snprintf(buf, sizeof buf, "0x%0*x", digits, v);
  return buf;
}

// Every line of a --json run, parsed; a line that is not one JSON object fails.
std::vector<nlohmann::json> jsonLines(std::string const& out) {
  std::vector<nlohmann::json> objects;
  std::istringstream lines(out);
  for (std::string line; std::getline(lines, line);) {
    objects.push_back(nlohmann::json::parse(line, nullptr, false));
    EXPECT_TRUE(objects.back().is_object()) << line;
  }
  return objects;
}

using Members = std::vector<std::pair<char const*, nlohmann::json>>;

// Each (JSON pointer, value) of `expected` holds in `actual`.
void expectMembers(nlohmann::json const& actual, Members const& expected) {
  for (auto const& [at, value] : expected) {
    nlohmann::json::json_pointer const ptr(at);
    ASSERT_TRUE(actual.contains(ptr)) << at << " missing in " << actual.dump();
    EXPECT_EQ(actual.at(ptr), value) << at << " in " << actual.dump();
  }
}

struct ValueCase {
  char const* type;
  std::vector<std::string> texts;  // each gives the same object
  Members expected;                // "/text" and "/strep", "/facts/...", or "/error"
};

// One row per TYPE word at least: the parse rules themselves are the value
// types' own tests; here each word must reach its type and report its facts.
// Hashes are Thomas Wang's hash of the stored words: IpAddr's network-order
// word read as a native (little-endian) integer, Ip6Addr chained over the
// host-order words, EthAddr ((w0 ^ w1) << 16) | w2.
ValueCase const valueCases[] = {
    {"ipv4", {"1.2.3.4", "01.002.3.4"}, {{"/text", "1.2.3.4"}, {"/facts/isUnicast", true}, {"/facts/hash", wang(0x04030201u)}}},
    {"ipv4", {"224.0.0.1"}, {{"/strep", "224.0.0.1"}, {"/facts/mcastEtherAddress", "01:00:5e:00:00:01"}}},
    {"ipv4", {"1.2.3", "1.2.3.4x", ""}, {{"/error", "Invalid IpAddr"}}},
    {"ipv6", {"2001:DB8::1"}, {{"/text", "2001:db8::1"}, {"/facts/expanded", "2001:0db8:0000:0000:0000:0000:0000:0001"},
                               {"/facts/hash", wang(1u ^ wang(0u ^ wang(0u ^ wang(0x20010db8u))))}}},
    {"ipv6", {"1::2::3"}, {{"/error", "Ip6Addr: only one '::' allowed"}}},
    {"ip", {"fe80::1"}, {{"/facts/af", "ipv6"}, {"/facts/isLinkLocal", true}}},
    {"ip", {"::ffff:1.2.3.4"}, {{"/text", "::ffff:1.2.3.4"}, {"/facts/mapped", "1.2.3.4"}}},
    {"ip", {"/8", "abc"}, {{"/error", "Invalid IpGenAddr"}}},
    {"ipv4-prefix", {"10.0.0.0/8"}, {{"/text", "10.0.0.0/8"}, {"/strep", "10.0.0.0/8"}}},
    {"ipv4-with-mask", {"10.0.0.1/40"}, {{"/text", "10.0.0.1/40"}}},
    {"ipv6-prefix", {"2001:db8::"}, {{"/text", "2001:db8::/128"}, {"/facts/isHostRoutePrefix", true}}},
    {"ipv6-with-mask", {"2001:db8::1/64"}, {{"/text", "2001:db8::1/64"}, {"/facts/subnet", "2001:db8::/64"}}},
    {"ip-prefix", {"2001:db8::/32"}, {{"/text", "2001:db8::/32"}, {"/facts/af", "ipv6"}}},
    {"ip-with-mask", {"10.0.0.1/8"}, {{"/text", "10.0.0.1/8"}, {"/facts/subnet", "10.0.0.0/8"}}},
    {"ipv6-full-mask", {"2001:db8::/ffff::ff"}, {{"/text", "2001:db8::/ffff::ff"}, {"/facts/hasPrefixRepr", false}}},
    {"ipv4-full-mask",
     {"Value('Corvid::IpAddrWithFullMask', ** {'address': 1.2.3.4, 'mask': 255})"},
     {{"/strep", "Value('Corvid::IpAddrWithFullMask', ** {'address': 1.2.3.4, 'mask': 255})"}, {"/facts/mask", "255"}}},
    {"ip-full-mask", {"10.0.0.0/24"},
     {{"/text", "10.0.0.0/24"},
      {"/strep", "Value('Corvid::IpGenAddrWithFullMask', ** {'address': 10.0.0.0, 'mask': 255.255.255.0})"}}},
    {"eth", {"00:1c:73:0a:0b:0c", "00-1C-73-0A-0B-0C", "001c.730a.0b0c"},
     {{"/text", "00:1c:73:0a:0b:0c"}, {"/facts/displayString", "001c.730a.0b0c"},
      {"/facts/hash", wang(((0x001cu ^ 0x730au) << 16) | 0x0b0cu)}}},
    {"eui64", {"02:1C:73:FF:FE:0A:0B:0C", "021c.73ff.fe0a.0b0c"}, {{"/text", "02:1c:73:ff:fe:0a:0b:0c"}}},
    {"mpls-label", {"3"}, {{"/text", "3"}, {"/facts/prettyString", "imp-null(3)"}}},
    {"mpls-stack", {"TOP ( ELI EL 100 ) BOTTOM"},
     {{"/text", "TOP ( ELI EL 100 ) BOTTOM"}, {"/facts/calculatedStackSize", "3"},
      {"/strep",
       "Value('Corvid::BoundedMplsLabelStack', ** {'stackSize': 1, 'label0': 100, 'label1': 1048576, 'label2': 1048576, "
       "'label3': 1048576, 'label4': 1048576, 'label5': 1048576, 'label6': 1048576, 'entropyLabelBitMap': 2, "
       "'entropyLabelIndicatorBitMap': 4})"}}},
    {"vrf", {"default"}, {{"/text", "default"}, {"/strep", "'default'"}, {"/facts/isDefault", true}}},
    {"vrf", {"a\xff" "b"}, {{"/text", "a\uFFFD" "b"}}},  // not UTF-8: replaced, not a crash
    {"vni", {"16777215"}, {{"/text", "16777215"}, {"/facts/hex", "0xffffff"}}},
    {"vni-ext", {"2:10000"}, {{"/text", "2:10000"}, {"/facts/domain", "2"}}},
    {"isis-system-id", {"1921.6800.1001"}, {{"/text", "1921.6800.1001"}, {"/facts/isZero", false}}},
    {"isis-system-id", {"1921.68g0.1001"}, {{"/error", "Hex digit expected, but got: 'g'"}}},
    {"isis-lsp-id", {"1921.6800.1001.00-01"}, {{"/text", "1921.6800.1001.00-01"}, {"/facts/lspFragmentId", "1"}}},
    {"isis-area", {"49.0001"}, {{"/text", "49.0001"}, {"/facts/length", "3"}}},
    {"esid", {"03:00:1c:73:0a:0b:0c:00:00:01"}, {{"/text", "03:00:1c:73:0a:0b:0c:00:00:01"}, {"/facts/type", "3"}}},
    {"intf", {"Ethernet1/2"}, {{"/strep", "'Ethernet1/2'"}, {"/facts/shortName", "Et1/2"}}},
};

TEST_F(CorvidTool, ValueJson_ReportsEachTypesTextStrepAndFactsOrTheExactMessage) {
  for (auto const& c : valueCases) {
    for (auto const& text : c.texts) {
      RUN(r, {"value", "--json", c.type, text});
      bool const refused = c.expected.front().first == std::string("/error");
      EXPECT_EQ(r.status, refused ? 1 : 0);
      auto const objects = jsonLines(r.out);
      ASSERT_EQ(objects.size(), 1u);
      // The input as the tool prints it: bytes that are not UTF-8 become U+FFFD.
      auto const input = nlohmann::json::parse(
          nlohmann::json(text).dump(-1, ' ', false, nlohmann::json::error_handler_t::replace));
      expectMembers(objects[0], {{"/type", c.type}, {"/input", input}});
      expectMembers(objects[0], c.expected);
    }
  }
}

// The text form of the same report, several texts in order, one refused.
TEST_F(CorvidTool, ValueText_ReportsEachTextInOrderAndFailsIfAnyFails) {
  RUN(r, {"value", "ipv4", "10.0.0.1", "10.0.0", "224.0.0.1"});
  EXPECT_EQ(r.status, 1);
  std::size_t at = 0;
  for (std::string const& part : {std::string("10.0.0.1\n  text: 10.0.0.1\n  strep: 10.0.0.1\n"), std::string("  isPrivate: true\n"),
                                  "  hash: " + hexNum(wang(0x0100000au), 8) + "\n",
                                  std::string("10.0.0\n  error: Invalid IpAddr\n224.0.0.1\n"),
                                  std::string("  mcastEtherAddress: 01:00:5e:00:00:01\n")}) {
    at = r.out.find(part, at);
    ASSERT_NE(at, std::string::npos) << part;
  }
  EXPECT_EQ(r.err, "corvid value: 10.0.0: Invalid IpAddr\n");
}

TEST_F(CorvidTool, ValueTypeWords_AreExactlyTheTypesTheTableExercises) {
  RUN(r, {"value", "--help"});
  ASSERT_EQ(r.status, 0);
  std::istringstream listing(r.out.substr(r.out.find("TYPE words:\n") + 12));
  std::set<std::string> listed, tested;
  for (std::string line; std::getline(listing, line);) listed.insert(line.substr(2, line.find(' ', 2) - 2));
  for (auto const& c : valueCases) tested.insert(c.type);
  EXPECT_EQ(listed, tested);
  RUN(missing, {"value"});
  for (auto const& type : listed) EXPECT_TRUE(has(missing.err, " " + type)) << type;
}

// ---- packet ----------------------------------------------------------------

// RFC 1071 one's-complement sum over 16-bit big-endian words, folded and complemented.
U16 checksum(std::string const& bytes) {
  U32 sum = 0;
  for (std::size_t i = 0; i < bytes.size(); i += 2) {
    sum += U32(U8(bytes[i])) << 8 | (i + 1 < bytes.size() ? U8(bytes[i + 1]) : 0);
  }
  while (sum >> 16) sum = (sum & 0xffff) + (sum >> 16);
  return static_cast<U16>(~sum & 0xffff);
}

std::string be16(U16 v) { return {static_cast<char>(v >> 8), static_cast<char>(v & 0xff)}; }

// A broadcast Ethernet frame carrying UDP 192.0.2.1:src -> 192.0.2.2:dst over
// IPv4 with a 20-byte payload, both checksums valid.
std::string udpFrame(U16 srcPort = 1234, U16 dstPort = 5678, U16 identification = 1) {
  std::string const addrs("\xc0\x00\x02\x01\xc0\x00\x02\x02", 8);
  std::string ip = std::string("\x45\x00\x00\x30", 4) + be16(identification) +
                   std::string("\x40\x00\x40\x11\x00\x00", 6) + addrs;
  ip.replace(10, 2, be16(checksum(ip)));
  std::string udp = be16(srcPort) + be16(dstPort) + std::string("\x00\x1c\x00\x00", 4) + "corvid test payload!";
  U16 const sum = checksum(addrs + std::string("\x00\x11\x00\x1c", 4) + udp);
  udp.replace(6, 2, be16(sum ? sum : 0xffff));
  return std::string("\xff\xff\xff\xff\xff\xff\x02\x00\x00\x00\x00\x01\x08\x00", 14) + ip + udp;
}

// The frame's IPv4 and UDP header checksums.
U16 wordAt(std::string const& f, std::size_t at) { return static_cast<U16>(U8(f[at]) << 8 | U8(f[at + 1])); }
U16 ipChecksum(std::string const& frame) { return wordAt(frame, 24); }
U16 udpChecksum(std::string const& frame) { return wordAt(frame, 40); }

std::string toHex(std::string const& bytes) {
  std::string s;
  for (char c : bytes) s += hexNum(U8(c), 2).substr(2);
  return s;
}

struct PacketCase {
  char const* what;
  std::string frame;
  int status;
  std::vector<std::string> expected;  // each must appear on stdout
  Members json = {};                  // each must hold in the --json object
  std::vector<std::string> spelled = {};  // the HEX words, when not the frame's plain hex
};

TEST_F(CorvidTool, Packet_DecodesEveryHexSpellingAndGivesChecksumAndSanityVerdictsAsTextAndJson) {
  std::string const good = udpFrame();
  std::string badIp = good, badUdp = good, noUdpChecksum = good;
  badIp[14 + 10] ^= 0x5a;
  badUdp[34 + 6] ^= 0x01;
  noUdpChecksum[34 + 6] = noUdpChecksum[34 + 7] = 0;
  std::string const ipSum = hexNum(ipChecksum(good), 4), udpSum = hexNum(udpChecksum(good), 4);
  std::string const ipLine = " src=192.0.2.1 dst=192.0.2.2 checksum=" + ipSum;
  std::vector<std::string> const valid = {
      "frame: 62 bytes\n",
      "ethernet @0: dst=ff:ff:ff:ff:ff:ff src=02:00:00:00:00:01 ethType=0x0800\n",
      "ipv4 @14: version=4 headerLength=5 tos=0 totalLength=48 identification=1 df=1 mf=0 fragmentOffset=0 "
      "ttl=64 protocol=17",
      ipLine + " (valid)\n",
      "udp @34: srcPort=1234 dstPort=5678 length=28 checksum=" + udpSum + " (valid)\n",
      "payload @42: 20 bytes (udp data)\n",
      "checkEthIpHdr: 0 (noError)\n"};
  std::string const hex = toHex(good);
  std::string colons;
  for (std::size_t i = 0; i < hex.size(); i += 2) colons.append(i ? ":" : "").append(hex, i, 2);

  PacketCase const cases[] = {
      {"a valid UDP/IPv4 frame", good, 0, valid,
       {{"/bytes", 62}, {"/valid", true}, {"/headers/0/header", "ethernet"}, {"/headers/0/ethType", "0x0800"},
        {"/headers/1/offset", 14}, {"/headers/1/ttl", 64}, {"/headers/1/df", true}, {"/headers/1/src", "192.0.2.1"},
        {"/headers/1/checksumValid", true}, {"/headers/2/header", "udp"}, {"/headers/2/dstPort", 5678},
        {"/headers/3/note", "payload @42: 20 bytes udp data"}, {"/checks/checkEthIpHdr", "noError"}}},
      {"a corrupted IPv4 header checksum", badIp, 1,
       {"checksum=" + hexNum(ipChecksum(badIp), 4) + " (invalid, computed " + ipSum + ")\n",
        "checkEthIpHdr: -50 (badIpHdrChecksum)\n"}},
      {"a corrupted UDP checksum", badUdp, 1,
       {"checksum=" + hexNum(udpChecksum(badUdp), 4) + " (invalid, computed " + udpSum + ")\n",
        "checkEthIpHdr: 0 (noError)\n"},
       {{"/valid", false}, {"/headers/2/checksumValid", false},
        {"/headers/2/checksumComputed", udpSum}}},
      {"a UDP checksum of zero (none computed)", noUdpChecksum, 0, {"length=28 checksum=none\n"}},
      {"a frame cut inside the IPv4 header", good.substr(0, 30), 1,
       {"truncated: ipv4 needs 20 bytes at @14, 16 left\n", "checkEthIpHdr: -1 (pktTooShort)\n"},
       {{"/headers/1/note", "truncated: ipv4 needs 20 bytes at @14, 16 left"}, {"/checks/checkEthIpHdr", "pktTooShort"}}},
      {"a frame cut inside the UDP header", good.substr(0, 40), 1,
       {ipLine + " (valid)\n", "note: total length runs past the frame\n",
        "truncated: udp needs 8 bytes at @34, 6 left\n", "checkEthIpHdr: -51 (badIpPayloadLen)\n"}},
      {"an empty frame", "", 1, {"frame: 0 bytes\n", "truncated: ethernet needs 14 bytes at @0, 0 left\n"}},
      {"0x-prefixed hex", good, 0, valid, {}, {"0x" + hex}},
      {"colon-separated hex", good, 0, valid, {}, {colons}},
      {"hex in three words", good, 0, valid, {}, {hex.substr(0, 28), "0X" + hex.substr(28, 40), hex.substr(68)}},
      {"dotted and dashed hex", good, 0, valid, {}, {"ffff.ffff.ffff-0200.0000.0001-" + hex.substr(24)}},
  };
  for (auto const& c : cases) {
    std::vector<std::string> args = {"packet"};
    if (c.spelled.empty()) args.push_back(toHex(c.frame));
    args.insert(args.end(), c.spelled.begin(), c.spelled.end());
    RUN(r, args);
    EXPECT_EQ(r.status, c.status) << c.what;
    EXPECT_EQ(r.err, "") << c.what;
    for (auto const& e : c.expected) EXPECT_TRUE(has(r.out, e)) << c.what << ": " << e;
    if (c.json.empty()) continue;
    RUN(j, {"packet", "--json", toHex(c.frame)});
    EXPECT_EQ(j.status, c.status) << c.what;
    auto const objects = jsonLines(j.out);
    ASSERT_EQ(objects.size(), 1u) << c.what;
    expectMembers(objects[0], c.json);
  }
}

// ---- capture and send, inside a private network namespace --------------------

// stderr less the line the raw-socket manager writes when it goes away.
std::string diagnostics(std::string err) {
  std::string const managerGone = "in RawSocket::~Manager()\n";
  for (std::size_t at; (at = err.find(managerGone)) != std::string::npos;) err.erase(at, managerGone.size());
  return err;
}

// Whether a packet socket is bound to the interface, as ss lists them in
// this thread's namespace.
bool packetSocketBoundTo(std::string const& intf) { return has(CorvidTest::shOutput("ss -0n"), ":" + intf + " "); }

class CorvidToolInNamespace : public CorvidTool {
 protected:
  void SetUp() override {
    CorvidTool::SetUp();
    if (HasFatalFailure()) return;
    CORVID_REQUIRE_NETNS(ns_);
    ASSERT_TRUE(ns_.vethPair("cv0", "cv1"));
  }
  CorvidTest::NetnsScope ns_;
};

// The frames' text lines are the packet command's (tested above); the
// capture's own text lines are checked without traffic below.
TEST_F(CorvidToolInNamespace, SendAndCapture_RoundTripTwoFramesOverAVethPair) {
  ToolProcess capture({"capture", "--json", "--intf", "cv0", "--count", "2", "--seconds", "5"});
  ASSERT_TRUE(capture.started());
  // Frames sent before the capture binds its socket would be lost.
  for (int i = 0; i < 200 && !packetSocketBoundTo("cv0"); ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  ASSERT_TRUE(packetSocketBoundTo("cv0")) << shown(capture.finish(1));
  for (auto const& frame : {udpFrame(1111, 2222), udpFrame(3333, 4444, 2)}) {
    RUN(sent, {"send", "--intf", "cv1", toHex(frame)});
    EXPECT_EQ(sent.status, 0);
    EXPECT_EQ(sent.out, "sent 62 bytes\n");
    EXPECT_EQ(diagnostics(sent.err), "");
  }
  ToolResult const r = capture.finish(10);
  SCOPED_TRACE(shown(r));
  ASSERT_FALSE(r.timedOut);
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(diagnostics(r.err), "");
  auto const events = jsonLines(r.out);
  ASSERT_EQ(events.size(), 4u);
  expectMembers(events[0], {{"/event", "start"}, {"/intf", "cv0"}});
  expectMembers(events[1], {{"/event", "frame"}, {"/frame", 1}, {"/bytes", 62}, {"/headers/2/srcPort", 1111}});
  expectMembers(events[2], {{"/frame", 2}, {"/headers/1/identification", 2}, {"/headers/2/checksumValid", true}});
  expectMembers(events[3], {{"/event", "end"}, {"/frames", 2}, {"/rxErrors", 0}});
}

TEST_F(CorvidToolInNamespace, CaptureWithoutTraffic_StopsWhenItsSecondsRunOut) {
  auto const start = std::chrono::steady_clock::now();
  RUN(r, {"capture", "--intf", "cv0", "--count", "1", "--seconds", "1"}, 10);
  EXPECT_GE(std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count(), 0.9);
  EXPECT_FALSE(r.timedOut);
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, "capturing IPv4 frames on cv0\n0 frames\n");
}

TEST_F(CorvidToolInNamespace, SendTo_DeliversThePayloadToAnIndependentRawReceiver) {
  int const rx = socket(AF_INET, SOCK_RAW | SOCK_CLOEXEC, 253);
  ASSERT_GE(rx, 0);
  timeval tv{2, 0};
  setsockopt(rx, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
  RUN(r, {"send", "--to", "127.0.0.1", "--protocol", "253", "636f72766964"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, "sent 6 bytes\n");
  EXPECT_EQ(diagnostics(r.err), "");
  char buf[256];
  ssize_t const n = recv(rx, buf, sizeof buf, 0);
  close(rx);
  ASSERT_EQ(n, 26) << "a raw IPv4 socket receives the IP header and the payload";
  EXPECT_EQ(std::string(buf + 20, 6), "corvid");
  EXPECT_EQ(U8(buf[9]), 253);
}

// What one tour made, by its name (its pid): scratch namespaces and tables.
bool demoLeftovers(pid_t pid) {
  return has(CorvidTest::shOutput("ip netns list; ls /dev/shm"), "corvid-demo-" + std::to_string(pid));
}

// As the caller and, when that is root, as user nobody (setpriv execs the
// tool, so the pid is the tour's): the steps that need root run or say why not.
TEST_F(CorvidTool, Demo_RunsEveryStepItMayAndLeavesNothingBehind) {
  bool const root = geteuid() == 0;
  for (bool const nobody : {false, true}) {
    if (nobody && (!root || access("/usr/bin/setpriv", X_OK) != 0)) continue;
    SCOPED_TRACE(nobody ? "as nobody" : "as the caller");
    bool const privileged = root && !nobody;
    std::vector<std::string> args = {"demo"};
    if (nobody) args = {"--reuid=65534", "--regid=65534", "--clear-groups", CorvidTest::corvidBinary(), "demo"};
    ToolProcess tool(args, nobody ? "/usr/bin/setpriv" : CorvidTest::corvidBinary());
    pid_t const pid = tool.pid();
    ToolResult const r = tool.finish(60);
    SCOPED_TRACE(shown(r));
    EXPECT_EQ(r.status, 0);
    for (char const* step : {"$ corvid value ip 10.1.2.3", "  error: Invalid Prefix", "checkEthIpHdr: 0 (noError)\n",
                             "  values: ok\n", "  packets: ok\n"}) {
      EXPECT_TRUE(has(r.out, step)) << step;
    }
    for (char const* step : {"the kernel namespace list saw it appear", "watcher: neigh add", "received 3 on veth0",
                             "vrf blue veth1 192.0.2.8", "done sent=3 echoed=3"}) {
      EXPECT_EQ(has(r.out, step), privileged) << step;
    }
    for (std::string subsystem : {"TCP and PDUs", "namespaces", "endpoints", "shared tables, neighbours"}) {
      EXPECT_TRUE(has(r.out, "  " + subsystem + (privileged ? ": ok\n" : ": skipped (needs root)\n"))) << subsystem;
    }
    EXPECT_FALSE(demoLeftovers(pid));
  }
}

TEST_F(CorvidTool, Demo_InterruptedRemovesWhatItMade) {
  if (geteuid() != 0) GTEST_SKIP() << "the steps that make things need root";
  CorvidTest::ToolProcess tool({"demo"});
  ASSERT_TRUE(tool.started());
  pid_t const pid = tool.pid();
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  tool.signal(SIGINT);
  auto const r = tool.finish(30);
  EXPECT_FALSE(r.timedOut);
  EXPECT_TRUE(r.status == 130 || r.status == 0) << r.status;  // 0 when the tour finished first
  EXPECT_FALSE(demoLeftovers(pid));
}

}  // namespace
