// The README's responder example, run as an agent would be: a separate
// process on one end of a veth pair, answering frames sent into the other.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "support/NetnsScope.h"
#include "support/PacketPeer.h"
#include "tools/ToolProcess.h"

namespace {

TEST(ResponderExample, AnswersAFrameWithTheAddressesSwapped) {
  CorvidTest::NetnsScope ns;
  CORVID_REQUIRE_NETNS(ns);
  ASSERT_TRUE(ns.vethPair("cv0", "cv1"));
  CorvidTest::ToolProcess responder({"cv0", "1"}, CorvidTest::buildDir() + "/examples/responder");
  ASSERT_TRUE(responder.started());
  CorvidTest::PacketPeer peer("cv1");
  std::string frame = CorvidTest::ipv4Frame("ping-responder");
  frame.replace(0, 6, "\x02\x00\x00\x00\x00\x02", 6);  // unicast, so the reply is recognisable
  std::string expected = frame;
  std::swap_ranges(expected.begin(), expected.begin() + 6, expected.begin() + 6);
  std::string reply;
  for (int attempt = 0; attempt < 20 && reply.empty(); ++attempt) {
    peer.send(frame);  // the responder may not be listening yet
    std::string got = peer.receiveContaining("ping-responder", 3);
    while (!got.empty() && got != expected) got = peer.receiveContaining("ping-responder", 3);
    reply = got;
  }
  EXPECT_EQ(reply, expected);
  auto const r = responder.finish(5);
  EXPECT_FALSE(r.timedOut) << "responder did not stop after answering";
  EXPECT_EQ(r.status, 0) << r.err;
}

}  // namespace
