"""The daemon's face towards the HMI: its D-Bus interface, the registration at start-up, the
status dispatcher's log, the crash handler's report on SIGTERM, and the HMI client orvanectl."""

import re
import signal
import subprocess
import time
import unittest

import harness
from harness import LINK_USB, LINK_WIFI, LOG_PREFIX


class Interface(harness.OrvaneTestCase):

    def test_introspection_lists_exactly_the_five_members(self):
        self.start_daemon()
        members = harness.interface_members(harness.introspect(self.bus))
        self.assertIsNotNone(members, 'interface %s not exported' % harness.INTERFACE)

        def args(member):
            kind, arguments = members[member]
            return kind, [(name, sig) for name, sig, _ in arguments]

        self.assertEqual(sorted(members), ['onLinkStatusChange', 'requestKeyValue', 'requestLinkStatus',
                                           'requestTouchAction', 'requestTouchStatus'])
        self.assertEqual(args('onLinkStatusChange'), ('signal', [('type', 'i'), ('status', 'i')]))
        self.assertEqual(args('requestLinkStatus'), ('method', [('type', 'i'), ('status', 'i')]))
        self.assertEqual(args('requestTouchStatus'),
                         ('method', [('deviceType', 'i'), ('touchType', 'i'), ('touchPoint', 's')]))
        self.assertEqual(args('requestTouchAction'), ('method', [('touchType', 'u'), ('x', 'u'), ('y', 'u')]))
        self.assertEqual(args('requestKeyValue'), ('method', [('type', 'i')]))
        # Every method only takes arguments: the HMI gets an empty reply.
        for member, (kind, arguments) in members.items():
            if kind == 'method':
                self.assertEqual({d for _, _, d in arguments}, {'in'}, member)

    def test_second_daemon_logs_the_bus_error_and_exits_1(self):
        first = self.start_daemon()
        second = self.start_daemon(wait_ready=False)
        self.assertEqual(second.wait(timeout=15), 1)
        console = second.console()
        self.assertRegex(console, r'(?m)^' + LOG_PREFIX + r' OrvaneApp init dbus: false $')
        # The bus's own message, quoted, right after the prefix.
        error = re.search(r'(?m)^' + LOG_PREFIX + r' "([^"\n]+.*)" $', console)
        self.assertIsNotNone(error, console)
        self.assertTrue(first.alive())
        monitor = self.start_monitor()
        self.assertEqual(harness.request_link_status(self.bus, LINK_USB, 6)[0], 0)
        monitor.wait_for(LINK_USB, 6)


class Dispatcher(harness.OrvaneTestCase):

    def setUp(self):
        super().setUp()
        self.daemon = self.start_daemon()
        self.monitor = self.start_monitor()

    def test_unknown_link_type_leaves_no_trace(self):
        since = self.daemon.mark()
        for link_type, status in ((5, 3), (0, 7), (-2, 24), (244, 6)):
            rc, _, err = harness.request_link_status(self.bus, link_type, status)
            self.assertEqual(rc, 0, err)
        # Calls are handled in order: once this one is logged, the ones before it are done.
        self.assertEqual(harness.request_link_status(self.bus, LINK_USB, 5)[0], 0)
        line = self.daemon.wait_for_console(r'^' + LOG_PREFIX + r' OrvaneApp::requestLinkStatus 2 5 $', since=since)
        self.assertEqual(self.daemon.console()[since:line.start()], '')
        self.assertEqual(self.monitor.all(), [])

    def test_hide_without_a_stream_echoes_and_logs(self):
        since = self.daemon.mark()
        rc, out, err = harness.request_link_status(self.bus, LINK_USB, 6)
        self.assertEqual((rc, out.strip()), (0, ''), err)
        self.monitor.wait_for(LINK_USB, 6)
        self.daemon.wait_for_console(r'^' + LOG_PREFIX + r' OrvaneApp::requestLinkStatus 2 6 $', since=since)

        self.assertEqual(self.call('hide', 'wifi')[0], 0)
        self.monitor.wait_for(LINK_WIFI, 6, since=1)
        self.daemon.wait_for_console(r'^' + LOG_PREFIX + r' OrvaneApp::requestLinkStatus 243 6 $', since=since)
        self.assertEqual(self.monitor.lines(), ['2 6 hidden', '243 6 hidden'])
        self.assertTrue(self.daemon.alive())

    def test_sigterm_prints_the_call_stack_and_the_daemon_keeps_serving(self):
        since = self.daemon.mark()
        self.daemon.send_signal(signal.SIGTERM)
        header = self.daemon.wait_for_console(r'^exception_print_callstack (\d+) $', since=since)
        frames = int(header.group(1))
        self.assertGreater(frames, 0)
        self.assertLessEqual(frames, 128)
        # One quoted warning line per frame, the text's own newline inside the quotes.
        frame = r'"\[%d\] [^\n]* \n" \n'
        report = self.daemon.wait_for_console(re.escape(header.group(0)) + r'\n'
                                              + ''.join(frame % i for i in range(frames)), since=since)
        self.assertNotRegex(report.group(0), LOG_PREFIX)

        self.assertTrue(self.daemon.alive())
        self.assertEqual(harness.request_link_status(self.bus, LINK_USB, 6)[0], 0)
        self.monitor.wait_for(LINK_USB, 6)
        self.daemon.wait_for_console(r'^' + LOG_PREFIX + r' OrvaneApp::requestLinkStatus 2 6 $',
                                     since=report.end())


class Client(harness.OrvaneTestCase):
    """orvanectl's contract with the people and scripts that use it."""

    NOT_ON_BUS = 'orvanectl: the mirror daemon (com.quorva.mirror) is not on the session bus\n'

    def test_without_the_daemon_every_request_exits_3(self):
        for args in (('start', 'usb'), ('stop',), ('hide', 'wifi'), ('key', 'home'), ('touch', 'press', '1', '2')):
            rc, out, err = self.call(*args, timeout=20)
            self.assertEqual((rc, out, err), (3, '', self.NOT_ON_BUS), args)

    def test_bad_arguments_print_the_usage_and_exit_64(self):
        for args in ((), ('bogus',), ('start',), ('start', 'bluetooth'), ('stop', 'usb', 'now'),
                     ('key', 'power'), ('touch', 'tap', '1', '2'), ('touch', 'press', '-1', '2'),
                     ('touch', 'press', '1', '4294967296'), ('touch', 'press', '1'),
                     ('--timeout', '0', 'stop'), ('--timeout',), ('--frobnicate', 'stop')):
            rc, out, err = self.call(*args)
            self.assertEqual(rc, 64, args)
            self.assertEqual(out, '', args)
            self.assertTrue(err.startswith('usage: orvanectl'), (args, err))

    def test_requests_reach_the_daemon(self):
        daemon = self.start_daemon()
        monitor = self.start_monitor()
        since = daemon.mark()
        self.assertEqual(self.call('hide')[0], 0)
        self.assertEqual(self.call('hide', '--timeout', '5', 'usb')[0], 0)
        monitor.wait_for(LINK_USB, 6)
        monitor.wait_for(LINK_USB, 6, since=1)
        self.assertEqual(monitor.all(), [(LINK_USB, 6), (LINK_USB, 6)])
        self.assertEqual(self.call('stop', 'wifi')[0], 0)
        daemon.wait_for_console(r'^' + LOG_PREFIX + r' OrvaneApp::requestLinkStatus 243 7 $', since=since)
        self.assertTrue(daemon.alive())

    def test_start_gives_up_after_its_timeout(self):
        daemon = self.start_daemon()
        # A stopped daemon never answers; its start-up is never reached.
        daemon.send_signal(signal.SIGSTOP)
        began = time.monotonic()
        rc, out, err = self.call('start', 'usb', '--timeout', '2')
        self.assertEqual((rc, out), (2, ''))
        self.assertEqual(err, 'orvanectl: no final link status within 2 s (last status 0 none)\n')
        self.assertLess(time.monotonic() - began, 10)

    def test_start_notices_a_daemon_that_dies(self):
        daemon = self.start_daemon()
        daemon.send_signal(signal.SIGSTOP)
        client = subprocess.Popen([harness.binary('orvanectl'), 'start', 'wifi', '--timeout', '60'],
                                  env=self.bus.env(), stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        self.addCleanup(harness._kill_process, client)
        time.sleep(0.5)
        daemon.send_signal(signal.SIGKILL)
        out, err = client.communicate(timeout=20)
        self.assertEqual((client.returncode, out), (1, b''))
        self.assertEqual(err, b'orvanectl: the mirror daemon (com.quorva.mirror) left the session bus\n')


if __name__ == '__main__':
    unittest.main()
