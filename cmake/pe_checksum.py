#!/usr/bin/env python3
"""Pads a PE image to a multiple of 8 bytes and writes its checksum.

    pe_checksum.py FILE

An Authenticode signature is appended at an offset that is a multiple of 8,
and signing tools pad the file to reach it and then recompute the checksum.
An image already padded and checksummed this way is what removing the
signature gives back, byte for byte, so anyone can compare a signed download
with an unsigned build of the same commit.
"""
import struct
import sys


def pe_checksum(data, checksum_offset):
    total = 0
    for offset in range(0, len(data) - 1, 2):
        if checksum_offset <= offset < checksum_offset + 4:
            continue
        total += data[offset] | (data[offset + 1] << 8)
        total = (total & 0xFFFF) + (total >> 16)
    if len(data) % 2:
        total += data[-1]
    total = (total & 0xFFFF) + (total >> 16)
    total = (total & 0xFFFF) + (total >> 16)
    return (total + len(data)) & 0xFFFFFFFF


def main(path):
    with open(path, "rb") as f:
        data = bytearray(f.read())
    (pe_offset,) = struct.unpack_from("<I", data, 0x3C)
    if data[:2] != b"MZ" or data[pe_offset:pe_offset + 4] != b"PE\0\0":
        sys.exit(f"pe_checksum.py: {path} is not a PE image")
    # The optional header follows the 4-byte signature and the 20-byte file
    # header; CheckSum is at offset 64 in it, in PE32 and PE32+ alike.
    checksum_offset = pe_offset + 24 + 64
    data += b"\0" * (-len(data) % 8)
    struct.pack_into("<I", data, checksum_offset, pe_checksum(data, checksum_offset))
    with open(path, "wb") as f:
        f.write(data)


if __name__ == "__main__":
    if len(sys.argv) != 2:
        sys.exit(__doc__)
    main(sys.argv[1])
