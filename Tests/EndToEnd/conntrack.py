"""The kernel's connection tracking table, and how to clear it."""

import os
import socket
import struct

# linux/netfilter/nfnetlink.h, linux/netfilter/nfnetlink_conntrack.h
NETLINK_NETFILTER = 12
DELETE_CONNECTIONS = 1 << 8 | 2
NLM_F_REQUEST, NLM_F_ACK = 1, 4
NLMSG_ERROR = 2


def flush(namespace):
    """Deletes every entry of the namespace's table, as "conntrack --flush" does."""
    header = struct.Struct("=IHHII")
    body = struct.pack("=BBH", socket.AF_UNSPEC, 0, 0)
    size = header.size + len(body)
    with namespace:
        netlink = socket.socket(socket.AF_NETLINK, socket.SOCK_RAW, NETLINK_NETFILTER)
    with netlink:
        flags = NLM_F_REQUEST | NLM_F_ACK
        netlink.sendall(header.pack(size, DELETE_CONNECTIONS, flags, 1, 0) + body)
        answer = netlink.recv(8192)
    _, kind, _, _, _ = header.unpack_from(answer)
    (error,) = struct.unpack_from("=i", answer, header.size)
    assert kind == NLMSG_ERROR
    if error:
        raise OSError(-error, f"connections cannot be forgotten: {os.strerror(-error)}")
