#!/usr/bin/env python3
"""Writes the hostile-archive corpus: one zip payload per line of corpus.txt.

Usage: make-corpus.py MANIFEST_FILE OUT_DIR

Every archive carries the given manifest, so each one fails (or passes) for the
reason its name says and no other. Archives that the zipfile module will not
write as such (lying sizes, wrong CRCs) are patched byte-wise afterwards, or
laid out byte by byte (headers that disagree, shared bytes, a stub in front).
"""
import struct
import sys
import warnings
import zipfile
import zlib

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


def entry(name, content="x", method=0, **fields):
    """One entry for build(): its raw name and data and every header field."""
    content = content.encode()
    data = content
    if method == 8:
        packer = zlib.compressobj(9, zlib.DEFLATED, -15)
        data = packer.compress(content) + packer.flush()
    made = dict(name=name.encode("utf-8", "surrogateescape"), local_name=None, data=data, method=method,
                crc=zlib.crc32(content), local_crc=None, csize=len(data), usize=len(content), flags=0, system=3,
                attributes=0o100644 << 16, descriptor=None, offset=None)
    made.update(fields)
    return made


def build(name, entries, prefix=b"", suffix=b"", disk=0):
    """Lays the archive out byte by byte; offsets count from its own start,
    so a `prefix` shifts it as a stub in front of an archive does."""
    out = bytearray()
    entries = [entry("manifest", manifest)] + entries
    for e in entries:
        if isinstance(e["offset"], dict):  # shares the local header of that entry
            continue
        e["offset"] = len(out)
        local_name = e["local_name"] or e["name"]
        crc = e["crc"] if e["local_crc"] is None else e["local_crc"]
        out += struct.pack("<IHHHHHIIIHH", 0x04034B50, 20, e["flags"], e["method"], 0, 0x21, crc, e["csize"],
                           e["usize"], len(local_name), 0) + local_name + e["data"]
        if e["descriptor"] is not None:
            out += struct.pack("<IIII", 0x08074B50, *e["descriptor"])
    directory = len(out)
    for e in entries:
        out += struct.pack("<IHHHHHHIIIHHHHHII", 0x02014B50, e["system"] << 8 | 20, 20, e["flags"], e["method"], 0,
                           0x21, e["crc"], e["csize"], e["usize"], len(e["name"]), 0, 0, 0, 0, e["attributes"],
                           e["offset"]["offset"] if isinstance(e["offset"], dict) else e["offset"]) + e["name"]
    out += struct.pack("<IHHHHIIH", 0x06054B50, disk, disk, len(entries), len(entries), len(out) - directory,
                       directory, 0)
    open("%s/%s.zip" % (out_dir, name), "wb").write(prefix + bytes(out) + suffix)


out_dir = out
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

# Headers that disagree, entries that share bytes, what is not supported.
shared = entry("bin/a")
build("overlap-shared-header", [shared, entry("bin/b", offset=shared)])
build("overlap-data", [entry("bin/a", "x" * 40, 8, csize=len(entry("bin/a", "x" * 40, 8)["data"]) + 8), entry("bin/b")])
build("name-nul", [entry("bin/a\0b")])
build("local-name-differs", [entry("bin/a", local_name=b"bin/b")])
build("local-crc-differs", [entry("bin/a", local_crc=0)])
build("descriptor-crc-differs", [entry("bin/a", flags=8, descriptor=(0, 1, 1))])
deflated = entry("bin/a", "x" * 40, 8)
build("deflate-bytes-after-stream", [entry("bin/a", "x" * 40, 8, data=deflated["data"] + b"junk",
                                           csize=deflated["csize"] + 4)])
build("encrypted", [entry("bin/a", flags=1)])
build("method-lzma", [entry("bin/a", method=14)])
build("multi-disk", [entry("bin/a")], disk=1)
build("backslash-utf8", [entry("www\\a.txt", flags=0x800)])
build("fifo-directory", [entry("www/", "", attributes=0o010755 << 16)])
# 0x95 0x5C is one Shift-JIS character: that backslash is no separator.
build("shift-jis-backslash", [entry("www/\udc95\\.txt", system=0, attributes=0x20)])

# What other readers read: these install.
build("mode-fifo", [entry("bin/pipe", attributes=0o010644 << 16)])
build("windows-separators", [entry("www\\css\\site.css", system=0, attributes=0x20)])
# After a whole Shift-JIS character (0x95 0x41) a backslash separates.
build("shift-jis-then-separator", [entry("www\\\udc95A\\a.txt", system=0, attributes=0x20)])
build("dos-folder", [entry("data", "", system=0, attributes=0x10), entry("data/file", system=0, attributes=0x20)])
build("stub-in-front", [entry("bin/app", "x" * 40, 8)], prefix=b"#!/bin/sh\nexit 0\n")
build("junk-behind", [entry("bin/junk")], suffix=b"junk")
build("descriptor-local-size", [entry("bin/descriptor", flags=8, local_crc=0, csize=1, descriptor=(zlib.crc32(b"x"), 1, 1))])
