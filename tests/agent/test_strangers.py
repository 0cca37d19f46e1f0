"""What a stranger on the network may send to the real daemon, and what a manager may do that is no
friend: the daemon goes on, and is there for the others within a second."""

import time

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
        answer = manager.ask(snmpv3.pdu(snmpv3.GET, [f"{CELL}.4.2001"], request_id=77))
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
        return {"get": snmpv3.pdu(snmpv3.GET, cells),
                "getnext": snmpv3.pdu(snmpv3.GETNEXT, cells),
                "getbulk": snmpv3.pdu(snmpv3.GETBULK, [f"{CELL}.3"], third=90),
                "getbulk of many": snmpv3.pdu(snmpv3.GETBULK, cells[:25], second=3, third=4),
                "set": snmpv3.pdu(snmpv3.SET, cells, value=snmpv3.integer(1))}

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
                    self.assertEqual((snmpv3.TOO_BIG, 0, 0),
                                     (answer.error_status, answer.error_index,
                                      len(answer.varbinds)), where)
        self.assert_still_there(manager)

    def sizes(self):
        return range(LEAST, 2001, 97 if self.is_slow() else 1)

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
                answer = manager.ask(snmpv3.pdu(snmpv3.GETBULK, [last], third=50), announced)
                for bind in answer.varbinds:
                    oid, value = bind.children()
                    if value.tag == 0x82 or not oid.content.startswith(
                            snmpv3.Element(snmpv3.oid(CELL)).content):
                        return seen
                    seen.append(oid.content)
                    last = snmpv3.oid_text(oid.content)
        whole = names(snmpv3.LARGEST)
        self.assertGreater(len(whole), 100)
        self.assertEqual(whole, names(LEAST))

    def test_sizes_that_no_manager_may_announce_are_dropped(self):
        self.start_with_users()
        manager = self.manager()
        manager.socket.settimeout(0.2)
        request = snmpv3.pdu(snmpv3.GET, [f"{CELL}.4.2001"])
        for size in (-HIGH, -1, 0, 1, LEAST - 1):
            self.assertIsNone(manager.ask(request, size), size)
        manager.socket.settimeout(test_daemon.PATIENCE)
        self.assertIsNotNone(manager.ask(request, HIGH))

    def test_what_is_longer_than_a_datagram_is_too_big(self):
        self.start_with_users()
        manager = self.manager()
        for version_3 in (True, False):
            request = snmpv3.pdu(snmpv3.GET, [f"{CELL}.9.2003"] * 2400)
            answer = manager.ask(request) if version_3 else manager.ask_version_2(request)
            self.assertEqual((snmpv3.TOO_BIG, 0), (answer.error_status, len(answer.varbinds)))
        self.assert_still_there(manager)

    def test_names_that_come_back_in_every_answer_may_be_long(self):
        self.start_with_users()
        manager = self.manager()
        bulk = snmpv3.pdu(snmpv3.GETBULK, [f"{CELL}.3"], third=90)
        for length in (100, 400, 480, 600, 5000):
            for announced in (LEAST, 600, snmpv3.LARGEST):
                for name in ({"context": b"c" * length}, {"user": "u" * length}):
                    manager.socket.send(manager.message(bulk, announced, **name))
        self.assert_still_there(self.manager())


if __name__ == "__main__":
    test_daemon.run()
