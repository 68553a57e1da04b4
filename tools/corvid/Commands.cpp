#include "Command.h"

namespace CorvidTool {

int captureCommand(Args const& args, std::ostream& out, std::ostream& err);
int sendCommand(Args const& args, std::ostream& out, std::ostream& err);
int demoCommand(Args const& args, std::ostream& out, std::ostream& err);
int valueCommand(Args const& args, std::ostream& out, std::ostream& err);
int packetCommand(Args const& args, std::ostream& out, std::ostream& err);
int pduCommand(Args const& args, std::ostream& out, std::ostream& err);

std::vector<Command> const& commands() {
  static std::vector<Command> const table = {
      {"demo", "demo", "a short tour of the library: values, packets, endpoints", demoCommand},
      {"value", "value TYPE TEXT...",
       "parse each TEXT as a TYPE and print its canonical text, strep, predicates and hash", valueCommand},
      {"packet", "packet HEX...", "decode an Ethernet frame given as hex: headers, checksums and sanity checks", packetCommand},
      {"capture", "capture --intf NAME [--count N] [--seconds S]",
       "receive IPv4 frames on an interface through the Ethernet-device endpoint and decode each", captureCommand},
      {"send", "send (--intf NAME | --to IPV4 [--protocol P] [--device D]) HEX...",
       "send a frame on an interface, or an IPv4 payload through a raw IP socket", sendCommand},
      {"pdu", "pdu (serve --listen ADDR:PORT | send --to ADDR:PORT [--count N] [--size B]) [--ns NAME] [--md5 PEER/LEN=KEY] [--json]",
       "echo PDUs over TCP (serve), or send PDUs and check their echo (send), with optional MD5 keys", pduCommand},
  };
  return table;
}

}  // namespace CorvidTool
