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
            _renew_lists()
            if reason := _download(fetched, packages):
                raise Unavailable(f"cannot fetch {packages[0]} and more: {reason}")
        _place(folder, pathlib.Path(fetched).glob("*.deb"))


def with_needed(*packages):
    """The packages and all that they need, without those that are installed."""
    lines = _simulated(packages)
    if lines is None:  # the lists may be old, or not be there
        _renew_lists()
        lines = _simulated(packages)
    if lines is None:
        raise Unavailable(f"apt-get finds no way to have {packages[0]} and more")
    return [line.split()[1] for line in lines if line.startswith("Inst ")]


def _simulated(packages):
    """What apt would do, or None where it cannot."""
    done = subprocess.run(["apt-get", "install", "--simulate", "--no-install-recommends", *packages],
                          capture_output=True, text=True, check=False)
    return None if done.returncode else done.stdout.splitlines()


def _renew_lists():
    subprocess.run(["apt-get", "update", "-qq"], capture_output=True, check=False)


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
