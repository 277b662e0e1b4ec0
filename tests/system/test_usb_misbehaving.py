"""USB phones that misbehave: a phone-side server that dies, hangs or stops half-way through the
handshake, a phone that stops reading its control connection, hostile bytes in the device name, and
the signals that end the daemon. The daemon must answer within its bounds and leave nothing behind."""

import signal
import time

import harness
from harness import LINK_USB
from test_usb import SCREEN_STOPPED, UsbCase, service_line

CONNECT = 'connectToServer failed!'
INFO = 'device_read_info failed!'
HANDSHAKE_BOUND_S = 15  # the README's bound for a start against a misbehaving server


class Misbehaving(UsbCase):

    def test_a_broken_handshake_fails_the_start_within_its_bound(self):
        # (phone-sim script, adb steps that fail, the start's failure line, lines that must come before it)
        cases = [
            ('exit-at-launch', '', CONNECT, [r'^Server exited before connecting \(exit status 1\)$']),
            ('never-connect', '', CONNECT, [r'^Server did not connect within 12000 ms$']),
            ('video-only', '', CONNECT, [r'^Server did not connect within 12000 ms$']),
            ('no-hello', 'reverse', CONNECT, [r'^Server did not connect within 12000 ms$']),
            ('info-bytes=0', '', INFO, [r'^Could not retrieve device information$']),
            ('info-bytes=40', '', INFO, [r'^Could not retrieve device information$']),
            # Cut short and closed: never accepted with zeros, whatever the socket layer reports.
            ('short-info', '', INFO, [r'^Could not retrieve device information$']),
        ]
        for events, adb_fail, failure, before in cases:
            with self.subTest(events=events):
                # An out-of-range framebuffer size is refused, not wrapped into a tiny screen.
                self.start_usb_daemon(events=events, fb='4294967312x16', FAKE_ADB_FAIL=adb_fail)
                began = time.monotonic()
                self.request(3)
                self.monitor.wait_for(LINK_USB, 5, timeout=HANDSHAKE_BOUND_S + 30)
                self.assertLess(time.monotonic() - began, HANDSHAKE_BOUND_S)
                console = self.daemon.console()
                self.assertIn('ORVANE_HOST_FB=4294967312x16 is not WIDTHxHEIGHT', console)
                end = self.daemon.wait_for_console(service_line(failure)).start()
                for line in before:
                    self.assertLess(self.daemon.wait_for_console(line).start(), end)
                self.daemon.wait_for_console(SCREEN_STOPPED, since=end)
                self.assert_statuses([(LINK_USB, 5)])  # also: D-Bus answers right after
                self.assert_nothing_left()

    def test_a_phone_that_stops_reading_input_cannot_hold_the_daemon(self):
        # The phone's name tries to clear the console and forge a line of its own.
        self.start_usb_daemon(events='ignore-control', PHONE_SIM_NAME='Evil\x1b[2J\r\nforged line\x07')
        self.start_link()
        self.daemon.wait_for_console(service_line('read device info: Evil?[2J??forged line? 1280 720'))
        self.assertNotIn('\x1b', self.daemon.console())
        self.rig.wait_pictures(5)  # touches land on a picture that is laid out
        mark = self.daemon.mark()
        drag = harness.spawn([harness.binary('orvanectl'), 'drag', '100', '100', '900', '500', '20000'],
                             env=self.bus.env())
        self.daemon.wait_for_console(r'^Control connection blocked: the phone stopped reading, input dropped$',
                                     since=mark, timeout=60)
        began = time.monotonic()
        self.request(7)
        self.assertLess(time.monotonic() - began, 2.0, 'the stop request was held up')
        self.monitor.wait_for(LINK_USB, 8)
        harness.kill_process(drag)
        self.assert_link_ended(mark)

    def test_int_hup_and_quit_end_the_daemon_after_a_whole_teardown(self):
        for sig in (signal.SIGINT, signal.SIGHUP, signal.SIGQUIT):
            with self.subTest(signal=sig.name):
                self.start_usb_daemon()
                self.start_link()
                self.rig.wait_pictures(5)
                mark = self.daemon.mark()
                self.daemon.proc.send_signal(sig)
                self.assertEqual(self.daemon.proc.wait(timeout=30), 0)
                self.assertIn('Signal %d: ending the link and the daemon' % sig, self.assert_teardown(mark))
                self.monitor.wait_for(LINK_USB, 8)
                self.assertEqual(harness.reap_orphans(), [])
