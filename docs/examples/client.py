#!/usr/bin/env python3
"""A client of the tavor daemon in Python: starts positioning and prints ten sentences.

   client.py [SOCKET]
"""
import os
import socket
import struct
import sys

SOCKET = "/etc/default/tavor/tavor_sun_path"
START = 0  # request type and code of its result
NMEA = 6  # code of a sentence

client = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
client.settimeout(5)
# An abstract address (it begins with a NUL), padded with NULs: 108 bytes and the 2 of the family are the full length.
client.bind((b"\0example-%d" % os.getpid()).ljust(108, b"\0"))
client.sendto(struct.pack("=I512s", START, b""), sys.argv[1] if len(sys.argv) > 1 else SOCKET)

sentences = 0
while sentences < 10:
    code, value, payload = struct.unpack("=II512s", client.recv(520))
    if code == START and value != 0:
        sys.exit("client: positioning could not be started")
    if code == NMEA:
        sys.stdout.write(payload.split(b"\0")[0].decode("ascii"))
        sentences += 1
