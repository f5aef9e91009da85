"""Holds what the package says of the C headers (layouts, codes, calls) against the headers."""
import ctypes
import enum
import pathlib
import subprocess
import sys
import tempfile
import unittest

import eas
import eas._c
import eas.node._c
from eas.errors import SchedulerError
from eas.node.errors import MOVED, TOO_SMALL

INCLUDE, SOURCE = sys.argv[1:3]
PREFIXES = {
    eas.node.FigureId: "EASNODE_",
    eas.node.Quality: "EASNODE_",
    eas.node.Registers: "EASNODE_REGISTERS_",
    eas.node.Extent: "EASNODE_",
    eas.node.SourceState: "EASNODE_",
    eas.node.Method: "EASNODE_FREQUENCY_",
    eas.node.Turbo: "EASNODE_TURBO_",
    eas.node.NominalSource: "EASNODE_NOMINAL_",
    eas.node.Verdict: "EASNODE_",
}
SCALARS = {
    ctypes.c_int: "int",
    ctypes.c_int32: "int32_t",
    ctypes.c_size_t: "size_t",
    ctypes.c_double: "double",
    ctypes.c_char: "char",
    ctypes.c_char_p: "char*",
    ctypes.c_void_p: "void*",
}


def structures():
    for module in (eas._c, eas.node._c):
        for kind in vars(module).values():
            if isinstance(kind, type) and issubclass(kind, ctypes.Structure):
                yield kind


def c_type(kind):
    """How C spells a type of a prototype; a handle's address may be anything's."""
    if kind in SCALARS:
        return SCALARS[kind]
    if issubclass(kind, ctypes.Structure):
        return kind.__doc__.split(".")[0]
    inner = c_type(kind._type_)
    return "void*" if inner.startswith("void") else inner + "*"


def expected_numbers():
    """What C has to say, each with what this package has."""
    for kind in structures():
        name = c_type(kind)
        yield f"sizeof({name})", ctypes.sizeof(kind)
        for field, *_ in kind._fields_:
            place = getattr(kind, field)
            yield f"offsetof({name}, {field})", place.offset
            yield f"sizeof((({name}*)0)->{field})", place.size
    for kind, prefix in PREFIXES.items():
        for member in kind:
            yield prefix + member.name, member.value
    for error in (*SchedulerError.__subclasses__(), *eas.node.NodeError.__subclasses__()):
        yield error.c_name, error.code
    yield "EASNODE_TOO_SMALL", TOO_SMALL
    yield "EASNODE_MOVED", MOVED
    yield "EASNODE_NO_MEMORY", -2
    yield "EASNODE_FREQUENCY_TEXT_SIZE", eas.node._c.FREQUENCY_TEXT_SIZE


def calls():
    """A call of every function, with arguments of the types that this package passes."""
    for name, (_, arguments) in {**eas._c.PROTOTYPES, **eas.node._c.PROTOTYPES}.items():
        values = ", ".join(f"({c_type(kind)})0" for kind in arguments)
        yield f"(void){name}({values});"


class Headers(unittest.TestCase):
    def test_layouts_codes_and_calls_are_those_of_the_headers(self):
        expected = dict(expected_numbers())
        lines = [f'printf("%lld\\n", (long long)({text}));' for text in expected]
        program = "\n".join(
            ["#include <eas/interface.h>", "#include <eas/node.h>", "#include <stdio.h>"]
            + ["int main(int argc, char** argv) {", "(void)argv;", *lines]
            + ["if (argc > 1) {", *calls(), "}", "return 0; }"]
        )
        with tempfile.TemporaryDirectory() as scratch:
            source, binary = pathlib.Path(scratch, "layout.c"), pathlib.Path(scratch, "layout")
            source.write_text(program)
            strict = ["-std=c11", "-Werror", "-Wall", "-Wconversion", "-Wno-nonnull"]
            libraries = [f"-L{SOURCE}", f"-Wl,-rpath,{SOURCE}", "-leas", "-leasnode"]
            command = ["cc", *strict, f"-I{INCLUDE}", str(source), "-o", str(binary), *libraries]
            subprocess.run(command, check=True)
            output = subprocess.run([binary], check=True, capture_output=True, text=True).stdout
        found = dict(zip(expected, map(int, output.split())))
        differ = {text: n for text, n in found.items() if n != expected[text]}
        self.assertEqual(differ, {})
        self.assertGreater(len(expected), 200)

    def test_every_enumeration_is_looked_at(self):
        kinds = {k for k in vars(eas.node).values() if isinstance(k, type)}
        self.assertEqual({k for k in kinds if issubclass(k, enum.IntEnum)}, set(PREFIXES))


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
