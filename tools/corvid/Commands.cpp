#include "Command.h"

namespace CorvidTool {

int captureCommand(Args const& args, std::ostream& out, std::ostream& err);
int sendCommand(Args const& args, std::ostream& out, std::ostream& err);
int demoCommand(Args const& args, std::ostream& out, std::ostream& err);
int valueCommand(Args const& args, std::ostream& out, std::ostream& err);
int packetCommand(Args const& args, std::ostream& out, std::ostream& err);
int tablesCommand(Args const& args, std::ostream& out, std::ostream& err);
int vrfCommand(Args const& args, std::ostream& out, std::ostream& err);
int watchCommand(Args const& args, std::ostream& out, std::ostream& err);
int arpCommand(Args const& args, std::ostream& out, std::ostream& err);
int netnsCommand(Args const& args, std::ostream& out, std::ostream& err);
int pduCommand(Args const& args, std::ostream& out, std::ostream& err);
void valueHelp(std::ostream& out);
void packetHelp(std::ostream& out);
void captureHelp(std::ostream& out);
void sendHelp(std::ostream& out);

bool jsonFlagTake(Args& args) {
  auto const n = std::erase(args, "--json");
  return n != 0;
}

std::vector<Command> const& commands() {
  static std::vector<Command> const table = {
      {"demo", "demo", "a tour of every subsystem on this machine's kernel, removing whatever it made", demoCommand},
      {"value", "value [--json] TYPE TEXT...",
       "parse each TEXT as a TYPE and print its canonical text, strep, predicates and hash", valueCommand,
       valueHelp},
      {"packet", "packet [--json] HEX...", "decode an Ethernet frame given as hex: headers, checksums and sanity checks",
       packetCommand, packetHelp},
      {"capture", "capture [--json] --intf NAME [--count N] [--seconds S]",
       "receive IPv4 frames on an interface through the Ethernet-device endpoint and decode each", captureCommand,
       captureHelp},
      {"send", "send (--intf NAME | --to IPV4 [--protocol P] [--device D]) HEX...",
       "send a frame on an interface, or an IPv4 payload through a raw IP socket", sendCommand, sendHelp},
      {"vrf", "vrf (add NAME | del NAME | list) [--json] [--table PATH]",
       "name or release a VRF in the shared VRF id map, or list the map", vrfCommand},
      {"tables", "tables (dump PATH | watch PATH [--seconds S]) [--json]",
       "print a shared table under SHOAL_ROOT, or follow it and print every change", tablesCommand},
      {"watch", "watch [--ns NAME] [--links] [--addrs] [--neigh] [--seconds S] [--json]",
       "dump a namespace's links, addresses and neighbours, then print every change until Ctrl-C or --seconds",
       watchCommand},
      {"arp", "arp (dump | watch [--seconds S]) [--table PATH] [--json] | arp (add6 ADDR MAC | del6 ADDR) --dev DEV [--ns NS] [--state S]",
       "print or follow the shared neighbour table, or install and remove IPv6 neighbours in the kernel", arpCommand},
      {"netns", "netns (list [--json] | add NAME | del NAME)",
       "list, create or delete named network namespaces (the ones `ip netns` uses)", netnsCommand},
      {"pdu", "pdu (serve --listen ADDR:PORT | send --to ADDR:PORT [--count N] [--size B]) [--ns NAME] [--md5 PEER/LEN=KEY] [--json]",
       "echo PDUs over TCP (serve), or send PDUs and check their echo (send), with optional MD5 keys", pduCommand},
  };
  return table;
}

}  // namespace CorvidTool
