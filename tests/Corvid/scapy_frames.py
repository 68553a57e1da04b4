#!/usr/bin/env python3
"""Frames built by scapy, the independent side of PktScapyTest.

  scapy_frames.py build
      Prints one line per frame scapy builds:
        NAME HEX LAYER@OFFSET:key=value,key=value ...
      LAYER names the header wrapper the test binds at OFFSET; the keys are
      the wrapper's accessor names, the values what scapy decodes (numbers in
      decimal, addresses in their usual text). checksumOk=1/0 is scapy's own
      verdict: the layer's checksum rebuilt from scratch equals the one on
      the wire.
"""

import sys
import warnings

warnings.filterwarnings("ignore")
import logging

logging.getLogger("scapy.runtime").setLevel(logging.ERROR)

from scapy.all import ARP, ICMP, IP, TCP, UDP, Dot1AD, Dot1Q, Ether, GRE, Raw  # noqa: E402
from scapy.layers.inet import IPOption_Router_Alert  # noqa: E402
from scapy.layers.inet6 import (  # noqa: E402
    ICMPv6EchoRequest, ICMPv6ND_NA, ICMPv6ND_NS, ICMPv6ND_RA, ICMPv6ND_RS, ICMPv6NDOptDNSSL, ICMPv6NDOptMTU,
    ICMPv6NDOptPrefixInfo, ICMPv6NDOptRDNSS, ICMPv6NDOptRouteInfo, ICMPv6NDOptSrcLLAddr, ICMPv6NDOptDstLLAddr,
    ICMPv6PacketTooBig, IPv6, IPv6ExtHdrHopByHop, RouterAlert, PadN)
from scapy.layers.sctp import SCTP  # noqa: E402
from scapy.layers.vxlan import VXLAN  # noqa: E402
from scapy.contrib.igmp import IGMP  # noqa: E402
from scapy.contrib.mpls import MPLS  # noqa: E402

MAC_A = "02:00:00:00:00:0a"
MAC_B = "02:00:00:00:00:0b"
V4_A, V4_B = "192.0.2.1", "198.51.100.7"
V6_A, V6_B = "2001:db8::1", "2001:db8:0:1::2"
LL_A = "fe80::200:ff:fe00:a"


def eth():
    return Ether(src=MAC_A, dst=MAC_B)


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


def headers(p):
    """Each header of a decoded frame up to its padding, with its class and which of that class it is (from 1)."""
    counts, layer = {}, p
    while layer is not None and layer.name != "Padding":
        counts[type(layer)] = counts.get(type(layer), 0) + 1
        yield layer, type(layer), counts[type(layer)]
        layer = layer.payload if layer.payload else None


def describe(raw):
    """LAYER@OFFSET:fields tokens for every header of the decoded frame."""
    tokens = []
    for layer, cls, nb in headers(Ether(raw)):
        off = len(raw) - len(bytes(layer))
        if cls is Raw:
            # scapy leaves options it does not know as raw bytes behind the last one it does.
            d = bytes(layer)
            if len(d) >= 8 and d[0] == 253 and "Option" in layer.underlayer.name:
                url = d[8:d[1] * 8].split(b"\x00")[0].decode()
                tokens.append(token("networkBoot", off, [("type", d[0]), ("length", d[1]),
                                                         ("lifetime", int.from_bytes(d[4:8], "big")), ("bootUrl", url)]))
            break
        tokens += [token(*t) for t in decode(raw, layer, cls, nb, off)]
    return tokens


def token(name, off, fields):
    return "%s@%d:%s" % (name, off, ",".join("%s=%s" % kv for kv in fields))


def fields(raw, L, cls, nb, mapping):
    """mapping: "accessor=field ..."; "checksumOk=F" is scapy's verdict on checksum F, "a.b" reads a flag of a, an
    absent optional field reads 0."""
    out = []
    for pair in mapping.split():
        name, attr = pair.split("=")
        if name == "checksumOk":
            out.append((name, checksum_ok(raw, cls, nb, attr)))
            continue
        v = L
        for a in attr.split("."):
            v = getattr(v, a)
        out.append((name, 0 if v is None else int(v) if isinstance(v, bool) or type(v).__name__ == "FlagValue" else v))
    return out


# Per scapy class: the wrapper the test binds at its offset, the accessor=field pairs and any computed fields.
LAYERS = {
    Ether: ("eth", "dst=dst src=src ethType=type"),
    Dot1Q: ("vlan", "priority=prio cfi=id vlanId=vlan ethType=type"),
    IP: ("ip", "version=version headerLength=ihl tos=tos totalLength=len identification=id dontFragment=flags.DF "
               "moreFragments=flags.MF fragmentOffset=frag ttl=ttl protocol=proto checksum=chksum src=src dst=dst "
               "checksumOk=chksum"),
    IPv6: ("ip6", "version=version trafficClass=tc flowLabel=fl payloadLength=plen nextHeader=nh hopLimit=hlim "
                  "src=src dst=dst"),
    TCP: ("tcp", "srcPort=sport dstPort=dport seqNum=seq ackNum=ack dataOffset=dataofs flags=flags window=window "
                 "checksum=chksum urgentPointer=urgptr checksumOk=chksum"),
    UDP: ("udp", "srcPort=sport dstPort=dport length=len checksum=chksum checksumOk=chksum"),
    ICMP: ("icmp", "type=type code=code checksum=chksum identifier=id sequence=seq checksumOk=chksum"),
    IGMP: ("igmp", "type=type maxRespTime=mrcode checksum=chksum group=gaddr checksumOk=chksum"),
    ARP: ("arp", "hardwareType=hwtype protocolType=ptype hardwareAddrLen=hwlen protocolAddrLen=plen opcode=op "
                 "senderHardwareAddr=hwsrc senderProtocolAddr=psrc targetHardwareAddr=hwdst targetProtocolAddr=pdst"),
    MPLS: ("mpls", "label=label trafficClass=cos bottomOfStack=s ttl=ttl"),
    GRE: ("gre", "checksumPresent=chksum_present keyPresent=key_present sequencePresent=seqnum_present "
                 "version=version protocol=proto checksum=chksum key=key sequence=sequence_number checksumOk=chksum"),
    VXLAN: ("vxlan", "vniValid=flags.Instance vni=vni"),
    SCTP: ("sctp", "srcPort=sport dstPort=dport verificationTag=tag checksum=chksum"),
    ICMPv6NDOptSrcLLAddr: ("slla", "type=type length=len linkLayerAddr=lladdr"),
    ICMPv6NDOptDstLLAddr: ("tlla", "type=type length=len linkLayerAddr=lladdr"),
    ICMPv6NDOptMTU: ("mtuOption", "type=type length=len mtu=mtu"),
    ICMPv6NDOptPrefixInfo: ("prefixInfo", "type=type length=len prefixLength=prefixlen onLink=L autonomous=A "
                                          "validLifetime=validlifetime preferredLifetime=preferredlifetime prefix=prefix"),
    ICMPv6NDOptRouteInfo: ("routeInfo", "type=type length=len prefixLength=plen routePreference=prf "
                                        "routeLifetime=rtlifetime", lambda L: [("prefix", L.prefix or "::")]),
    ICMPv6NDOptRDNSS: ("dnsServer", "type=type length=len lifetime=lifetime",
                       lambda L: [("addresses", len(L.dns))] + [("address%d" % i, a) for i, a in enumerate(L.dns)]),
    ICMPv6NDOptDNSSL: ("dnsSuffix", "type=type length=len lifetime=lifetime",
                       lambda L: [("domainNames", "|".join(n.rstrip(".") for n in L.searchlist))]),
}
LAYERS[Dot1AD] = LAYERS[Dot1Q]

# ICMPv6 messages: the body's wrapper, bound 4 bytes in, and its fields.
ICMP6_BODIES = {
    ICMPv6ND_NS: ("ns", "target=tgt"),
    ICMPv6ND_NA: ("na", "router=R solicited=S override=O target=tgt"),
    ICMPv6ND_RS: ("rs", "reserved=res"),
    ICMPv6ND_RA: ("ra", "curHopLimit=chlim managed=M other=O routerPreference=prf routerLifetime=routerlifetime "
                        "reachableTime=reachabletime retransTimer=retranstimer"),
    ICMPv6EchoRequest: ("echo", "identifier=id sequence=seq"),
    ICMPv6PacketTooBig: ("packetTooBig", "mtu=mtu"),
}


def decode(raw, L, cls, nb, off):
    if cls in LAYERS:
        name, mapping, *extra = LAYERS[cls]
        yield name, off, fields(raw, L, cls, nb, mapping) + (extra[0](L) if extra else [])
    elif cls is IPv6ExtHdrHopByHop:
        o = off + 2
        for opt in L.options:
            if isinstance(opt, RouterAlert):
                yield "routerAlert", o, [("type", opt.otype), ("length", opt.optlen), ("value", opt.value)]
            o += len(bytes(opt))
    elif cls in ICMP6_BODIES:
        yield "icmp6", off, fields(raw, L, cls, nb, "type=type code=code checksum=cksum checksumOk=cksum")
        name, mapping = ICMP6_BODIES[cls]
        body = fields(raw, L, cls, nb, mapping)
        if cls in (ICMPv6ND_NS, ICMPv6ND_NA, ICMPv6ND_RS):
            # Where the library's option walk must find the source link-layer address option.
            slla = L.getlayer(ICMPv6NDOptSrcLLAddr)
            body.append(("srcLinkLayerAddrOptionAt", len(raw) - len(bytes(slla)) if slla else -1))
        yield name, off + 4, body


def build():
    for name, frame in scapy_frames().items():
        raw = bytes(frame)
        print(name, raw.hex(), " ".join(describe(raw)))


if __name__ == "__main__":
    if len(sys.argv) == 2 and sys.argv[1] == "build":
        build()
    else:
        sys.exit(__doc__)
