# SPDX-License-Identifier: MIT
"""The hostile archives and what becomes of each. All but some hold a hello.c, too."""
import stat
import zipfile
from io import BytesIO

from hostile import (DIRECTORY, DOS, LINK, STORED, UTF8, Member, archive_of, field,
                     unicode_name)

PWNED = "/tmp/pwned"  # is made by whatever ought not to be run or written
VICTIM = "/tmp/victim"
RUN_IT = "int main(void) { return 7; }\n"
X = "int x;\n"
HELLO = Member("hello.c", RUN_IT)

REFUSED, BUILT, NOT_BUILT = {}, {}, {}


def put(table, name, *entry):
    assert name not in {**REFUSED, **BUILT, **NOT_BUILT}, name
    table[name] = entry


def refused(name, reason, *members, **archive):
    put(REFUSED, name, reason, lambda: archive_of([HELLO, *members], **archive))


def runs(name, files, *members, make=False, **archive):
    put(BUILT, name, {"hello.c": RUN_IT, **files}, make,
        lambda: archive_of([HELLO, *members], **archive))


def fails(name, files, complaint, *members, **archive):
    put(NOT_BUILT, name, {"hello.c": RUN_IT, **files}, complaint,
        lambda: archive_of([HELLO, *members], **archive))


def link(name, target):
    return Member(name, target, mode=LINK)


OUTSIDE, DAMAGED, PROTECTED = "member outside", "no zip archive, or damaged", "damaged or encrypted"

# Names that lead outside, as unzip takes them; more in test_bad_archives.py.
refused("absolute name", OUTSIDE, Member(PWNED))
refused("absolute name in DOS", OUTSIDE, Member("\\tmp\\pwned", system=DOS))
refused("share", OUTSIDE, Member("\\\\server\\share\\x.h", system=DOS))
refused("up, as in DOS", OUTSIDE, Member("..\\..\\pwned", system=DOS))
refused("up, behind a drive", OUTSIDE, Member("C:\\..\\..\\pwned", system=DOS))
refused("up, as a directory", OUTSIDE, Member("../pwned/", "", stat.S_IFDIR | 0o755))
refused("up, as a link", OUTSIDE, link("../pwned", VICTIM))
refused("up, by the second name in the central directory", OUTSIDE,
        Member("x.h", extra=unicode_name("x.h", "../pwned")))
refused("absolute, by the second name in the central directory", OUTSIDE,
        Member("x.h", extra=unicode_name("x.h", PWNED)))
refused("up, by the second name before the data", 'mismatching "local" filename',
     Member("x.h", local_extra=unicode_name("x.h", "../pwned")))
refused("absolute, by the second name before the data", 'mismatching "local" filename',
     Member("x.h", local_extra=unicode_name("x.h", PWNED)))
refused("up, in the name before the data", 'mismatching "local" filename',
        Member("x.h", local_name="../pwned"))
refused("absolute, in the name before the data", 'mismatching "local" filename',
        Member("x.h", local_name=PWNED))
# unzip leaves out some characters, and then what has become of "..".
runs("up, in control characters", {"x.h": X}, Member(".\x01./x.h"))
runs("up, in deleted characters", {"s": DIRECTORY, "s/x.h": X}, Member("s/.\x7f./.\x7f./x.h"))
runs("up, in bytes that no text has", {"x.h": X}, Member(b".\xff./x.h"))
runs("up, as the last part", {"s": DIRECTORY, "s/__": X}, Member("s/.\x01."))
runs("up, as a version", {"s": DIRECTORY, "s/__": X}, Member("s/..;1"))
runs("absolute, behind a control character", {"tmp": DIRECTORY, "tmp/pwned": X},
     Member("\x01" + PWNED))
runs("drive", {"C:": DIRECTORY, "C:/x.h": X}, Member("C:\\x.h", system=DOS))
runs("backslash", {"a\\b.h": X}, Member("a\\b.h"))

# Links, and what is to be written through them.
runs("link to the root", {"link": "-> /"}, link("link", "/"), make=True)
runs("link up", {"link": "-> .."}, link("link", ".."), make=True)
runs("link to a file", {"file.h": "-> %s/file.h" % VICTIM}, link("file.h", VICTIM + "/file.h"),
     make=True)
runs("dangling link", {"x.h": "-> " + PWNED}, link("x.h", PWNED), make=True)
runs("loop of links", {"a": "-> b", "b": "-> a"}, link("a", "b"), link("b", "a"), make=True)
runs("file through a link", {"link": "-> " + VICTIM}, link("link", VICTIM),
     Member("link/file", "spoiled"), Member("link/new", "spoiled"))
runs("file through a link up", {"link": "-> .."}, link("link", ".."), Member("link/pwned"))
runs("link through a link", {"link": "-> " + VICTIM}, link("link", VICTIM),
     link("link/file", "/etc/passwd"))
runs("file, then a link, then the file", {"x.h": "spoiled"}, Member("x.h"),
     link("x.h", VICTIM + "/file.h"), Member("x.h", "spoiled"))
runs("link, then a file of the name", {"x.h": "spoiled"}, link("x.h", VICTIM + "/file.h"),
     Member("x.h", "spoiled"))
runs("link, then a directory of the name", {"link": "-> " + VICTIM}, link("link", VICTIM),
     Member("link/", "", stat.S_IFDIR | 0o755), Member("link/file", "spoiled"))
runs("directory, then a link of the name", {"link": DIRECTORY, "link/file": "spoiled"},
     Member("link/", "", stat.S_IFDIR | 0o755), link("link", VICTIM),
     Member("link/file", "spoiled"))
runs("two links of a name", {"link": "-> " + VICTIM}, link("link", ".."), link("link", VICTIM),
     Member("link/file", "spoiled"))
runs("link with a name of a directory", {"link": DIRECTORY}, link("link/", VICTIM))
runs("link to nothing", {"link": ""}, link("link", ""))
runs("link with a long target", {}, link("link", "x/" * 3000))
runs("link in the place of make's results", {}, link(".vkabuild", VICTIM), make=True)
runs("links among make's results", {},
     link(".vkabuild/id", VICTIM + "/file"), link(".vkabuild/tmp.x", VICTIM + "/directory"),
     link(".vkabuild/tree", PWNED), link(".vkabuild/program", VICTIM + "/file"), make=True)
runs("results that are there already", {}, Member(".vkabuild/program", "#!/bin/sh\nexit 1\n"),
     Member(".vkabuild/hello.c.o", ""), Member(".vkabuild/fresh", ""), make=True)
runs("program that is there already", {"vkabin": "#!/bin/sh\nexit 1\n"},
     Member("vkabin", "#!/bin/sh\nexit 1\n", mode=stat.S_IFREG | 0o755), make=True)
fails("dangling link as a source", {"y.c": "-> " + PWNED}, "source 'y.c' is not a file",
      link("y.c", PWNED))

# What eats up the disk, or seems to.
runs("64 MiB in 64 KiB", {"x.h": "\0" * (64 << 20)}, Member("x.h", "\0" * (64 << 20)))
runs("archive in an archive", {"y.zip": "PK\5\6" + "\0" * 18},
     Member("y.zip", "PK\5\6" + "\0" * 18), make=True)
refused("members that share their bytes", PROTECTED, Member("a.h", "\0" * 100000),
        Member("b.h", "\0" * 100000, same_data=True, local_name="a.h"))
runs("member that is longer than it says", {"x.h": "x" * 100000},
     Member("x.h", "x" * 100000, size=10))
runs("member that is shorter than it says", {"x.h": X}, Member("x.h", size=1 << 30))
runs("member with no size at all", {"x.h": X}, Member("x.h", size=0xffffffff))
runs("many members", {"%d.h" % i: "" for i in range(2000)},
     *[Member("%d.h" % i, "", method=STORED) for i in range(2000)])

# Names.
fails("two members of a name", {"hello.c": X}, "undefined reference to `main'", Member("hello.c"))
runs("names that differ in case", {"a.h": "a", "A.h": "A"}, Member("a.h", "a"), Member("A.h", "A"))
fails("empty name", {"hello.c": X}, "undefined reference to `main'", Member(""))
runs("name of a dot", {"_": X}, Member("."))
runs("newline", {"ab.h": X}, Member("a\nb.h"))
runs("terminal sequence", {"[31mx.h": X}, Member("\x1b[31mx.h"))
runs("quotes", {"'\".h": X}, Member("'\".h"), make=True)
runs("commands as names", {"$(touch pwned)": X, "`touch pwned`": X, "; touch pwned #": X,
                           "|touch pwned": X, "& touch pwned": X},
     *[Member(name) for name in ("$(touch pwned)", "`touch pwned`", "; touch pwned #",
                                 "|touch pwned", "& touch pwned")], make=True)
fails("command as the name of a source", {"$(touch pwned).c": X}, "a name may only have",
      Member("$(touch pwned).c"))
fails("blank in the name of a source", {"a b.c": X}, "a name may only have", Member("a b.c"))
fails("pattern as the name of a source", {"*.c": X}, "a name may only have", Member("*.c"))
fails("percent in the name of a source", {"%.c": X}, "a name may only have", Member("%.c"))
runs("patterns as names", {"*": X, "[a-z].h": X, "?": X}, Member("*"), Member("[a-z].h"),
     Member("?"), make=True)
runs("options as names", {"-rf": X, "--version": X, "-rf.c": X, "-o.c": "int o;\n"},
     Member("-rf"), Member("--version"), Member("-rf.c"), Member("-o.c", "int o;\n"), make=True)
runs("response file as a name", {"@x.c": X, "x": "-o %s" % PWNED}, Member("@x.c"),
     Member("x", "-o %s" % PWNED), make=True)
runs("no UTF-8", {"\udcf0\udcfe.h": X}, Member(b"\xf0\xfe.h"))
runs("no UTF-8 though it says so", {"\udcf0\udcfe.h": X}, Member(b"\xf0\xfe.h", flags=UTF8))
runs("name of 255 bytes", {"n" * 253 + ".h": X}, Member("n" * 253 + ".h"))
runs("name of 256 bytes", {}, Member("n" * 254 + ".h"))
runs("400 directories deep", {**{"/".join("d" * depth): DIRECTORY for depth in range(1, 401)},
                              "d/" * 400 + "x.h": X}, Member("d/" * 400 + "x.h"))
refused("path that is too long", DAMAGED, Member("d/" * 2500 + "x.h"))
fails("file that is a directory, too", {"y.c": DIRECTORY, "y.c/x.h": X},
      "source 'y.c' is not a file", Member("y.c/x.h"), Member("y.c"))
runs("directory that is a file, too", {"y": X}, Member("y"), Member("y/x.h"))

# What make would take for its own.
COMMAND = "$(shell touch %s)\nall:\n\ttouch %s\n" % (PWNED, PWNED)
runs("makefiles", {name: COMMAND for name in ("Makefile", "makefile", "GNUmakefile")},
     *[Member(name, COMMAND) for name in ("Makefile", "makefile", "GNUmakefile")], make=True)
runs("names that make knows", {name: X for name in (
    ".SHELLFLAGS", "MAKEFLAGS", ".PHONY", "all", ".DEFAULT", "FORCE", "src", "BIN")},
     *[Member(name) for name in (".SHELLFLAGS", "MAKEFLAGS", ".PHONY", "all", ".DEFAULT", "FORCE",
                                 "src", "BIN")], make=True)
runs("makefile as a source", {"Makefile.c": X}, Member("Makefile.c"), make=True)
runs("commands that the compiler calls", {name: COMMAND for name in ("as", "ld", "cc1", "gcc")},
     *[Member(name, COMMAND, mode=stat.S_IFREG | 0o755) for name in ("as", "ld", "cc1", "gcc")],
     make=True)

# Structure.
refused("something before the archive", DAMAGED, prefix=b"#!/bin/sh\ntouch pwned\n", adjust=False)
runs("something before the archive that counts", {}, prefix=b"#!/bin/sh\ntouch pwned\n")
runs("something behind the archive", {}, tail=b"x" * 1000)
runs("comment like a terminal sequence", {}, comment=b"\x1b]0;pwned\x07\x1b[2J")
refused("comment like the end of an archive", DAMAGED, comment=b"PK\5\6" + b"\xff" * 18)
refused("fewer members than it says", DAMAGED, count=2)
refused("more members than it says", DAMAGED, Member("x.h"), count=1)
refused("strong encryption", PROTECTED, Member("x.h", flags=0x41))
refused("unknown method", PROTECTED, Member("x.h", method=99))
refused("extra field that is longer than there are bytes", PROTECTED,
        Member("x.h", extra=field(0x5455, b"")[:2] + b"\xff\x7f", local_extra=b"\x75\x70\xff\x7f"))
runs("owner in an extra field", {"x.h": X},
     Member("x.h", local_extra=field(0x7875, b"\1\4\xfe\xff\0\0\4\xfe\xff\0\0")))


def zip64():
    data = BytesIO()
    with zipfile.ZipFile(data, "w") as archive, \
            archive.open("hello.c", "w", force_zip64=True) as member:
        member.write(RUN_IT.encode())
    return data.getvalue()


put(BUILT, "64 bits", {"hello.c": RUN_IT}, True, zip64)

MODES = {"block device": stat.S_IFBLK | 0o644, "character device": stat.S_IFCHR | 0o644,
         "FIFO": stat.S_IFIFO | 0o644, "socket": stat.S_IFSOCK | 0o644,
         "program of its owner": stat.S_IFREG | 0o4755,
         "program of its group": stat.S_IFREG | 0o2755,
         "sticky file": stat.S_IFREG | 0o1777, "no type": 0o644, "no permissions": stat.S_IFREG}
