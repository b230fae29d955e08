# SPDX-License-Identifier: MIT
"""Archives of sources for vkahost."""
import pathlib
import zipfile

TREE = pathlib.Path(__file__).resolve().parents[2]
PROGRAMS = pathlib.Path(__file__).resolve().parent / "programs"
EXAMPLES = TREE / "examples"

HELLO = {"hello.c": "#include <stdio.h>\nint main(void) { puts(\"hello\"); return 7; }\n"}


def pack(path, members, compression=zipfile.ZIP_DEFLATED):
    """Writes an archive of {name: text or bytes}; returns its path. Names are taken as they are."""
    with zipfile.ZipFile(path, "w", compression) as archive:
        for name, content in members.items():
            info = zipfile.ZipInfo(name)
            info.filename = name  # without the changes that the constructor makes
            info.compress_type = compression
            info.external_attr = 0o644 << 16
            archive.writestr(info, content)
    return path


def pack_directory(path, directory):
    return pack(path, {file.name: file.read_bytes() for file in sorted(directory.iterdir())})
