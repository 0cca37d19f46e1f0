"""The real daemon behind a master that a test plays: it stops at each step, answers to the wrong session,
sends what cannot be understood, closes for every reason, and reads nothing. Whatever it does, the daemon
answers its control socket within 50 ms, and has its rows registered within a second of the master's return."""

import signal
import struct
import time

import test_daemon
from agentx_peers import (CLOSE, END_OF_MIB_VIEW, GET, GET_BULK, GET_NEXT, Master, NETWORK_ORDER,
                          NO_SUCH_INSTANCE, OPEN, PING, REGISTER, RESPONSE, Message, Reader,
                          encoded_range, numbers, response)
from test_agentx import BehindMaster, limit
from test_daemon import TUNNEL_IF_TABLE, TUNNEL_MIB

OPEN_FAILED, NOT_OPEN, PARSE_ERROR, REQUEST_DENIED = 256, 257, 266, 267
REASONS = {1: "without a reason", 2: "parse error", 3: "protocol error", 4: "too many time-outs",
           5: "shutdown", 6: "by its manager"}


class Played(BehindMaster):
    def setUp(self):
        super().setUp()
        self.master = Master(self.path("master"))
        self.addCleanup(self.master.close)

    def start_served(self):
        """(the daemon, the connection on which it has registered)"""
        daemon = self.start_subagent()
        connection = self.master.accept_serving()
        self.wait_until_served()
        return daemon, connection

    def ask(self, connection, kind, *ranges, session=1, packet=77, before=b""):
        """The answer to a request: (error, index, var_binds)."""
        self.send_request(connection, kind, *ranges, session=session, packet=packet, before=before)
        answer = connection.receive()
        self.assertEqual((RESPONSE, packet), (answer.kind, answer.packet))
        return Reader(answer).response()

    def send_request(self, connection, kind, *ranges, session=1, packet=77, before=b""):
        connection.send(kind, before + b"".join(encoded_range(*one) for one in ranges),
                        session=session, packet=packet, transaction=packet)

    def first_name(self):
        return numbers(self.first_cell())

    def assert_serves(self, connection, session=1):
        error, _, found = self.ask(connection, GET, (self.first_name(),), session=session)
        self.assertEqual((0, self.first_name()), (error, found[0][1]))
        self.assertIsNotNone(found[0][2])

    def assert_comes_back(self, session=2):
        """Within a second, with everything registered; returns the new connection."""
        began = time.monotonic()
        connection = self.master.accept_serving(session)
        self.wait_until_served()
        self.assertLess(time.monotonic() - began, limit(1))
        self.assert_serves(connection, session)
        return connection

    def state(self):
        return self.master_status()["state"]


class StopsAtEachStep(Played):
    """The master does not answer any more; meanwhile the daemon does, and it ends at once."""

    def test_before_it_accepts(self):
        daemon = self.start_subagent()
        self.assert_answers_at_once(daemon, 0.3)
        self.assertEqual("opening", self.state())
        self.assert_ends_within_a_second(daemon)

    def test_at_the_open(self):
        daemon = self.start_subagent()
        connection = self.master.accept()
        self.assertEqual(OPEN, connection.receive().kind)
        self.assert_answers_at_once(daemon, 0.3)
        self.assertEqual("opening", self.state())
        self.assert_ends_within_a_second(daemon)

    def test_at_the_registrations(self):
        daemon = self.start_subagent()
        connection = self.master.accept_open()
        self.assertEqual(REGISTER, connection.receive().kind)
        self.assert_answers_at_once(daemon, 0.3)
        self.assertEqual("registering", self.state())
        self.assert_ends_within_a_second(daemon)

    def test_between_two_registrations(self):
        daemon = self.start_subagent()
        connection = self.master.accept_open()
        connection.answer(connection.receive())
        self.assert_answers_at_once(daemon, 0.3)
        self.assertEqual("registering", self.state())
        self.assert_ends_within_a_second(daemon)

    def test_at_a_ping(self):
        if not test_daemon.PATHS.thorough:
            self.skipTest("a ping is due after 15 s, and given up 10 s later: tests/attack")
        daemon, connection = self.start_served()
        self.assertEqual(PING, connection.receive().kind)
        self.assert_answers_at_once(daemon, 12)
        self.assertIn("does not answer", self.master_status()["lastError"])
        self.assert_comes_back()
        self.assert_ends_within_a_second(daemon)

    def test_in_the_middle_of_a_request(self):
        daemon, connection = self.start_served()
        octets = Message(GET, encoded_range(self.first_name()), session=1, packet=5).octets()
        connection.socket.sendall(octets[:30])
        self.assert_answers_at_once(daemon, 0.3)
        connection.socket.sendall(octets[30:])
        self.assertEqual(5, connection.receive().packet)
        self.assertEqual("serving", self.state())

    def test_in_the_middle_of_an_answer(self):
        """It asks and asks and reads nothing: what waits to be sent is bounded."""
        daemon, connection = self.start_served()
        names = [(self.first_name(),)] * 1000
        connection.socket.settimeout(0.1)
        try:
            for packet in range(1000):
                self.send_request(connection, GET, *names, packet=packet)
        except (TimeoutError, ConnectionError):
            pass  # it takes no more, or has hung up
        self.wait_until(lambda: "does not read" in self.master_status()["lastError"])
        self.assert_answers_at_once(daemon, 0.3)
        self.assert_comes_back()
        self.assert_ends_within_a_second(daemon)


class AnswersWrongly(Played):
    def test_an_answer_to_nothing_is_ignored(self):
        daemon, connection = self.start_served()
        connection.send(RESPONSE, response(), session=1, packet=4711)
        self.assert_serves(connection)
        self.assert_ends_within_a_second(daemon)

    def test_an_answer_in_another_session_is_no_answer(self):
        self.start_subagent()
        connection = self.master.accept_open()
        registration = connection.receive()
        connection.answer(registration, session=9)
        self.assertEqual("registering", self.state())
        connection.answer(registration)
        for _ in range(2):
            connection.answer(connection.receive())
        self.wait_until_served()

    def test_an_answer_with_another_packet_is_no_answer(self):
        self.start_subagent()
        connection = self.master.accept()
        opening = connection.receive()
        connection.answer(opening, packet=opening.packet + 100, session=1)
        self.assertEqual("opening", self.state())
        connection.answer(opening, session=1)
        for _ in range(3):
            connection.answer(connection.receive())
        self.wait_until_served()

    def test_a_session_that_is_refused_is_tried_again(self):
        self.start_subagent()
        connection = self.master.accept()
        connection.answer(connection.receive(), response(OPEN_FAILED))
        self.assertIsNone(connection.receive())
        self.assertIn("openFailed", self.master_status()["lastError"])
        self.assert_comes_back()

    def test_a_registration_that_is_refused_is_tried_again(self):
        self.start_subagent()
        connection = self.master.accept_open()
        for error in (REQUEST_DENIED, 0, 0):
            connection.answer(connection.receive(), response(error))
        self.wait_until(lambda: {one["state"] for one in self.master_status()["registrations"]}
                        == {"refused", "registered"})
        self.assertIn("requestDenied", self.master_status()["lastError"])
        self.send_request(connection, GET, (self.first_name(),))
        # The next try may come before the answer.
        received = {one.kind: one for one in (connection.receive(), connection.receive())}
        self.assertEqual({RESPONSE, REGISTER}, set(received))
        error, _, found = Reader(received[RESPONSE]).response()
        self.assertEqual((0, self.first_name()), (error, found[0][1]))
        connection.answer(received[REGISTER])
        self.wait_until_served()

    def test_a_master_that_has_forgotten_the_session_gets_a_new_one(self):
        self.start_subagent()
        connection = self.master.accept_open()
        connection.answer(connection.receive(), response(NOT_OPEN))
        self.assertIsNotNone(self.assert_comes_back())
        self.assertEqual(2, self.master_status()["sessions"])

    def test_an_up_time_near_its_end_means_nothing(self):
        self.start_subagent()
        connection = self.master.accept()
        connection.answer(connection.receive(), response(up_time=0xFFFFFFFF), session=1)
        for up_time in (0, 0x80000000, 1):
            connection.answer(connection.receive(), response(up_time=up_time))
        self.wait_until_served()
        self.assert_serves(connection)


class CannotBeUnderstood(Played):
    def test_a_request_in_another_session_is_refused(self):
        _, connection = self.start_served()
        self.assertEqual(NOT_OPEN, self.ask(connection, GET, (self.first_name(),), session=2)[0])
        self.assert_serves(connection)

    def test_a_request_that_is_cut_short_is_a_parse_error(self):
        _, connection = self.start_served()
        connection.send(GET_NEXT, encoded_range(self.first_name())[:-8], session=1, packet=3)
        self.assertEqual(PARSE_ERROR, Reader(connection.receive()).response()[0])
        self.assert_serves(connection)
        self.assertEqual(1, self.master_status()["sessions"])

    def test_a_type_that_nobody_knows_is_a_parse_error(self):
        _, connection = self.start_served()
        connection.send(99, session=1, packet=3)
        self.assertEqual(PARSE_ERROR, Reader(connection.receive()).response()[0])
        self.assert_serves(connection)

    def test_what_is_no_message_ends_the_session(self):
        daemon, connection = self.start_served()
        connection.socket.sendall(b"GET / HTTP/1.0\r\n\r\n" + bytes(20))
        self.assert_comes_back()
        self.assertIn("version 71", self.master_status()["lastError"])
        self.assert_answers_at_once(daemon, 0.1)

    def test_a_message_without_end_ends_the_session(self):
        _, connection = self.start_served()
        connection.socket.sendall(struct.pack("!BBBxIIII", 1, GET, NETWORK_ORDER, 1, 1, 1,
                                              0xFFFFFFFC))
        self.assert_comes_back()

    def test_a_malformed_answer_ends_the_session(self):
        self.start_subagent()
        connection = self.master.accept_open()
        connection.answer(connection.receive(), b"\0\0\0\0")
        self.assertIsNotNone(self.assert_comes_back())
        self.assertIn("malformed", self.master_status()["lastError"])


class Goes(Played):
    def test_it_closes_for_every_reason(self):
        _, connection = self.start_served()
        for session, (reason, words) in enumerate(REASONS.items(), 2):
            connection.send(CLOSE, struct.pack("!Bxxx", reason), session=session - 1, packet=1)
            connection = self.assert_comes_back(session)
            self.assertIn(f"closes the session: {words}", self.master_status()["lastError"])

    def test_it_hangs_up_in_the_middle_of_the_registrations(self):
        self.start_subagent()
        connection = self.master.accept_open()
        connection.receive()
        connection.close()
        self.assert_comes_back()

    def test_it_hangs_up_as_soon_as_it_has_accepted(self):
        daemon = self.start_subagent()
        for _ in range(5):
            self.master.accept().close()
        self.assert_answers_at_once(daemon, 0.1)
        self.assert_comes_back()

    def test_the_daemon_takes_its_leave(self):
        daemon, connection = self.start_served()
        self.assertEqual(0, daemon.end()[0], daemon.err)
        farewell = connection.receive()
        self.assertEqual((CLOSE, 5), (farewell.kind, farewell.payload[0]))
        self.assertIsNone(connection.receive())


class Asks(Played):
    def test_an_answer_that_comes_late_does_not_end_the_session(self):
        """For the master it may be too late; that is the master's to say."""
        daemon, connection = self.start_served()
        daemon.child.send_signal(signal.SIGSTOP)
        try:
            self.send_request(connection, GET, (self.first_name(),), packet=1)
            time.sleep(1.2)
            self.send_request(connection, GET, (self.first_name(),), packet=2)
        finally:
            daemon.child.send_signal(signal.SIGCONT)
        self.assertEqual([1, 2], [connection.receive().packet for _ in range(2)])
        self.assertEqual("serving", self.state())
        self.assertEqual(1, self.master_status()["sessions"])

    def test_many_requests_at_once_are_answered_in_their_order(self):
        _, connection = self.start_served()
        connection.socket.sendall(b"".join(
            Message(GET_NEXT, encoded_range(self.first_name()), session=1, packet=packet).octets()
            for packet in range(200)))
        self.assertEqual(list(range(200)), [connection.receive().packet for _ in range(200)])

    def test_a_getbulk_ends_with_the_table(self):
        _, connection = self.start_served()
        column = numbers(TUNNEL_IF_TABLE + ".1.10")
        end = numbers(TUNNEL_IF_TABLE + ".1.11")
        error, _, found = self.ask(connection, GET_BULK, (column, end), before=struct.pack("!HH", 0, 100))
        rows = self.expected_if_indexes()
        self.assertEqual((0, [(*column, row) for row in rows]),
                         (error, [name for _, name, _ in found[:len(rows)]]))
        self.assertEqual([END_OF_MIB_VIEW], [kind for kind, _, _ in found[len(rows):]])

    def test_a_getnext_stays_within_its_range(self):
        _, connection = self.start_served()
        name = self.first_name()
        after = (*name[:-1], name[-1] + 1)
        for start, end, include, expected in (
                (name, after, True, name), (name, after, False, None),
                (name[:-1], name, False, None), (name[:-1], after, False, name)):
            error, _, ((kind, found, _),) = self.ask(connection, GET_NEXT, (start, end, include))
            self.assertEqual(0, error)
            if expected is None:
                self.assertEqual((END_OF_MIB_VIEW, start), (kind, found))
            else:
                self.assertEqual(expected, found)

    def test_a_request_of_many_names_has_as_many_answers(self):
        _, connection = self.start_served()
        name = self.first_name()
        error, _, found = self.ask(connection, GET, *[((*name[:-1], number),) for number in
                                                      range(name[-1], name[-1] + 500)])
        self.assertEqual((0, 500), (error, len(found)))
        self.assertIn(NO_SUCH_INSTANCE, [kind for kind, _, _ in found])

    def test_what_is_registered_is_three_tables(self):
        self.start_subagent()
        connection = self.master.accept_open()
        subtrees = []
        for _ in range(3):
            registration = connection.receive()
            reader = Reader(registration)
            timeout, priority, range_sub_id, _ = reader.take("BBBB")
            self.assertEqual((REGISTER, 0, 127, 0),
                             (registration.kind, timeout, priority, range_sub_id))
            subtrees.append(reader.oid()[0])
            connection.answer(registration)
        self.wait_until_served()
        mib = numbers(TUNNEL_MIB)
        self.assertEqual([(*mib, 1, 1, 1), (*mib, 1, 1, 3)], sorted(subtrees)[:2])
        self.assertEqual((1, 3, 6, 1, 4, 1, test_daemon.PATHS.enterprise), sorted(subtrees)[2][:7])


if __name__ == "__main__":
    test_daemon.main(__doc__)
