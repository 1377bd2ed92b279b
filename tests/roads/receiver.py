#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Receives datagrams on one address and prints size, TTL (hop limit) and TOS (traffic class) of each as a JSON line.

    receiver.py ADDRESS PORT INTERFACE     joins ADDRESS when it is a group
"""
import ipaddress
import json
import signal
import socket
import struct
import sys

address, port, interface = ipaddress.ip_address(sys.argv[1]), int(sys.argv[2]), sys.argv[3]
index = socket.if_nametoindex(interface)
IP_RECVTTL, IPV6_RECVTCLASS, IPV6_RECVHOPLIMIT, IPV6_HOPLIMIT, IPV6_TCLASS = 12, 66, 51, 52, 67

if address.version == 4:
    receiver = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    receiver.setsockopt(socket.IPPROTO_IP, IP_RECVTTL, 1)
    receiver.setsockopt(socket.IPPROTO_IP, socket.IP_RECVTOS, 1)
    receiver.bind(("0.0.0.0", port))
    if address.is_multicast:
        group = struct.pack("4s4si", address.packed, bytes(4), index)
        receiver.setsockopt(socket.IPPROTO_IP, socket.IP_ADD_MEMBERSHIP, group)
else:
    receiver = socket.socket(socket.AF_INET6, socket.SOCK_DGRAM)
    receiver.setsockopt(socket.IPPROTO_IPV6, IPV6_RECVHOPLIMIT, 1)
    receiver.setsockopt(socket.IPPROTO_IPV6, IPV6_RECVTCLASS, 1)
    receiver.bind(("::", port))
    if address.is_multicast:
        receiver.setsockopt(socket.IPPROTO_IPV6, socket.IPV6_JOIN_GROUP, address.packed + struct.pack("i", index))

signal.signal(signal.SIGTERM, lambda *_: sys.exit(0))
print(json.dumps({"ready": True}), flush=True)
while True:
    data, control, _, _ = receiver.recvmsg(65536, 256)
    found = {"size": len(data), "sequence": data[26] if len(data) > 26 else None}
    for level, kind, value in control:
        number = value[0] if len(value) < 4 else struct.unpack("i", value[:4])[0]
        if (level, kind) in ((socket.IPPROTO_IP, socket.IP_TTL), (socket.IPPROTO_IPV6, IPV6_HOPLIMIT)):
            found["ttl"] = number
        if (level, kind) in ((socket.IPPROTO_IP, socket.IP_TOS), (socket.IPPROTO_IPV6, IPV6_TCLASS)):
            found["tos"] = number
    print(json.dumps(found), flush=True)
