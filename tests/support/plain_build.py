"""The build that commands of tests work with: that of ./test, as it is shipped."""

import os
import pathlib
import subprocess

ROOT = pathlib.Path(__file__).resolve().parents[2]
BUILD = ROOT / "build" / "plain"


def build(*packages):
    """Builds the daemon with its plug-in and its tool, and installs what that needs and those Debian
    packages. Returns the folder of the programs."""
    os.environ.update(CCACHE_BASEDIR=str(ROOT), CCACHE_NOHASHDIR="1",
                      CCACHE_SLOPPINESS="pch_defines,time_macros")
    needed = [line for line in (ROOT / "packaging/build-packages").read_text().split("\n")
              if line and not line.startswith("#")]
    # What ./test needs beside that for configuring is installed by it.
    subprocess.run([ROOT / "packaging/install-packages", *" ".join(needed).split(), "ccache",
                    *packages], check=True)
    if not (BUILD / "build.ninja").exists():
        subprocess.run(["cmake", "-S", ROOT, "-B", BUILD, "-G", "Ninja", "-DBUILD_TESTING=OFF",
                        "-DCMAKE_BUILD_TYPE=RelWithDebInfo", "-DWARNINGS_AS_ERRORS=ON",
                        "-DCMAKE_CXX_FLAGS_RELWITHDEBINFO=-O2 -DNDEBUG",
                        "-DCMAKE_CXX_COMPILER_LAUNCHER=ccache"],
                       check=True, stdout=subprocess.DEVNULL)
    subprocess.run(["cmake", "--build", BUILD, "--target", "tunnelsnmpd", "tunnelsnmpctl",
                    "TunnelIntfSnmp"], check=True, stdout=subprocess.DEVNULL)
    return BUILD / "bin"
