# SPDX-License-Identifier: MIT
import pytest
from makefile_support import REBUILT_ALL, Project, made


@pytest.fixture
def project(tmp_path):
    made = Project(tmp_path)
    yield made
    made.end_all()


@pytest.fixture
def built(project):
    """A program that prints what a.h and an installed header say, built once."""
    (project.prefix / "include/outside.h").write_text("#define OUTSIDE 1\n")
    project.write("a.h", "#define A 1\n")
    project.write("proto.h", "int a(void), b(void);\n")
    project.write("a.c", '#include "a.h"\n#include "proto.h"\nint a(void) { return A; }\n')
    project.write("b.c", '#include <outside.h>\n#include "proto.h"\nint b(void) { return OUTSIDE; }\n')
    project.write(
        "main.c",
        '#include <stdio.h>\n#include "proto.h"\n'
        'int main(void) { printf("%d %d\\n", a(), b()); return 0; }\n',
    )
    assert made(project.make()) == REBUILT_ALL
    assert project.program_output() == "1 1\n"
    return project
