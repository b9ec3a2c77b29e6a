#!/usr/bin/env python3
"""Writes the named seeds of the OID fuzz target into fuzz/corpus/oid/.

The input format is described at the top of fuzz/oid_fuzz.cpp. OIDs are
written in their 4-byte form, so the seeds do not depend on the target's
table. Run from the repository root:  python3 tools/gen_oid_seeds.py
"""
import struct

PACKET_FILTER, LOOKAHEAD, XMIT_OK = 0x0001010E, 0x0001010F, 0x00020101
MEDIA_CONNECT, SUPPORTED_LIST = 0x00010114, 0x00010101
MULTICAST_LIST, SET_POWER, ENABLE_WAKE_UP = 0x01010103, 0xFD010101, 0xFD010106


def u32(v):
    return struct.pack("<I", v & 0xFFFFFFFF)


def oid(code):
    return b"\xff" + u32(code)


def length(n):
    return bytes([n]) if n < 255 else b"\xff" + struct.pack("<H", n)


def query(code, n, null=False):
    return bytes([0 | null << 3]) + oid(code) + length(n)


def set_(code, content, null=False):
    return bytes([1 | null << 3]) + oid(code) + length(len(content)) + content


def send(count, size):
    return bytes([2 | (count - 1) << 3, size])


def link(a, rates=b""):
    return bytes([3 | a << 3]) + rates


def frames(count, size):
    return bytes([4 | (count - 1) << 3, size])


def time(a):
    return bytes([5 | a << 3])


POWER, RESET = bytes([6]), bytes([7])


def addresses(n):
    return b"".join(bytes([1, 0, 0x5E, 0, 1, i]) for i in range(n))


SEEDS = {
    # config byte, then ops
    "multicast_list_13_bytes": bytes([0x20]) + set_(MULTICAST_LIST, addresses(2) + b"\x01")
    + query(MULTICAST_LIST, 255) + set_(MULTICAST_LIST, addresses(2)) + time(2) + query(MULTICAST_LIST, 11),
    "multicast_list_33_addresses_32_filters": bytes([0x20]) + set_(MULTICAST_LIST, addresses(33))
    + query(MULTICAST_LIST, 255) + set_(MULTICAST_LIST, addresses(32)) + time(2) + frames(2, 100),
    "multicast_list_2_addresses_1_filter": bytes([0x22]) + set_(MULTICAST_LIST, addresses(2))
    + set_(MULTICAST_LIST, addresses(1)) + set_(MULTICAST_LIST, b"", null=True) + time(1),
    "packet_filter_unknown_bits": bytes([0x20]) + set_(PACKET_FILTER, u32(0xFFFFFFFF)) + time(1)
    + frames(3, 60) + set_(PACKET_FILTER, u32(0x0000FF40)) + query(PACKET_FILTER, 4) + send(2, 100) + time(1),
    "power_state_outside_d0_d3": bytes([0x20]) + set_(SET_POWER, u32(7)) + time(2) + set_(SET_POWER, u32(0))
    + time(2) + set_(SET_POWER, u32(0xFFFFFFFF)) + time(2) + set_(SET_POWER, u32(1)) + time(2) + send(2, 80),
    "set_during_pending_power_change": bytes([0x20]) + set_(SET_POWER, u32(4)) + set_(PACKET_FILTER, u32(0x0B))
    + query(XMIT_OK, 4) + query(MEDIA_CONNECT, 4) + send(1, 90) + time(2) + set_(SET_POWER, u32(1))
    + set_(MULTICAST_LIST, addresses(3)) + RESET + time(2),
    "power_cycle_with_traffic": bytes([0x10]) + send(4, 200) + frames(4, 200) + POWER + send(4, 250)
    + frames(4, 250) + time(4) + query(XMIT_OK, 4),
    "reset_then_surprise_removal": bytes([0xC0]) + send(8, 150) + RESET + send(2, 150) + time(1) + RESET + time(30),
    "link_flaps_and_speeds": bytes([0x00]) + link(0) + link(1) + link(2, u32(100000000) + u32(10000000))
    + link(3 + 4 * 5) + time(3) + query(MEDIA_CONNECT, 4) + link(0) + time(3) + query(0x00010107, 4),
    "queries_short_null_and_huge": bytes([0x2D]) + query(SUPPORTED_LIST, 0, null=True) + query(SUPPORTED_LIST, 159)
    + query(SUPPORTED_LIST, 1000) + set_(LOOKAHEAD, u32(1), null=False) + set_(ENABLE_WAKE_UP, u32(3) + b"\0")
    + set_(ENABLE_WAKE_UP, u32(3)) + query(ENABLE_WAKE_UP, 4) + query(0x12345678, 8),
}

for name, data in SEEDS.items():
    with open("fuzz/corpus/oid/" + name, "wb") as f:
        f.write(data)
