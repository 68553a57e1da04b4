#!/usr/bin/env python3
"""Frames built and read by scapy, the independent side of PktScapyTest.

  scapy_frames.py build
      Prints one line per frame scapy builds:
        NAME HEX LAYER@OFFSET:key=value,key=value ...
      LAYER names the header wrapper the test binds at OFFSET; the keys are
      the wrapper's accessor names, the values what scapy decodes (numbers in
      decimal, addresses in their usual text). checksumOk=1/0 is scapy's own
      verdict: the layer's checksum rebuilt from scratch equals the one on
      the wire.

  scapy_frames.py check FILE
      Reads lines  NAME HEX Class[n].field=value ...  written by the test from
      frames the wrappers built, decodes each with scapy, compares the fields
      and verifies every checksum in the frame. Prints "ok NAME" or
      "FAIL NAME: reason" per line.
"""

import sys
import warnings

warnings.filterwarnings("ignore")
import logging

logging.getLogger("scapy.runtime").setLevel(logging.ERROR)

from scapy.all import ARP, ICMP, IP, TCP, UDP, Dot1AD, Dot1Q, Ether, GRE, Raw  # noqa: E402
from scapy.layers.inet import IPOption_Router_Alert  # noqa: E402
from scapy.layers.inet6 import (  # noqa: E402
    ICMPv6EchoRequest,
    ICMPv6ND_NA,
    ICMPv6ND_NS,
    ICMPv6ND_RA,
    ICMPv6ND_RS,
    ICMPv6NDOptDNSSL,
    ICMPv6NDOptMTU,
    ICMPv6NDOptPrefixInfo,
    ICMPv6NDOptRDNSS,
    ICMPv6NDOptRouteInfo,
    ICMPv6NDOptSrcLLAddr,
    ICMPv6NDOptDstLLAddr,
    ICMPv6PacketTooBig,
    IPv6,
    IPv6ExtHdrHopByHop,
    RouterAlert,
    PadN,
)
from scapy.layers.sctp import SCTP  # noqa: E402
from scapy.layers.vxlan import VXLAN  # noqa: E402
from scapy.contrib.igmp import IGMP  # noqa: E402
from scapy.contrib.mpls import MPLS  # noqa: E402

MAC_A = "02:00:00:00:00:0a"
MAC_B = "02:00:00:00:00:0b"
V4_A, V4_B = "192.0.2.1", "198.51.100.7"
V6_A, V6_B = "2001:db8::1", "2001:db8:0:1::2"
LL_A = "fe80::200:ff:fe00:a"


def eth(t=None):
    return Ether(src=MAC_A, dst=MAC_B) if t is None else Ether(src=MAC_A, dst=MAC_B, type=t)


def boot_option(url, lifetime=60):
    """The network boot option (experimental type 253): lifetime and a NUL-padded URL."""
    body = b"\x00\x00" + lifetime.to_bytes(4, "big") + url.encode()
    body += b"\x00" * ((-(len(body) + 2)) % 8)
    return Raw(bytes([253, (len(body) + 2) // 8]) + body)


def scapy_frames():
    """The frames scapy builds, by name. Checksums are scapy's unless a frame corrupts one."""
    payload_odd = b"odd-length payload!"  # 19 bytes
    f = {}
    f["ip4_tcp_syn_ack"] = eth() / IP(src=V4_A, dst=V4_B, tos=0xB8, id=0x1234, flags="DF", ttl=17) / TCP(
        sport=40000, dport=179, seq=0xDEADBEEF, ack=0x01020304, flags="SA", window=65535, urgptr=7) / b"abc"
    f["ip4_tcp_options"] = eth() / IP(src=V4_A, dst=V4_B) / TCP(
        sport=1, dport=2, flags="S", options=[("MSS", 1460), ("NOP", None), ("WScale", 7)])
    f["ip4_fragment"] = eth() / IP(src=V4_A, dst=V4_B, flags="MF", frag=185, proto=17) / payload_odd
    f["ip4_udp_odd"] = eth() / IP(src=V4_A, dst=V4_B) / UDP(sport=5353, dport=53) / payload_odd
    f["ip4_udp_empty"] = eth() / IP(src=V4_A, dst=V4_B) / UDP(sport=7, dport=9)
    f["ip4_udp_max"] = eth() / IP(src=V4_A, dst=V4_B) / UDP(sport=1, dport=2) / bytes(
        (i * 7) & 0xFF for i in range(65535 - 28))
    f["ip4_options_router_alert"] = eth() / IP(src=V4_A, dst="224.0.0.22", options=[IPOption_Router_Alert()]) / IGMP(
        type=0x16, gaddr="239.1.2.3")
    f["ip4_icmp_echo"] = eth() / IP(src=V4_A, dst=V4_B) / ICMP(type=8, id=0x4242, seq=3) / payload_odd
    f["ip4_igmp_v2"] = eth() / IP(src=V4_A, dst="224.0.0.1", ttl=1) / IGMP(type=0x11, mrcode=100, gaddr="0.0.0.0")
    f["dot1q_ip4_udp"] = eth() / Dot1Q(prio=5, id=1, vlan=100) / IP(src=V4_A, dst=V4_B) / UDP(sport=1000, dport=2000) / b"x"
    f["qinq_ip6_udp"] = eth() / Dot1AD(prio=3, vlan=10) / Dot1Q(vlan=4094) / IPv6(src=V6_A, dst=V6_B) / UDP(
        sport=3000, dport=4000) / payload_odd
    f["arp_reply"] = eth() / ARP(op=2, hwsrc=MAC_A, psrc=V4_A, hwdst=MAC_B, pdst=V4_B)
    f["mpls_two_labels"] = eth() / MPLS(label=16, cos=5, s=0, ttl=64) / MPLS(label=1048575, cos=0, s=1, ttl=1) / IP(
        src=V4_A, dst=V4_B) / UDP(sport=1, dport=2)
    f["gre_csum_key_seq"] = eth() / IP(src=V4_A, dst=V4_B) / GRE(
        chksum_present=1, key_present=1, key=0xABCDEF01, seqnum_present=1, sequence_number=77) / IP(
        src="10.0.0.1", dst="10.0.0.2") / ICMP(type=0, id=1, seq=2) / b"pong"
    f["vxlan"] = eth() / IP(src=V4_A, dst=V4_B) / UDP(sport=49152, dport=4789) / VXLAN(flags=0x08, vni=0x123456) / Ether(
        src=MAC_B, dst=MAC_A) / IP(src="10.1.1.1", dst="10.1.1.2") / UDP(sport=5, dport=6) / b"inner"
    f["sctp"] = eth() / IP(src=V4_A, dst=V4_B) / SCTP(sport=2905, dport=2905, tag=0x11223344)
    f["ip6_tcp"] = eth() / IPv6(src=V6_A, dst=V6_B, tc=0x2E, fl=0xABCDE, hlim=3) / TCP(sport=22, dport=50000, flags="PA") / payload_odd
    f["ip6_udp_max"] = eth() / IPv6(src=V6_A, dst=V6_B) / UDP(sport=1, dport=2) / bytes(
        (i * 13) & 0xFF for i in range(65535 - 8))
    f["ip6_hbh_router_alert_udp"] = eth() / IPv6(src=LL_A, dst="ff02::16") / IPv6ExtHdrHopByHop(
        options=[RouterAlert(value=0), PadN(optdata=b"")]) / UDP(sport=1, dport=2) / b"mld"
    f["ns_slla"] = eth() / IPv6(src=LL_A, dst="ff02::1:ff00:1", hlim=255) / ICMPv6ND_NS(tgt=V6_A) / ICMPv6NDOptSrcLLAddr(
        lladdr=MAC_A)
    f["na_tlla"] = eth() / IPv6(src=V6_A, dst=LL_A, hlim=255) / ICMPv6ND_NA(R=1, S=1, O=0, tgt=V6_A) / ICMPv6NDOptDstLLAddr(
        lladdr=MAC_B)
    f["rs_slla"] = eth() / IPv6(src=LL_A, dst="ff02::2", hlim=255) / ICMPv6ND_RS() / ICMPv6NDOptSrcLLAddr(lladdr=MAC_A)
    f["ra_every_option"] = eth() / IPv6(src=LL_A, dst="ff02::1", hlim=255) / ICMPv6ND_RA(
        chlim=64, M=1, O=0, prf=3, routerlifetime=1800, reachabletime=30000, retranstimer=1000) / ICMPv6NDOptSrcLLAddr(
        lladdr=MAC_A) / ICMPv6NDOptMTU(mtu=9000) / ICMPv6NDOptPrefixInfo(
        prefixlen=64, L=1, A=0, validlifetime=86400, preferredlifetime=14400, prefix="2001:db8:5::") / ICMPv6NDOptRouteInfo(
        len=1, plen=0, prf=1, rtlifetime=600) / ICMPv6NDOptRouteInfo(
        len=2, plen=48, prf=3, rtlifetime=700, prefix="2001:db8:7::") / ICMPv6NDOptRouteInfo(
        plen=100, prf=0, rtlifetime=800, prefix="2001:db8:9:1:2:3:4:0") / ICMPv6NDOptRDNSS(
        lifetime=300, dns=["2001:db8::53", "2001:db8::54"]) / ICMPv6NDOptDNSSL(
        lifetime=400, searchlist=["example.com", "lab.corp"]) / boot_option("http://boot.example/img")
    f["echo_request_odd"] = eth() / IPv6(src=V6_A, dst=V6_B) / ICMPv6EchoRequest(id=0x99, seq=0x1001, data=payload_odd)
    f["packet_too_big"] = eth() / IPv6(src=V6_A, dst=V6_B) / ICMPv6PacketTooBig(mtu=1280) / bytes(range(48))
    # Corrupted on purpose: scapy and the wrappers must both call them invalid.
    f["bad_ip4_header_checksum"] = eth() / IP(src=V4_A, dst=V4_B, chksum=0x1234) / UDP(sport=1, dport=2)
    f["bad_tcp_checksum"] = eth() / IP(src=V4_A, dst=V4_B) / TCP(sport=1, dport=2, chksum=0xBEEF)
    f["bad_udp6_checksum"] = eth() / IPv6(src=V6_A, dst=V6_B) / UDP(sport=1, dport=2, chksum=0x0102) / b"zz"
    f["bad_icmp6_checksum"] = eth() / IPv6(src=LL_A, dst="ff02::1") / ICMPv6ND_NS(tgt=V6_A, cksum=0x4321)
    return f


def checksum_ok(raw, cls, nb, field):
    """Whether scapy, rebuilding the checksum of the nb-th cls layer, finds the one on the wire."""
    p = Ether(raw)
    layer = p.getlayer(cls, nb)
    wire = getattr(layer, field)
    setattr(layer, field, None)
    rebuilt = Ether(bytes(p)).getlayer(cls, nb)
    return int(getattr(rebuilt, field) == wire)


def describe(raw):
    """LAYER@OFFSET:fields tokens for every header of the decoded frame."""
    p = Ether(raw)
    tokens = []
    counts = {}
    layer = p
    while layer is not None and layer.name != "Padding":
        if isinstance(layer, Raw):
            # scapy leaves options it does not know as raw bytes behind the last one it does.
            data = bytes(layer)
            if len(data) >= 8 and data[0] == 253 and "Option" in layer.underlayer.name:
                yield_boot = ("networkBoot", len(raw) - len(data), [
                    ("type", data[0]), ("length", data[1]), ("lifetime", int.from_bytes(data[4:8], "big")),
                    ("bootUrl", data[8:data[1] * 8].split(b"\x00")[0].decode())])
                tokens.append("%s@%d:%s" % (yield_boot[0], yield_boot[1], ",".join("%s=%s" % kv for kv in yield_boot[2])))
            break
        cls = type(layer)
        counts[cls] = counts.get(cls, 0) + 1
        nb = counts[cls]
        off = len(raw) - len(bytes(layer))
        for name, o, fields in decode(raw, layer, cls, nb, off):
            tokens.append("%s@%d:%s" % (name, o, ",".join("%s=%s" % kv for kv in fields)))
        layer = layer.payload if layer.payload else None
    return tokens


def b(v):
    return str(int(bool(v)))


def decode(raw, L, cls, nb, off):
    if cls is Ether:
        yield "eth", off, [("dst", L.dst), ("src", L.src), ("ethType", L.type)]
    elif cls in (Dot1Q, Dot1AD):
        yield "vlan", off, [("priority", L.prio), ("cfi", L.id), ("vlanId", L.vlan), ("ethType", L.type)]
    elif cls is IP:
        yield "ip", off, [("version", L.version), ("headerLength", L.ihl), ("tos", L.tos), ("totalLength", L.len),
                          ("identification", L.id), ("dontFragment", b(L.flags.DF)), ("moreFragments", b(L.flags.MF)),
                          ("fragmentOffset", L.frag), ("ttl", L.ttl), ("protocol", L.proto), ("checksum", L.chksum),
                          ("src", L.src), ("dst", L.dst), ("checksumOk", checksum_ok(raw, cls, nb, "chksum"))]
    elif cls is IPv6:
        yield "ip6", off, [("version", L.version), ("trafficClass", L.tc), ("flowLabel", L.fl),
                           ("payloadLength", L.plen), ("nextHeader", L.nh), ("hopLimit", L.hlim), ("src", L.src),
                           ("dst", L.dst)]
    elif cls is IPv6ExtHdrHopByHop:
        o = off + 2
        for opt in L.options:
            if isinstance(opt, RouterAlert):
                yield "routerAlert", o, [("type", opt.otype), ("length", opt.optlen), ("value", opt.value)]
            o += len(bytes(opt))
    elif cls is TCP:
        yield "tcp", off, [("srcPort", L.sport), ("dstPort", L.dport), ("seqNum", L.seq), ("ackNum", L.ack),
                           ("dataOffset", L.dataofs), ("flags", int(L.flags)), ("window", L.window),
                           ("checksum", L.chksum), ("urgentPointer", L.urgptr),
                           ("checksumOk", checksum_ok(raw, cls, nb, "chksum"))]
    elif cls is UDP:
        yield "udp", off, [("srcPort", L.sport), ("dstPort", L.dport), ("length", L.len), ("checksum", L.chksum),
                           ("checksumOk", checksum_ok(raw, cls, nb, "chksum"))]
    elif cls is ICMP:
        yield "icmp", off, [("type", L.type), ("code", L.code), ("checksum", L.chksum), ("identifier", L.id),
                            ("sequence", L.seq), ("checksumOk", checksum_ok(raw, cls, nb, "chksum"))]
    elif cls is IGMP:
        yield "igmp", off, [("type", L.type), ("maxRespTime", L.mrcode), ("checksum", L.chksum),
                            ("group", L.gaddr), ("checksumOk", checksum_ok(raw, cls, nb, "chksum"))]
    elif cls is ARP:
        yield "arp", off, [("hardwareType", L.hwtype), ("protocolType", L.ptype), ("hardwareAddrLen", L.hwlen),
                           ("protocolAddrLen", L.plen), ("opcode", L.op), ("senderHardwareAddr", L.hwsrc),
                           ("senderProtocolAddr", L.psrc), ("targetHardwareAddr", L.hwdst),
                           ("targetProtocolAddr", L.pdst)]
    elif cls is MPLS:
        yield "mpls", off, [("label", L.label), ("trafficClass", L.cos), ("bottomOfStack", L.s), ("ttl", L.ttl)]
    elif cls is GRE:
        yield "gre", off, [("checksumPresent", L.chksum_present), ("keyPresent", L.key_present),
                           ("sequencePresent", L.seqnum_present), ("version", L.version), ("protocol", L.proto),
                           ("checksum", L.chksum or 0), ("key", L.key or 0), ("sequence", L.sequence_number or 0),
                           ("checksumOk", checksum_ok(raw, cls, nb, "chksum"))]
    elif cls is VXLAN:
        yield "vxlan", off, [("vniValid", b(L.flags & 0x08)), ("vni", L.vni)]
    elif cls is SCTP:
        yield "sctp", off, [("srcPort", L.sport), ("dstPort", L.dport), ("verificationTag", L.tag),
                            ("checksum", L.chksum)]
    elif cls in ICMP6_BODIES:
        yield "icmp6", off, [("type", L.type), ("code", L.code), ("checksum", L.cksum),
                             ("checksumOk", checksum_ok(raw, cls, nb, "cksum"))]
        name, fields = ICMP6_BODIES[cls](L)
        if cls in (ICMPv6ND_NS, ICMPv6ND_NA, ICMPv6ND_RS):
            # Where the library's option walk must find the source/target link-layer address option.
            slla = L.getlayer(ICMPv6NDOptSrcLLAddr)
            fields.append(("srcLinkLayerAddrOptionAt", len(raw) - len(bytes(slla)) if slla else -1))
        yield name, off + 4, fields
    elif cls in (ICMPv6NDOptSrcLLAddr, ICMPv6NDOptDstLLAddr):
        yield ("slla" if cls is ICMPv6NDOptSrcLLAddr else "tlla"), off, [
            ("type", L.type), ("length", L.len), ("linkLayerAddr", L.lladdr)]
    elif cls is ICMPv6NDOptMTU:
        yield "mtuOption", off, [("type", L.type), ("length", L.len), ("mtu", L.mtu)]
    elif cls is ICMPv6NDOptPrefixInfo:
        yield "prefixInfo", off, [("type", L.type), ("length", L.len), ("prefixLength", L.prefixlen),
                                  ("onLink", L.L), ("autonomous", L.A), ("validLifetime", L.validlifetime),
                                  ("preferredLifetime", L.preferredlifetime), ("prefix", L.prefix)]
    elif cls is ICMPv6NDOptRouteInfo:
        yield "routeInfo", off, [("type", L.type), ("length", L.len), ("prefixLength", L.plen),
                                 ("routePreference", L.prf), ("routeLifetime", L.rtlifetime),
                                 ("prefix", L.prefix or "::")]
    elif cls is ICMPv6NDOptRDNSS:
        fields = [("type", L.type), ("length", L.len), ("lifetime", L.lifetime), ("addresses", len(L.dns))]
        fields += [("address%d" % i, a) for i, a in enumerate(L.dns)]
        yield "dnsServer", off, fields
    elif cls is ICMPv6NDOptDNSSL:
        names = "|".join(n.rstrip(".") for n in L.searchlist)
        yield "dnsSuffix", off, [("type", L.type), ("length", L.len), ("lifetime", L.lifetime), ("names", names)]


ICMP6_BODIES = {
    ICMPv6ND_NS: lambda L: ("ns", [("target", L.tgt)]),
    ICMPv6ND_NA: lambda L: ("na", [("router", L.R), ("solicited", L.S), ("override", L.O), ("target", L.tgt)]),
    ICMPv6ND_RS: lambda L: ("rs", [("reserved", L.res)]),
    ICMPv6ND_RA: lambda L: ("ra", [("curHopLimit", L.chlim), ("managed", L.M), ("other", L.O),
                                   ("routerPreference", L.prf), ("routerLifetime", L.routerlifetime),
                                   ("reachableTime", L.reachabletime), ("retransTimer", L.retranstimer)]),
    ICMPv6EchoRequest: lambda L: ("echo", [("identifier", L.id), ("sequence", L.seq)]),
    ICMPv6PacketTooBig: lambda L: ("packetTooBig", [("mtu", L.mtu)]),
}


def build():
    for name, frame in scapy_frames().items():
        raw = bytes(frame)
        print(name, raw.hex(), " ".join(describe(raw)))


CLASSES = {c.__name__: c for c in [Ether, Dot1Q, IP, IPv6, TCP, UDP, ICMPv6ND_NS, ICMPv6ND_NA, ICMPv6ND_RA,
                                   ICMPv6ND_RS, ICMPv6EchoRequest, ICMPv6NDOptSrcLLAddr, ICMPv6NDOptDstLLAddr,
                                   ICMPv6NDOptMTU, ICMPv6NDOptPrefixInfo, ICMPv6NDOptRouteInfo, ICMPv6NDOptRDNSS,
                                   ICMPv6NDOptDNSSL, Raw]}


def normalise(v):
    if isinstance(v, list):
        return "|".join(normalise(x).rstrip(".") for x in v)
    if isinstance(v, bytes):
        return v.hex()
    return str(int(v)) if isinstance(v, (bool, int)) or type(v).__name__ == "FlagValue" else str(v).lower()


def check(path):
    with open(path) as f:
        for line in f:
            words = line.split()
            if not words:
                continue
            name, raw = words[0], bytes.fromhex(words[1])
            p = Ether(raw)
            problems = []
            for kv in words[2:]:
                key, want = kv.split("=", 1)
                layer_name, field = key.split(".", 1)
                nb = 1
                if "[" in layer_name:
                    layer_name, nb = layer_name[:-1].split("[")
                    nb = int(nb)
                layer = p.getlayer(CLASSES[layer_name], nb)
                if layer is None:
                    problems.append("no %s[%d]" % (layer_name, nb))
                    continue
                got = normalise(getattr(layer, field))
                if got != want.lower():
                    problems.append("%s is %s, not %s" % (key, got, want))
            counts = {}
            layer = p
            while layer is not None and layer.name not in ("Raw", "Padding"):
                cls = type(layer)
                counts[cls] = counts.get(cls, 0) + 1
                for field in ("chksum", "cksum"):
                    if field in layer.fields and not checksum_ok(raw, cls, counts[cls], field):
                        problems.append("%s checksum 0x%04x is wrong" % (cls.__name__, getattr(layer, field)))
                layer = layer.payload if layer.payload else None
            print(("ok %s" % name) if not problems else ("FAIL %s: %s" % (name, "; ".join(problems))))


if __name__ == "__main__":
    if len(sys.argv) == 2 and sys.argv[1] == "build":
        build()
    elif len(sys.argv) == 3 and sys.argv[1] == "check":
        check(sys.argv[2])
    else:
        sys.exit(__doc__)
