#!/usr/bin/env python3
"""Prints the kind and type flags of every type info in a type library file, in order, one per
line ("4 0x11c0"), read straight from the file's binary form. Wine's loader reports the flags
of a dual interface's dispatch side without ole-automation, so the file is checked directly.
    typelib_flags.py LIBRARY.tlb
"""
import struct
import sys

data = open(sys.argv[1], "rb").read()
if data[:4] != b"MSFT":
    sys.exit("not a type library in the expected format")
varflags, count = struct.unpack_from("<i", data, 0x14)[0], struct.unpack_from("<i", data, 0x20)[0]
directory = 0x54 + (4 if varflags & 0x100 else 0) + 4 * count
table = struct.unpack_from("<i", data, directory)[0]
for index in range(count):
    record = table + index * 0x64
    kind = struct.unpack_from("<i", data, record)[0] & 0xF
    flags = struct.unpack_from("<i", data, record + 0x30)[0]
    print(f"{kind} {flags:#x}")
