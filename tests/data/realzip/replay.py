#!/usr/bin/env python3
"""Prepares the replay of a folder of real-world zip archives as plugin payloads.

Usage: replay.py ARCHIVE_DIR MANIFEST_FILE OUT_DIR NAME...

For each NAME it writes OUT_DIR/NAME.zip: the archive's bytes, unchanged,
with an entry "manifest" (stored, holding MANIFEST_FILE) added in front of
the central directory, and the end records moved and updated to count it.
Archives without an end record are copied as they are. It also extracts
payload but its manifest with Python's zipfile into OUT_DIR/NAME.ref/, naming
entries the way the installer does, or writes the reason it cannot into
OUT_DIR/NAME.ref-error. One line per archive on standard output says where
the manifest went ("added" or "copied").
"""
import os
import struct
import sys
import warnings
import zipfile
import zlib

warnings.simplefilter("ignore")

END, END64, LOCATOR, CENTRAL = b"PK\x05\x06", b"PK\x06\x06", b"PK\x06\x07", b"PK\x01\x02"


def end_records(data):
    """(end record position, zip64 end record position or None), last first."""
    found = []
    at = data.rfind(END, max(0, len(data) - 22 - 0xFFFF))
    while at >= 0:
        if at + 22 <= len(data) and at + 22 + struct.unpack_from("<H", data, at + 20)[0] <= len(data):
            end64 = None
            if at >= 20 and data[at - 20:at - 16] == LOCATOR:
                declared = struct.unpack_from("<Q", data, at - 12)[0]
                for cand in (declared, at - 76):
                    if 0 <= cand < at and data[cand:cand + 4] == END64:
                        end64 = cand
                        break
            found.append((at, end64))
        at = data.rfind(END, max(0, len(data) - 22 - 0xFFFF), at)
    return found


def directory_of(data, at, end64):
    """(count, size, offset, directory end) from the end records."""
    count, size, offset = struct.unpack_from("<HII", data, at + 10)
    if end64 is not None:
        count, size, offset = struct.unpack_from("<QQQ", data, end64 + 32)
    return count, size, offset, end64 if end64 is not None else at


def add_manifest(data, manifest):
    ends = end_records(data)
    if not ends:
        return None
    # The last end record whose central directory is found, else the last one.
    chosen = ends[0]
    for at, end64 in ends:
        count, size, offset, dir_end = directory_of(data, at, end64)
        if data[offset:offset + 4] == CENTRAL or data[dir_end - size:dir_end - size + 4] == CENTRAL:
            chosen = (at, end64)
            break
    at, end64 = chosen
    count, size, offset, dir_end = directory_of(data, at, end64)
    if offset < dir_end and data[offset:offset + 4] == CENTRAL:
        start = offset
    elif 0 <= dir_end - size and data[dir_end - size:dir_end - size + 4] == CENTRAL:
        start = dir_end - size
    else:
        start = dir_end
    directory_end = min(start + size, dir_end)
    name = b"manifest"
    crc = zlib.crc32(manifest)
    local = struct.pack("<IHHHHHIIIHH", 0x04034B50, 20, 0, 0, 0, 0x21, crc, len(manifest), len(manifest),
                        len(name), 0) + name + manifest
    wide = offset >= 0xFFFFFFFF
    extra = struct.pack("<HHQ", 1, 8, offset) if wide else b""
    central = struct.pack("<IHHHHHHIIIHHHHHII", 0x02014B50, 0x0314, 20, 0, 0, 0, 0x21, crc, len(manifest),
                          len(manifest), len(name), len(extra), 0, 0, 0, 0o100644 << 16,
                          0xFFFFFFFF if wide else offset) + name + extra
    shift = len(local) + len(central)
    out = bytearray(data[:start] + local + data[start:directory_end] + central + data[directory_end:])
    end_at = at + shift
    old_count, old_size, old_offset = struct.unpack_from("<HII", out, end_at + 10)
    if old_count != 0xFFFF:
        struct.pack_into("<HH", out, end_at + 8, (old_count + 1) & 0xFFFF, (old_count + 1) & 0xFFFF)
    if old_size != 0xFFFFFFFF:
        struct.pack_into("<I", out, end_at + 12, (old_size + len(central)) & 0xFFFFFFFF)
    if old_offset != 0xFFFFFFFF:
        struct.pack_into("<I", out, end_at + 16, (old_offset + len(local)) & 0xFFFFFFFF)
    if end64 is not None:
        end64_at = end64 + shift if end64 >= directory_end else end64
        c, s, o = struct.unpack_from("<QQQ", out, end64_at + 32)
        values = (c + 1, c + 1, s + len(central), o + len(local))
        struct.pack_into("<QQQQ", out, end64_at + 24, *(v & 0xFFFFFFFFFFFFFFFF for v in values))
        locator = at + shift - 20
        (declared,) = struct.unpack_from("<Q", out, locator + 8)
        struct.pack_into("<Q", out, locator + 8, (declared + end64_at - end64) & 0xFFFFFFFFFFFFFFFF)
    return bytes(out)


def half_of_a_character(raw):
    """Whether a backslash in a name that is not UTF-8 may be the second byte
    of a two-byte Shift-JIS character: such a name keeps its backslashes."""
    try:
        raw.decode("utf-8")
        return False
    except UnicodeDecodeError:
        pass
    at = 0
    while at + 1 < len(raw):
        if 0x81 <= raw[at] <= 0x9F or 0xE0 <= raw[at] <= 0xFC:
            if raw[at + 1] == 0x5C:
                return True
            at += 1
        at += 1
    return False


def reader_name(info):
    """The entry's name as the installer reads it: UTF-8 when flagged or
    when the bytes are UTF-8, else code page 437; an Info-ZIP Unicode Path
    field made for the raw name wins; backslashes separate folders in names
    without the UTF-8 flag, unless one may be half of a Shift-JIS character;
    the MS-DOS folder attribute makes a folder."""
    utf8 = info.flag_bits & 0x800
    raw = info.orig_filename.encode("utf-8" if utf8 else "cp437")
    try:
        name = raw.decode("utf-8")
    except UnicodeDecodeError:
        name = raw.decode("cp437")
    extra = info.extra
    at = 0
    while at + 4 <= len(extra):
        kind, length = struct.unpack_from("<HH", extra, at)
        field = extra[at + 4:at + 4 + length]
        if kind == 0x7075 and len(field) >= 5 and field[0] == 1 and struct.unpack_from("<I", field, 1)[0] == zlib.crc32(raw):
            name = field[5:].decode("utf-8", "replace")
            break
        at += 4 + length
    if not utf8 and not half_of_a_character(raw):
        name = name.replace("\\", "/")
    if info.create_system == 0 and info.external_attr & 0x10 and not name.endswith("/"):
        name += "/"
    return name


def extract(path, out):
    with zipfile.ZipFile(path) as archive:
        for info in archive.infolist():
            name = reader_name(info)
            if name == "manifest":
                continue
            target = os.path.join(out, name)
            if name.endswith("/"):
                os.makedirs(target, exist_ok=True)
                continue
            os.makedirs(os.path.dirname(target), exist_ok=True)
            with open(target, "wb") as f:
                f.write(archive.read(info))


def main():
    source, manifest_file, out = sys.argv[1:4]
    manifest = open(manifest_file, "rb").read()
    for name in sys.argv[4:]:
        data = open(os.path.join(source, name), "rb").read()
        payload = add_manifest(data, manifest)
        open(os.path.join(out, name + ".zip"), "wb").write(data if payload is None else payload)
        try:
            extract(os.path.join(out, name + ".zip"), os.path.join(out, name + ".ref"))
        except Exception as error:  # any reason zipfile gives up
            open(os.path.join(out, name + ".ref-error"), "w").write("%s: %s" % (type(error).__name__, error))
        print("%s\t%s" % (name, "copied" if payload is None else "added"))


main()
