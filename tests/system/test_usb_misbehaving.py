"""USB phones that misbehave once streaming (a phone that stops reading its control connection,
hostile bytes in its name), and the signals that end the daemon in order. (A handshake that goes
wrong is among test_usb's start failures.)"""

import signal
import time

import harness
from harness import LINK_USB
from test_usb import UsbCase, service_line


class Misbehaving(UsbCase):

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
