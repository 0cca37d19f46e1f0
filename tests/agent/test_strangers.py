"""What a stranger on the network may send to the real daemon, and what a manager may do that is no
friend: the daemon goes on, and is there for the others within a second."""

import os
import resource
import socket
import time

import ber
import snmpv3
import test_daemon
from test_daemon import TUNNEL_IF_TABLE, V3_CONFIG, DaemonTest

CONFIG = ("rocommunity public 127.0.0.1\n" + V3_CONFIG + "createUser open\nrouser open noauth\n")
CELL = TUNNEL_IF_TABLE.strip(".") + ".1"
HIGH = 2147483647
LEAST = 484  # that RFC 3412 section 6 allows to announce


class Strangers(DaemonTest):
    def start_with_users(self):
        return self.start_office("--config", self.write("access.conf", CONFIG))

    def manager(self, secure=False):
        passwords = {"auth": b"the-auth-pass", "priv": b"the-priv-pass"} if secure else {}
        manager = snmpv3.Manager(self.address, "reader" if secure else "open",
                                 patience=test_daemon.PATIENCE, **passwords)
        self.addCleanup(manager.close)
        manager.discover()
        return manager

    def assert_still_there(self, manager):
        began = time.monotonic()
        answer = manager.ask(ber.pdu(ber.GET, [f"{CELL}.4.2001"], request_id=77))
        self.assertEqual((77, 0, 1), (answer.request_id, answer.error_status,
                                      len(answer.varbinds)))
        self.assertLess(time.monotonic() - began, test_daemon.PATIENCE if self.is_slow() else 1)

    @staticmethod
    def is_slow():
        return test_daemon.PATHS.slow


class SmallAnswers(Strangers):
    """A manager may announce that it takes messages of 484 octets at most."""

    def requests(self):
        cells = [f"{CELL}.4.{2001 + number % 14}" for number in range(40)]
        return {"get": ber.pdu(ber.GET, cells),
                "getnext": ber.pdu(ber.GETNEXT, cells),
                "getbulk": ber.pdu(ber.GETBULK, [f"{CELL}.3"], third=90),
                "getbulk of many": ber.pdu(ber.GETBULK, cells[:25], second=3, third=4),
                "set": ber.pdu(ber.SET, cells, value=ber.integer(1))}

    def assert_answers_fit(self, manager, sizes):
        for name, request in self.requests().items():
            whole = manager.ask(request)
            self.assertGreater(whole.size, 900, "the requests must have long answers")
            for size in sizes:
                answer = manager.ask(request, size)
                where = f"{name} of a manager that takes {size}"
                self.assertIsNotNone(answer, where)
                self.assertLessEqual(answer.size, size, where)
                if whole.size <= size:
                    self.assertEqual((whole.error_status, len(whole.varbinds)),
                                     (answer.error_status, len(answer.varbinds)), where)
                elif name == "getbulk":  # what a walk needs to go on
                    self.assertEqual(0, answer.error_status, where)
                    self.assertGreater(len(answer.varbinds), 0, where)
                elif name != "getbulk of many" or answer.error_status != 0:
                    self.assertEqual((ber.TOO_BIG, 0, 0),
                                     (answer.error_status, answer.error_index,
                                      len(answer.varbinds)), where)
        self.assert_still_there(manager)

    def sizes(self):
        return range(LEAST, 2001, 1 if test_daemon.PATHS.thorough else 61)

    def test_are_shortened_or_too_big_for_every_size(self):
        self.start_with_users()
        self.assert_answers_fit(self.manager(), self.sizes())

    def test_are_shortened_or_too_big_when_they_are_encrypted(self):
        self.start_with_users()
        self.assert_answers_fit(self.manager(secure=True), self.sizes())

    def test_a_walk_in_small_answers_sees_what_a_walk_in_large_ones_sees(self):
        self.start_with_users()
        manager = self.manager()

        def names(announced):
            seen, last = [], CELL
            while True:
                answer = manager.ask(ber.pdu(ber.GETBULK, [last], third=50), announced)
                for bind in answer.varbinds:
                    oid, value = bind.children()
                    if value.tag == 0x82 or not oid.content.startswith(
                            ber.Element(ber.oid(CELL)).content):
                        return seen
                    seen.append(oid.content)
                    last = ber.oid_text(oid.content)
        whole = names(snmpv3.LARGEST)
        self.assertGreater(len(whole), 100)
        self.assertEqual(whole, names(LEAST))

    def test_sizes_that_no_manager_may_announce_are_dropped(self):
        self.start_with_users()
        manager = self.manager()
        manager.socket.settimeout(0.2)
        request = ber.pdu(ber.GET, [f"{CELL}.4.2001"])
        for size in (-HIGH, -1, 0, 1, LEAST - 1):
            self.assertIsNone(manager.ask(request, size), size)
        manager.socket.settimeout(test_daemon.PATIENCE)
        self.assertIsNotNone(manager.ask(request, HIGH))

    def test_what_is_longer_than_a_datagram_is_too_big(self):
        self.start_with_users()
        manager = self.manager()
        for version_3 in (True, False):
            request = ber.pdu(ber.GET, [f"{CELL}.9.2003"] * 2400)
            answer = manager.ask(request) if version_3 else manager.ask_version_2(request)
            self.assertEqual((ber.TOO_BIG, 0), (answer.error_status, len(answer.varbinds)))
        self.assert_still_there(manager)

    def test_names_that_come_back_in_every_answer_may_be_long(self):
        self.start_with_users()
        manager = self.manager()
        bulk = ber.pdu(ber.GETBULK, [f"{CELL}.3"], third=90)
        for length in (100, 400, 480, 600, 5000):
            for announced in (LEAST, 600, snmpv3.LARGEST):
                for name in ({"context": b"c" * length}, {"user": "u" * length}):
                    manager.socket.send(manager.message(bulk, announced, **name))
        self.assert_still_there(self.manager())


class Lines(Strangers):
    def test_packets_that_net_snmp_complains_of_write_no_more_than_a_line_a_second(self):
        daemon = self.start_with_users()
        manager = self.manager()
        began = time.monotonic()
        for number in range(2000):
            request = ber.pdu(ber.GET, [f"{CELL}.4.{number}"])
            manager.socket.send(manager.message(request, number % LEAST, message_id=-1 - number % 2))
            manager.socket.send(manager.message(request, number % LEAST))
            if number % 50 == 0:  # else the daemon's socket runs over
                self.manager().close()
        self.assert_still_there(self.manager())
        seconds = time.monotonic() - began
        held = self.ctl_json("status")["failures"]["linesHeldBack"]
        self.assertGreater(held, 100)
        self.assertLess(len(daemon.err), 10 + 2 * (seconds + 2), daemon.err)
        self.assertGreater(len(daemon.err), 0)
        time.sleep(1.1)  # so much later one more may be said
        manager.socket.send(manager.message(request, 1))
        daemon.wait_for_line(daemon.err, r"net-snmp said \d+ more lines, which were held back$")

    def test_a_stranger_holds_back_no_line_of_the_daemons_own(self):
        daemon = self.start_with_users()
        manager = self.manager()
        for number in range(100):
            manager.socket.send(manager.message(ber.pdu(ber.GET, []), number))
        self.assert_still_there(self.manager())
        self.write("tunnels.json", "{")
        self.ctl("reread", status=1)
        daemon.wait_for_line(daemon.err, "^tunnelsnmpd: json:")


class Connections(Strangers):
    """SNMP over TCP."""

    def start_tcp(self, *options):
        daemon = self.start("--source", "json:" + self.source, *options,
                            transport=("--listen", "tcp:127.0.0.1:0"))
        host, port = self.address.removeprefix("tcp:").split(":")
        self.tcp = (host, int(port))
        self.address = "tcp:" + ":".join((host, port))
        return daemon

    def connect(self):
        connection = socket.create_connection(self.tcp, test_daemon.PATIENCE)
        self.addCleanup(connection.close)
        return connection

    @staticmethod
    def bulk():
        request = ber.pdu(ber.GETBULK, [f"{CELL}.3"], third=90)
        return ber.tlv(ber.SEQUENCE, ber.integer(1) + ber.tlv(ber.OCTETS, b"public")
                          + request)

    def test_a_manager_that_reads_is_answered_all_it_asks_for(self):
        self.start_tcp()
        connection = self.connect()
        connection.sendall(self.bulk() * 50)
        got = b""
        for _ in range(50):
            while len(got) < 4 or len(got) < ber.Element(got[:4] + bytes(70000)).end:
                part = connection.recv(65536)
                self.assertNotEqual(b"", part)
                got += part
            got = got[ber.Element(got).end:]

    def test_a_manager_that_does_not_read_is_hung_up_on_and_nobody_waits(self):
        self.start_tcp()
        stuck = self.connect()
        stuck.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4096)
        stuck.setblocking(False)
        sent = 0
        dropped = False
        end = time.monotonic() + test_daemon.PATIENCE
        while not dropped and time.monotonic() < end:
            try:
                sent += stuck.send(self.bulk())
            except BlockingIOError:
                time.sleep(0.01)
            except OSError:
                dropped = True
            if sent % 1000 < 50:
                began = time.monotonic()
                self.assertEqual(1, len(self.snmp("snmpget", [f".{CELL}.4.2001"])[0]))
                self.assertLess(time.monotonic() - began,
                                test_daemon.PATIENCE if self.is_slow() else 1)
        self.assertTrue(dropped)
        counters = self.ctl_json("show", "counters")
        self.assertEqual(1, counters["agent-snmp-connections-dropped"])

    def test_a_request_of_very_many_names_is_too_big_and_soon_refused(self):
        self.start_tcp()
        request = ber.pdu(ber.GET, [f"{CELL}.3"] * 100_000)
        manager = self.connect()
        manager.sendall(ber.tlv(ber.SEQUENCE, ber.integer(1) +
                                ber.tlv(ber.OCTETS, b"public") + request))
        answer = manager.recv(65536)
        too_big = ber.integer(1) + ber.integer(0) + ber.tlv(ber.SEQUENCE, b"")
        self.assertTrue(answer.endswith(too_big), answer)

    def test_connections_without_a_descriptor_wait_for_one(self):
        daemon = self.start_tcp()
        one = self.connect()
        one.sendall(self.bulk())
        self.assertNotEqual(b"", one.recv(65536))  # now it has its descriptor
        fill = limit_descriptors(daemon)
        more = [self.connect() for _ in range(fill + 3)]
        time.sleep(0.3)
        before = cpu_seconds(daemon)
        time.sleep(1)
        self.assertLess(cpu_seconds(daemon) - before, 0.3, "it spins")
        one.sendall(self.bulk())
        self.assertNotEqual(b"", one.recv(10))
        for connection in more[:fill]:
            connection.close()
        more[-1].sendall(self.bulk())
        self.assertNotEqual(b"", more[-1].recv(10))


def limit_descriptors(daemon, spare=3):
    """Leaves the daemon so few descriptors; returns how many."""
    used = max(int(name) for name in os.listdir(f"/proc/{daemon.child.pid}/fd")) + 1
    resource.prlimit(daemon.child.pid, resource.RLIMIT_NOFILE, (used + spare, used + spare))
    free = used - len(os.listdir(f"/proc/{daemon.child.pid}/fd"))
    return spare + free


def cpu_seconds(daemon):
    with open(f"/proc/{daemon.child.pid}/stat", encoding="ascii") as file:
        fields = file.read().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


class Descriptors(Strangers):
    def test_without_descriptors_snmp_is_answered_and_nothing_spins(self):
        daemon = self.start_office()
        fill = limit_descriptors(daemon)
        clients = []
        for _ in range(fill + 3):
            client = socket.socket(socket.AF_UNIX)
            self.addCleanup(client.close)
            client.connect(self.control)
            clients.append(client)
        time.sleep(0.3)
        before = cpu_seconds(daemon)
        time.sleep(1)
        self.assertLess(cpu_seconds(daemon) - before, 0.3, "it spins")
        for _ in range(3):
            self.assertEqual(1, len(self.snmp("snmpget", [f".{CELL}.4.2001"])[0]))
            time.sleep(0.02)
        for client in clients[:-1]:
            client.close()
        clients[-1].settimeout(test_daemon.PATIENCE)
        clients[-1].sendall(b'{"command": "version"}\n')
        self.assertRegex(clients[-1].recv(1000).decode(), '"ok":true')


if __name__ == "__main__":
    test_daemon.main(__doc__)
