"""Two real strongSwan daemons on this machine, each in a network namespace of its own, for tests and
recordings: Debian's packages, unpacked beside the build.

Everything hangs on the process that makes it: when that ends, in whatever way, its daemons are killed
and its namespaces vanish with the last process in them.

With ESP in user space (kernel-libipsec) any kernel will do that has XFRM, veth and /dev/net/tun; its
tunnels are in tunnel mode between addresses that are not those of IKE."""

import os
import pathlib
import shutil
import signal
import subprocess
import tempfile
import time

import packages
import vici_client

REPOSITORY = pathlib.Path(__file__).resolve().parents[2]
UNPACKED = pathlib.Path(os.environ.get("STRONGSWAN", REPOSITORY / "build" / "strongswan"))
PACKAGES = ("libstrongswan", "strongswan-libcharon", "strongswan-charon", "strongswan-swanctl",
            "libcharon-extra-plugins")
PATIENCE = 20  # seconds for a daemon to come or go, and for one command
LIBRARIES = "x86_64-linux-gnu", "aarch64-linux-gnu", "i386-linux-gnu"
PLUGINS = "random nonce aes sha1 sha2 hmac kdf gmp {esp} kernel-netlink socket-default vici"
USER_SPACE, KERNEL = "kernel-libipsec", ""  # whose ESP it is
CHARON_CONF = """charon {{
  load = {plugins}
  install_routes = no
  retransmit_tries = {tries}
  retransmit_timeout = 1.0
  retransmit_base = 1.0
  plugins {{
    vici {{ socket = unix://{folder}/charon.vici }}
  }}
  filelog {{ main {{
    path = {folder}/log
    default = 1
    flush_line = yes
  }} }}
}}
"""
SWANCTL_CONF = "swanctl {\n  load =\n}\n"


TRIED = """
set -e
mount --make-rprivate /
mount -t tmpfs none /tmp
ip link add veth1 type veth peer name veth2
ip link add vxlan1 type vxlan id 1 dstport 4789
ip tuntap add tun1 mode tun
ip xfrm policy
"""


def probe():
    """Raises packages.Unavailable when this machine cannot have the two daemons."""
    if os.geteuid() != 0:
        raise packages.Unavailable("network namespaces need root")
    for program in ("unshare", "nsenter", "setpriv", "chroot", "ip"):
        if shutil.which(program) is None:
            raise packages.Unavailable(f"there is no program {program}")
    done = subprocess.run(["unshare", "--net", "--mount", "sh", "-c", TRIED], capture_output=True,
                          text=True, check=False)
    if done.returncode != 0:
        raise packages.Unavailable(
            "network namespaces, their links or /dev/net/tun cannot be had: "
            + (done.stderr.strip() or "no reason given").splitlines()[-1])
    packages.unpack(UNPACKED, *PACKAGES)


def until(holds, what, seconds=PATIENCE):
    """Waits for it to hold."""
    end = time.monotonic() + seconds
    while not holds():
        if time.monotonic() > end:
            raise AssertionError("never happened: " + what)
        time.sleep(0.02)


def _ends_with_us(command):
    return ["setpriv", "--pdeathsig", "KILL", "--", *map(str, command)]


class Namespace:
    """A network namespace, and a mount namespace in which strongSwan's files are in place below
    `root`. It has no name: it is there while its first process is, which ends with us."""

    PLACES = """
set -e
mount --make-rprivate /
mount -t tmpfs none "$1"
cd "$1"
mkdir -p dev etc lib64 proc run tmp usr/lib/ipsec var "./$2"
ln -s usr/lib lib
ln -s ../run var/run
mount --rbind /dev dev
mount --rbind /proc proc
mount --rbind "$2" "./$2"
mount --bind "$3/usr/lib/ipsec" usr/lib/ipsec
[ ! -d /lib64 ] || mount --bind /lib64 lib64
shift 3
for libraries; do
  [ -d "/usr/lib/$libraries" ] || continue
  mkdir "usr/lib/$libraries"
  mount --bind "/usr/lib/$libraries" "usr/lib/$libraries"
done
echo root:x:0:0::/:/bin/sh >etc/passwd
echo root:x:0: >etc/group
printf '%s\\n' 'udp 17 UDP' 'gre 47 GRE' 'ipencap 4 IP-ENCAP' 'ipv6 41 IPv6' >etc/protocols
ip link set lo up
echo ready
exec cat
"""

    def __init__(self, folder):
        """`folder` is seen inside as well, at its own path."""
        self.root = tempfile.mkdtemp(prefix="root-", dir=folder)
        self.first = subprocess.Popen(
            _ends_with_us(["unshare", "--net", "--mount", "--", "sh", "-c", self.PLACES, "sh",
                           self.root, folder, UNPACKED, *LIBRARIES]),
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
        if self.first.stdout.readline() != "ready\n":
            raise AssertionError("no namespace")

    @property
    def pid(self):
        return self.first.pid

    def inside(self, *command, chroot=False):
        """The command that runs there, among this machine's files or strongSwan's; it ends with us."""
        enter = ["nsenter", f"--target={self.pid}", "--net"]
        way = ["--mount", "chroot", self.root] if chroot else []
        return _ends_with_us([*enter, *way, *command])

    def run(self, *command, **options):
        done = subprocess.run(self.inside(*command), capture_output=True, text=True, check=False,
                              timeout=PATIENCE, **options)
        if done.returncode != 0:
            raise AssertionError(f"{command}: {done.stdout}{done.stderr}")
        return done.stdout

    def ip(self, *lines):
        """Runs ip with the words of each line."""
        if len(lines) == 1:
            return self.run("ip", *lines[0].split())
        return self.run("ip", "-batch", "-", input="\n".join(lines))

    def end(self):
        self.first.kill()
        self.first.communicate()


class Daemon:
    """charon in a namespace, with its own socket, log and configuration in a folder."""

    def __init__(self, namespace, folder, connections, esp=USER_SPACE, tries=60):
        """`connections` is the text of swanctl.conf; `tries` how often it asks a silent peer, once a
        second."""
        self.namespace = namespace
        self.folder = pathlib.Path(folder)
        self.socket = str(self.folder / "charon.vici")
        self.child = None
        (self.folder / "swanctl").mkdir(parents=True)
        self._write("strongswan.conf", CHARON_CONF.format(
            plugins=PLUGINS.format(esp=esp), folder=folder, tries=tries))
        self._write("swanctl.strongswan.conf", SWANCTL_CONF)
        self.configure(connections)

    def _write(self, name, text):
        (self.folder / name).write_text(text, encoding="utf-8")

    def configure(self, connections):
        """The text of swanctl.conf, for the next start or load()."""
        self._write("swanctl/swanctl.conf", connections)

    def start(self):
        """Starts it and loads its configuration."""
        self.launch()
        self.load()

    def launch(self):
        with open(self.folder / "errors", "ab") as errors:
            self.child = subprocess.Popen(
                self.namespace.inside("/usr/lib/ipsec/charon", chroot=True),
                env={"STRONGSWAN_CONF": f"{self.folder}/strongswan.conf"} | os.environ,
                stdin=subprocess.DEVNULL, stdout=errors, stderr=errors)
        until(self._answers, f"charon's start in {self.folder}")

    def _answers(self):
        if self.child.poll() is not None:
            raise AssertionError("charon has ended: " + self.log())
        try:
            with vici_client.Vici(self.socket) as vici:
                vici.request("version")
            return True
        except (OSError, EOFError):
            return False

    def log(self):
        return "".join((self.folder / name).read_text(encoding="utf-8", errors="replace")
                       for name in ("log", "errors") if (self.folder / name).exists())

    def load(self):
        self.swanctl("--load-all", "--clear")

    def swanctl(self, *arguments, check=True):
        """What swanctl prints."""
        done = subprocess.run(
            _ends_with_us([UNPACKED / "usr/sbin/swanctl", arguments[0], "--uri",
                           "unix://" + self.socket, *arguments[1:]]),
            env={**os.environ, "LD_LIBRARY_PATH": str(UNPACKED / "usr/lib/ipsec"),
                 "STRONGSWAN_CONF": str(self.folder / "swanctl.strongswan.conf"),
                 "SWANCTL_DIR": str(self.folder / "swanctl")},
            capture_output=True, text=True, timeout=PATIENCE, check=False)
        if check and done.returncode != 0:
            raise AssertionError(f"swanctl {arguments}: {done.stdout}{done.stderr}{self.log()}")
        return done.stdout

    def initiate(self, child):
        self.swanctl("--initiate", "--child", child)

    def begin_to_initiate(self, child):
        """As initiate(), without waiting for what comes of it."""
        self.ask("initiate", child=child, timeout="-1")

    def ask(self, command, **message):
        """Its answer to a command of vici."""
        with vici_client.Vici(self.socket) as vici:
            return vici.request(command, message)[0]

    def rekey(self, what, name):
        """`what` is "ike" or "child"."""
        self.swanctl("--rekey", "--" + what, name)

    def terminate(self, what, name):
        self.swanctl("--terminate", "--" + what, name)

    def sas(self):
        """{connection: IKE_SA}; of several of one connection the one that is listed last."""
        with vici_client.Vici(self.socket) as vici:
            return vici.listing("list-sas", "list-sa")

    def kill(self):
        """At once, without a word to its peer."""
        self.signal(signal.SIGKILL)
        self.wait()

    def stop(self):
        """As the system would at its end: it says goodbye."""
        self.signal(signal.SIGTERM)
        self.wait()

    def freeze(self):
        """Returns when none of its threads goes on: each stops in its own time."""
        self.signal(signal.SIGSTOP)
        threads = pathlib.Path(f"/proc/{self.child.pid}/task")
        until(lambda: all(_is_still(thread) for thread in threads.iterdir()), "all stop")

    def thaw(self):
        self.signal(signal.SIGCONT)

    def signal(self, number):
        self.child.send_signal(number)

    def wait(self):
        return self.child.wait(PATIENCE)

    def end(self):
        if self.child is not None and self.child.poll() is None:
            self.kill()


def _is_still(thread):
    """Whether it is stopped, or gone. The name before its state may have blanks and parentheses."""
    try:
        return (thread / "stat").read_text(encoding="utf-8").rpartition(") ")[2][0] == "T"
    except (FileNotFoundError, ProcessLookupError):
        return True


class Pair:
    """Daemons `a` and `b` whose namespaces a veth, `v`, joins: IKE between 10.9.0.1 and .2 and further
    such addresses, tunnels between 10.8.0.1 and .2 and further such, each on its lo."""

    def __init__(self, folder, connections, esp=USER_SPACE, tries=60):
        """`connections(own, peer)` gives the text of swanctl.conf of the side of that number."""
        os.chmod(folder, 0o755)
        self.folder = pathlib.Path(folder)
        self.namespaces, self.daemons = [], []
        try:
            for own in (1, 2):
                namespace = Namespace(folder)
                self.namespaces.append(namespace)
                self.daemons.append(Daemon(namespace, self.folder / "ab"[own - 1],
                                           connections(own, 3 - own), esp, tries))
            self._join()
        except BaseException:
            self.end()
            raise

    def _join(self):
        left, right = self.namespaces
        left.ip(f"link add v type veth peer name v netns {right.pid}")
        for own, namespace in ((1, left), (2, right)):
            namespace.ip("link set v up",
                         *(f"address add 10.9.{network}.{own}/24 dev v" for network in range(3)),
                         *(f"address add 10.8.{network}.{own}/32 dev lo" for network in range(8)))

    @property
    def a(self):
        return self.daemons[0]

    @property
    def b(self):
        return self.daemons[1]

    def start(self):
        for daemon in self.daemons:
            daemon.start()

    def end(self):
        for each in self.daemons + self.namespaces:
            each.end()


SECRETS = 'secrets { ike-all { secret = "test-only" } }\n'


def connection(name, own, peer, children, more="", network=0):  # pylint: disable=too-many-arguments
    """The text of one connection: between 10.9.NETWORK.OWN and .PEER."""
    return f"""connections {{ {name} {{
  version = 2
  mobike = no
  local_addrs = 10.9.{network}.{own}
  remote_addrs = 10.9.{network}.{peer}
  proposals = aes128-sha256-modp2048
  {more}
  local {{
    auth = psk
    id = {name}-{own}
  }}
  remote {{
    auth = psk
    id = {name}-{peer}
  }}
  children {{
{children}
  }}
}} }}
"""


def tunnel_child(name, own, peer, network):
    """A child in tunnel mode between 10.8.NETWORK.OWN and .PEER."""
    return child_of(name, f"local_ts = 10.8.{network}.{own}/32",
                    f"remote_ts = 10.8.{network}.{peer}/32")


def child_of(name, *lines):
    return "\n".join([f"    {name} {{", *("      " + line for line in
                                         ("esp_proposals = aes128-sha256", *lines)), "    }", ""])
