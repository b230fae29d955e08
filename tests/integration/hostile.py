# SPDX-License-Identifier: MIT
"""Zip archives of any bytes, and what they may have done to the files around them."""
import hashlib
import os
import stat
import struct
import zlib

STORED, DEFLATED = 0, 8
DOS, UNIX = 0, 3
UTF8 = 0x800
LINK = stat.S_IFLNK | 0o777
DIRECTORY = "a directory"


def encoded(text):
    return text if isinstance(text, bytes) else os.fsencode(text)


def field(number, data):
    """An extra field of a header."""
    return struct.pack("<HH", number, len(data)) + data


def unicode_name(header_name, name):
    """The extra field that gives a member another name."""
    return field(0x7075, struct.pack("<BL", 1, zlib.crc32(encoded(header_name))) + encoded(name))


class Member:
    """One member; each field of its headers can be told to lie."""

    def __init__(self, name, data="int x;\n", mode=stat.S_IFREG | 0o644, **fields):
        self.name, self.data, self.mode = encoded(name), encoded(data), mode
        self.local_name = encoded(fields.pop("local_name", name))
        self.system = fields.pop("system", UNIX)
        self.method = fields.pop("method", DEFLATED)
        self.flags = fields.pop("flags", 0)
        self.extra = fields.pop("extra", b"")
        self.local_extra = fields.pop("local_extra", b"")
        self.crc = fields.pop("crc", zlib.crc32(self.data))
        self.size = fields.pop("size", len(self.data))
        self.same_data = fields.pop("same_data", False)  # as the member before: no bytes of its own
        self.comment = fields.pop("comment", b"")
        assert not fields, fields

    def stored(self):
        if self.method != DEFLATED:
            return self.data
        packer = zlib.compressobj(9, zlib.DEFLATED, -15)
        return packer.compress(self.data) + packer.flush()

    def common(self, stored, extra, name):
        return struct.pack("<HHHLLLLHH", 20, self.flags, self.method, 0x58210000, self.crc,
                           len(stored), self.size, len(name), len(extra))


def archive_of(members, prefix=b"", adjust=True, comment=b"", count=None, tail=b""):
    """The bytes of an archive. A prefix that is not adjusted for makes all offsets wrong."""
    data, directory, offset = bytearray(prefix), bytearray(), 0
    for member in members:
        stored = member.stored()
        if not member.same_data:
            offset = len(data) - (0 if adjust else len(prefix))
            data += b"PK\3\4" + member.common(stored, member.local_extra, member.local_name)
            data += member.local_name + member.local_extra + stored
        common = member.common(stored, member.extra, member.name)
        directory += b"PK\1\2" + bytes([30, member.system]) + common
        directory += struct.pack("<HHHLL", len(member.comment), 0, 0, member.mode << 16, offset)
        directory += member.name + member.extra + member.comment
    count = len(members) if count is None else count
    start = len(data) - (0 if adjust else len(prefix))
    end = struct.pack("<HHHHLLH", 0, 0, count, count, len(directory), start, len(comment))
    return bytes(data + directory + b"PK\5\6" + end + comment + tail)


def paths_below(top, skipped):
    """Iteratively: an archive may nest deeper than Python."""
    waiting = [top]
    while waiting:
        for entry in os.scandir(waiting.pop()):
            if entry.path not in skipped:
                yield entry.path
                if entry.is_dir(follow_symlinks=False):
                    waiting.append(entry.path)


def described(path):
    info = os.lstat(path)
    if stat.S_ISLNK(info.st_mode):
        content = os.readlink(path)
    elif stat.S_ISREG(info.st_mode):
        with open(path, "rb") as file:
            content = hashlib.sha256(file.read()).hexdigest()
    else:
        content = info.st_rdev
    return oct(info.st_mode), info.st_uid, info.st_gid, content


def surroundings(top, *skipped):
    """All files below a directory but some: type, mode, owner, content or target."""
    return {path: described(path) for path in paths_below(top, skipped)}


def unpacked(top, *skipped):
    """{name: content, DIRECTORY or the target of a link} of what is below a directory."""
    found = {}
    for path in paths_below(top, [os.path.join(top, name) for name in skipped]):
        name = os.path.relpath(path, top)
        if os.path.islink(path):
            found[name] = "-> " + os.readlink(path)
        elif os.path.isdir(path):
            found[name] = DIRECTORY
        else:
            with open(path, "rb") as file:
                found[name] = os.fsdecode(file.read())
    return found
