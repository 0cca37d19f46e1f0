"""Debian packages, fetched and unpacked in a folder and not installed: what would be a service is not
started, and the machine stays as it was.

    packages.py FOLDER PACKAGE..."""

import os
import pathlib
import subprocess
import sys
import tempfile


class Unavailable(Exception):
    """What is missing on this machine, in one line."""


def unpack(folder, *packages):
    """Makes the folder with what the packages contain; does nothing when it is there."""
    folder = pathlib.Path(folder)
    if folder.exists():
        return
    with tempfile.TemporaryDirectory(prefix="packages-") as fetched:
        os.chmod(fetched, 0o777)  # apt fetches as a user of its own
        if _download(fetched, packages):  # the lists may be old, or not be there
            subprocess.run(["apt-get", "update", "-qq"], capture_output=True, check=False)
            if reason := _download(fetched, packages):
                raise Unavailable(f"cannot fetch {packages[0]} and more: {reason}")
        _place(folder, pathlib.Path(fetched).glob("*.deb"))


def _download(folder, packages):
    """Why it failed, one line, or nothing."""
    done = subprocess.run(["apt-get", "download", "-qq", *packages], cwd=folder,
                          capture_output=True, text=True, check=False)
    return (done.stderr.strip() or "no reason given").splitlines()[-1] if done.returncode else ""


def _place(folder, files):
    """All of it at once: several tests may find that it is missing."""
    folder.parent.mkdir(parents=True, exist_ok=True)
    with tempfile.TemporaryDirectory(prefix=folder.name, dir=folder.parent,
                                     ignore_cleanup_errors=True) as unpacked:
        for file in files:
            subprocess.run(["dpkg-deb", "-x", file, unpacked], check=True)
        os.chmod(unpacked, 0o755)
        try:
            os.rename(unpacked, folder)
        except OSError:
            if not folder.exists():
                raise



if __name__ == "__main__":
    try:
        unpack(*sys.argv[1:])
    except Unavailable as reason:
        sys.exit(str(reason))
