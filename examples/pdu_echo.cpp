// A PDU echo on 127.0.0.1, both ends on one activity loop: a TcpServerSm
// accepts, a TcpClientSm connects, each connection is a SimpleTcpPduPam (a
// 20-byte header whose bytes 2-3 give the PDU length), the server sends each
// PDU back. Run it: pdu_echo [PORT [COUNT]]   (defaults: 7179, 3)
#include <Brio/ActivityManager.h>
#include <Corvid/SimpleTcpPduPam.h>
#include <Corvid/TcpClientServer.h>

#include <cstdlib>
#include <iostream>
#include <string>

using namespace Corvid;

// One connection's PDU endpoint: the server's end echoes, the client's prints.
struct Connection : TcpPduPam::Notifiee {
  Connection(TcpConnSocket const& conn, bool echo)
      : pam(simpleTcpPduPamFactory(conn.fileDescriptor(), tcpFileDescriptorEventRegistrationFactoryBrioc())),
        echo(echo) {
    notifierIs(pam.ptr());
    pam->enabledIs(true);
  }
  ~Connection() override {
    notifierIs(nullptr);
    pam->cleanup();
  }
  void handleReadableCount() override {
    while (Brio::Ptr<Pkt> pdu = pam->rxPkt()) {
      if (echo && pam->writable()) pam->txPktIs(pdu);  // a real server queues it until writable
      if (!echo) std::cout << "echo " << ++received << ": " << pdu->bytes() << " bytes, body '"
                           << pdu->stringValue().str().substr(SimpleTcpPduPam::headerLength) << "'\n";
    }
  }
  Brio::Ptr<SimpleTcpPduPam> pam;
  bool echo;
  int received = 0;
};

int main(int argc, char** argv) {
  Port const port(static_cast<U16>(argc > 1 ? std::atoi(argv[1]) : 7179));
  int const count = argc > 2 ? std::atoi(argv[2]) : 3;
  auto fail = [](auto const& why) { std::cerr << "pdu_echo: " << why << "\n"; return 1; };
  Brio::ActivityManager loop;
  auto regs = tcpFileDescriptorEventRegistrationFactoryBrioc();
  auto wheel = Quay::TimerWheel::timerWheelFactory();
  IpGenAddr const loopback(IpAddr(127, 0, 0, 1));
  auto serverStatus = tcpServerStatusFactory();  // its queue holds the accepted connections
  auto server = tcpServerSmFactory(regs, wheel, tcpServerConfigFactory(loopback, port), serverStatus);
  if (!server->startListener()) return fail(serverStatus->reason());
  auto clientStatus = tcpClientStatusFactory();
  auto client = tcpClientSmFactory(regs, wheel, 1, tcpClientConfigFactory(loopback, port), clientStatus);
  client->startConnection();  // retries by itself until connected
  auto connected = [&] { return clientStatus->connectionStatus() == TcpClientStatus::ConnectionStatus::connected_; };
  if (!loop.runUntil(connected, 5)) return fail(clientStatus->reason());
  std::cout << "client connected " << clientStatus->connSocket().toStrep() << "\n";
  loop.runUntil([&] { return serverStatus->connSockets() > 0; }, 5);  // a real server follows handleConnSocket
  TcpConnSocket const accepted = serverStatus->getConnSocket();
  if (!accepted) return fail("nothing accepted");
  std::cout << "server accepted " << accepted.toStrep() << "\n";

  Connection echoer(accepted, true), conn(clientStatus->connSocket(), false);
  for (int i = 1; i <= count; ++i) {
    std::string bytes = std::string(SimpleTcpPduPam::headerLength, '\0') + "pdu " + std::to_string(i);
    SimpleTcpPduPam::pduLengthIs(reinterpret_cast<U8*>(bytes.data()), static_cast<U16>(bytes.size()));
    Brio::Ptr<Pkt> pdu = globalPktManager()->newPkt();
    pdu->stringValueIs(Brio::String(bytes));
    conn.pam->txPktIs(pdu);  // one small PDU at a time, so the endpoint is writable again
    if (!loop.runUntil([&] { return conn.received == i; }, 5)) return fail("no echo");
  }
  client->cleanup();
  server->cleanup();
  return 0;
}
