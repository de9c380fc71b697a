#!/usr/bin/env python3
"""Writes the hostile-archive corpus: one zip payload per line of corpus.txt.

Usage: make-corpus.py MANIFEST_FILE OUT_DIR

Every archive carries the given manifest, so each one fails (or passes) for the
reason its name says and no other. Archives that the zipfile module will not
write as such (lying sizes, wrong CRCs) are patched byte-wise afterwards.
"""
import struct
import sys
import warnings
import zipfile

warnings.simplefilter("ignore")
manifest = open(sys.argv[1]).read()
out = sys.argv[2]


def write(name, entries, links=(), directories=()):
    path = "%s/%s.zip" % (out, name)
    with zipfile.ZipFile(path, "w", zipfile.ZIP_DEFLATED) as z:
        z.writestr("manifest", manifest)
        for d in directories:
            info = zipfile.ZipInfo(d)
            info.create_system = 3
            info.external_attr = (0o40777 << 16) | 0x10
            z.writestr(info, "")
        for link, target in links:
            info = zipfile.ZipInfo(link)
            info.create_system = 3
            info.external_attr = 0o120777 << 16
            z.writestr(info, target)
        for entry, data in entries:
            z.writestr(entry, data)
    return path


def patch_entry(path, entry, crc=None, size=None):
    """Rewrites the CRC and/or uncompressed size of `entry` in both headers."""
    data = bytearray(open(path, "rb").read())
    # signature, offset of the name length, of the name, of the CRC, of the size
    for magic, name_len, name_at, crc_at, size_at in ((b"PK\x03\x04", 26, 30, 14, 22),
                                                       (b"PK\x01\x02", 28, 46, 16, 24)):
        pos = data.find(magic)
        while pos >= 0:
            nlen = struct.unpack_from("<H", data, pos + name_len)[0]
            if bytes(data[pos + name_at:pos + name_at + nlen]) == entry.encode():
                if crc is not None:
                    struct.pack_into("<I", data, pos + crc_at, crc)
                if size is not None:
                    struct.pack_into("<I", data, pos + size_at, size)
            pos = data.find(magic, pos + 4)
    open(path, "wb").write(bytes(data))


write("slip-dotdot", [("../slip1.txt", "x")])
write("slip-nested", [("www/../../slip2.txt", "x")])
write("slip-deep", [("../../../../../../slip3.txt", "x")])
write("slip-absolute", [("/tmp/slip4.txt", "x")])
write("slip-backslash", [("..\\..\\slip5.txt", "x")])
write("slip-backslash-inner", [("www\\..\\..\\slip6.txt", "x")])
write("slip-directory", [], directories=["../slipdir/"])
write("control-newline", [("bin/app\n/etc/passwd", "x")])
write("control-tab", [("bin/a\tb", "x")])
write("control-escape", [("bin/\x1b[2Jclear", "x")])
write("link-absolute", [], links=[("www", "/etc")])
write("link-then-file", [("www/evil.txt", "x")], links=[("www", "../../../bait")])
write("link-file", [], links=[("bin/app", "/etc/passwd")])
write("duplicate-file", [("bin/app", "one"), ("bin/app", "two")])
write("duplicate-directory", [("bin", "file")], directories=["bin/"])
write("directory-with-data", [("www/", "x")])
p = write("size-too-large", [("bin/app", "A" * 4000)])
patch_entry(p, "bin/app", size=5000)
p = write("size-too-small", [("bin/app", "A" * 4000)])
patch_entry(p, "bin/app", size=1000)
p = write("crc-wrong", [("bin/app", "A" * 4000)])
patch_entry(p, "bin/app", crc=0x12345678)
