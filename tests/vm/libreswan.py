"""libreswan's daemon in a namespace of the emulated machine, where its programs are in their places: one
connection, gre in transport mode to a strongSwan as tests/system/strongswan.py makes it."""

import pathlib
import subprocess

import strongswan

PROGRAMS = pathlib.Path("/usr/libexec/ipsec")
CONF = """config setup
conn gre
  type = transport
  authby = secret
  ikev2 = insist
  left = 10.9.0.1
  leftid = @gre-1
  leftprotoport = gre
  leftupdown = ""
  right = 10.9.0.2
  rightid = @gre-2
  rightprotoport = gre
  ike = aes128-sha2_256-modp2048
  phase2alg = aes128-sha2_256
  pfs = no
  auto = add
"""
SECRETS = '@gre-1 @gre-2 : PSK "test-only"\n'


class Daemon:
    def __init__(self, namespace, folder):
        self.namespace = namespace
        self.folder = pathlib.Path(folder)
        self.child = None
        for name in ("nss", "policies"):
            (self.folder / name).mkdir(parents=True)
        (self.folder / "conf").write_text(CONF, encoding="utf-8")
        (self.folder / "secrets").write_text(SECRETS, encoding="utf-8")
        namespace.run("certutil", "-N", "-d", f"sql:{self.folder}/nss", "--empty-password")

    def start(self):
        with open(self.folder / "errors", "wb") as errors:
            self.child = subprocess.Popen(
                self.namespace.inside(
                    PROGRAMS / "pluto", "--nofork", "--no-dnssec", "--rundir", self.folder,
                    "--nssdir", self.folder / "nss", "--ipsecdir", self.folder / "policies",
                    "--secretsfile", self.folder / "secrets", "--logfile", self.folder / "log"),
                stdout=errors, stderr=errors)
        strongswan.until(self._answers, "pluto's start")
        # It adds the connection and has pluto listen.
        self.namespace.run(PROGRAMS / "addconn", "--config", self.folder / "conf", "--ctlsocket",
                           self.folder / "pluto.ctl", "--autoall")

    def _answers(self):
        if self.child.poll() is not None:
            raise AssertionError("pluto has ended: " + self.log())
        return (self.folder / "pluto.ctl").exists()

    def log(self):
        return "".join((self.folder / name).read_text(encoding="utf-8", errors="replace")
                       for name in ("log", "errors") if (self.folder / name).exists())

    def whack(self, *arguments):
        self.namespace.run(PROGRAMS / "whack", "--rundir", self.folder, *arguments)

    def end(self):
        if self.child is not None:
            self.child.kill()
            self.child.wait()
