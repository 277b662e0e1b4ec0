"""The daemon's D-Bus face towards the HMI, its crash handler's report on SIGTERM, and orvanectl."""

import re
import signal

import harness
from harness import LINK_USB, LOG_PREFIX

MEMBERS = {
    'onLinkStatusChange': ('signal', [('type', 'i', 'out'), ('status', 'i', 'out')]),
    'requestLinkStatus': ('method', [('type', 'i', 'in'), ('status', 'i', 'in')]),
    'requestTouchStatus': ('method', [('deviceType', 'i', 'in'), ('touchType', 'i', 'in'), ('touchPoint', 's', 'in')]),
    'requestTouchAction': ('method', [('touchType', 'u', 'in'), ('x', 'u', 'in'), ('y', 'u', 'in')]),
    'requestKeyValue': ('method', [('type', 'i', 'in')]),
}
HIDE_LOGGED = r'^' + LOG_PREFIX + r' OrvaneApp::requestLinkStatus 2 6 $'


class Interface(harness.OrvaneTestCase):

    def test_client_members_dispatcher_crash_report_and_second_instance(self):
        # orvanectl: a request without the daemon exits 3; a usage error 64, with what was wrong and one
        # line of usage.
        self.assertEqual(self.call('stop', timeout=20), (3, '', 'orvanectl: the mirror daemon (com.quorva.mirror) '
                                                         'is not on the session bus\n'))
        for args, said in ((('key', 'power'), "key: expected home, back or menu, got 'power'"),
                           (('touch', 'press', '1', '4294967296'), 'touch: Y must be a whole number from 0 to '
                                                                  "4294967295, got '4294967296'"),
                           (('drag', '0', '0', '9', '9', '100000'), 'drag: STEPS must be a whole number from 1 to '
                                                                     "1000, got '100000'"),
                           (('--timeout', '0', 'stop'), "--timeout: expected seconds from 1 to 86400, got '0'")):
            rc, out, err = self.call(*args)
            self.assertEqual((rc, out, err.splitlines()[0], len(err.splitlines())), (64, '', 'orvanectl: ' + said, 2))
        daemon = self.start_daemon()
        monitor = self.start_monitor()
        self.assertEqual(harness.interface_members(self.bus), MEMBERS)
        # Unknown link types leave no trace; a hide without a stream is echoed. Calls are handled in
        # order, so nothing may come before the hide's own line.
        since = daemon.mark()
        for link_type, status in ((5, 3), (0, 7), (-2, 24), (244, 6), (LINK_USB, 6)):
            self.assertEqual(harness.request_link_status(self.bus, link_type, status)[0], 0)
        line = daemon.wait_for_console(HIDE_LOGGED, since=since)
        self.assertEqual(daemon.console()[since:line.start()], '')
        monitor.wait_for(LINK_USB, 6)
        self.assertEqual(monitor.all(), [(LINK_USB, 6)])

        # SIGTERM: one quoted warning line per frame, no service prefix; the daemon serves on.
        daemon.proc.send_signal(signal.SIGTERM)
        header = daemon.wait_for_console(r'^exception_print_callstack (\d+) $', since=since)
        frames = int(header.group(1))
        self.assertTrue(0 < frames <= 128, frames)
        report = daemon.wait_for_console(re.escape(header.group(0)) + r'\n' + ''.join(
            r'"\[%d\] [^\n]* \n" \n' % i for i in range(frames)), since=since)
        self.assertNotRegex(report.group(0), LOG_PREFIX)
        self.assertEqual(harness.request_link_status(self.bus, LINK_USB, 6)[0], 0)
        monitor.wait_for(LINK_USB, 6, since=1)
        daemon.wait_for_console(HIDE_LOGGED, since=report.end())

        # A second instance finds the name taken: the failure, then the bus's own message, and exit 1.
        second = self.start_daemon(wait_ready=False)
        self.assertEqual(second.proc.wait(timeout=15), 1)
        self.assertRegex(second.console(), r'(?m)^%s OrvaneApp init dbus: false \n%s "[^"\n]+.*" $'
                         % (LOG_PREFIX, LOG_PREFIX))
        self.assertIsNone(daemon.proc.poll())
