"""The board that the driver shares with faulty.c: how many calls of each kind there were, and which one
is to fail. The layout is that of `struct Board` there."""

import ctypes
import mmap
import pathlib
import subprocess

NONE = 2**64 - 1
KINDS_MOST = 64
HERE = pathlib.Path(__file__).resolve().parent


class _Kind(ctypes.Structure):
    _fields_ = [("name", ctypes.c_char * 24), ("count", ctypes.c_uint64)]


class _Layout(ctypes.Structure):
    _fields_ = [("kind", ctypes.c_uint64), ("number", ctypes.c_uint64), ("error", ctypes.c_uint64),
                ("failed", ctypes.c_uint64), ("caller", ctypes.c_char * 128),
                ("kinds", _Kind * KINDS_MOST)]


def compile_library(folder):
    """Compiles what LD_PRELOAD loads; returns its path."""
    library = pathlib.Path(folder) / "faulty.so"
    subprocess.run(["cc", "-O2", "-Wall", "-Wextra", "-Werror", "-fPIC", "-shared",
                    "-Wl,-z,initfirst", "-o", library, HERE / "faulty.c"], check=True)
    return library


class Board:
    """Nothing fails until it is asked for."""

    def __init__(self, path):
        self.path = str(path)
        size = ctypes.sizeof(_Layout)
        with open(path, "wb") as file:
            file.write(bytes(size))
        with open(path, "r+b") as file:
            self.layout = _Layout.from_buffer(mmap.mmap(file.fileno(), size))
        self.disarm()

    def environment(self, library):
        return {"LD_PRELOAD": str(library), "FAULTS_BOARD": self.path}

    def arm(self, kind, number, error, from_now=False):
        """The call of that kind and number fails, counted from 1: since the start, or from now on."""
        index = self.index(kind)
        self.layout.failed = 0
        self.layout.caller = b""
        self.layout.error = error
        self.layout.number = number + (self.layout.kinds[index].count if from_now else 0)
        self.layout.kind = index  # last: from here on it may happen

    def disarm(self):
        self.layout.kind = NONE
        self.layout.number = 0

    def counts(self):
        """{kind: calls so far}"""
        return {one.name.decode(): one.count for one in self.layout.kinds if one.name}

    def forget(self):
        """For another start."""
        self.disarm()
        for one in self.layout.kinds:
            one.count = 0

    def index(self, kind):
        return next(number for number, one in enumerate(self.layout.kinds)
                    if one.name.decode() == kind)

    @property
    def has_failed(self):
        return self.layout.failed != 0

    @property
    def caller(self):
        return self.layout.caller.decode(errors="replace")
