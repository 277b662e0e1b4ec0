"""The Wi-Fi link end to end on a real network: the daemon runs in the head unit's network namespace
(wlan1 is a veth end with a real MAC address), announces itself through its own avahi-daemon, and
the phone simulator in the phone's namespace browses, resolves and connects as a phone app would.
Needs root (CI runs as root); skips elsewhere. Run time: about 1.5 minutes.
"""

import os
import re
import subprocess
import time
import unittest

import harness
import wifinet

FB = (800, 480)
PORT = 27555


class WifiTestCase(harness.OrvaneTestCase):
    net = None

    @classmethod
    def setUpClass(cls):
        harness.require_binaries('orvaned', 'phone-sim', 'orvanectl', 'fake-adb')
        cls.net = wifinet.WifiNet()

    @classmethod
    def tearDownClass(cls):
        if cls.net is not None:
            cls.net.close()
            cls.net = None

    def start_hu_daemon(self, extra_env=None, side=None):
        """orvaned inside the head unit's namespace (or side's), on this test's session bus and that
        side's avahi; its picture log in frames.log."""
        side = side or self.net.hu
        env = {'ORVANE_HOST_FB': '%dx%d' % FB, 'ORVANE_HOST_FRAMELOG': self.tmp.file('frames.log'),
               'DBUS_SYSTEM_BUS_ADDRESS': side.system_bus, 'AVAHI_COMPAT_NOWARN': '1'}
        env.update(extra_env or {})
        name = 'orvaned' if not self.daemons else 'orvaned-%d' % (len(self.daemons) + 1)
        daemon = wifinet.NetnsDaemon(self.bus, self.tmp.path, side.ns, env=env, name=name)
        self.daemons.append(daemon)
        return daemon

    def phone(self, *args, log='phone.log', events=None):
        """phone-sim in Wi-Fi mode in the phone's namespace; returns (process, log path)."""
        path = self.tmp.file(log)
        env = {'PHONE_SIM_LOG': path}
        if events:
            env['PHONE_SIM_EVENTS'] = events
        proc = self.net.spawn([harness.binary('phone-sim'), 'wifi'] + list(args), env=self.net.phone_env(env),
                              log=path + '.out', side=self.net.phone)
        self.addCleanup(self.net.stop, proc)
        return proc, path

    def direct(self):
        return ('--connect', '%s:%d' % (self.net.hu.address, PORT))

    def start_wifi(self, monitor, expect=3):
        since = monitor.count()
        self.assertEqual(harness.request_link_status(self.bus, 243, 3)[0], 0)
        return monitor.wait_for(243, expect, timeout=20, since=since)

    @staticmethod
    def read(path):
        try:
            with open(path, errors='replace') as f:
                return f.read()
        except OSError:
            return ''

    def wait_file(self, path, regex, timeout=30):
        pattern = re.compile(regex, re.MULTILINE)
        deadline = time.monotonic() + timeout
        while True:
            m = pattern.search(self.read(path))
            if m:
                return m
            if time.monotonic() > deadline:
                self.fail('%r not in %s within %s s; tail:\n%s' % (regex, os.path.basename(path), timeout,
                                                                    self.read(path)[-1500:]))
            time.sleep(0.05)

    def pictures(self):
        return len(self.read(self.tmp.file('frames.log')).splitlines())

    def wait_pictures(self, count, timeout=30):
        deadline = time.monotonic() + timeout
        while self.pictures() < count:
            if time.monotonic() > deadline:
                self.fail('only %d of %d pictures latched within %s s' % (self.pictures(), count, timeout))
            time.sleep(0.05)


class AnnouncementTest(WifiTestCase):

    def test_announced_on_the_link_and_withdrawn_before_the_listener_closes(self):
        daemon = self.start_hu_daemon()
        monitor = self.start_monitor()
        self.start_wifi(monitor)
        entries = self.net.wait_browse(lambda e: any(x['name'] == 'Mirroring' for x in e))
        [entry] = [x for x in entries if x['name'] == 'Mirroring']
        self.assertEqual(entry['port'], PORT)
        self.assertEqual(entry['address'], self.net.hu.address)
        self.assertEqual(entry['txt'], {'deviceid': self.net.hu.mac(), 'width': str(FB[0]),
                                        'height': str(FB[1]), 'maxFPS': '30'})
        # The record's key order as it travels (the client libraries reorder it on their side).
        self.assertEqual(self.net.wire_txt(), ['deviceid=' + self.net.hu.mac(), 'width=%d' % FB[0],
                                               'height=%d' % FB[1], 'maxFPS=30'])
        self.assertIn('find_mac:' + self.net.hu.mac(), daemon.console())

        # The announcement is withdrawn first: the client library lets go of it by leaving the
        # bus, which cannot be held up from outside, so the console's order is the evidence.
        mark = daemon.mark()
        self.assertEqual(harness.request_link_status(self.bus, 243, 7)[0], 0)
        daemon.wait_for_console(r'exit Mirror link! false true.*\n(.*\n)*?mirroring server socket error, accept stoped!\n'
                                r'(.*\n)*?mirroring accept thread end!', since=mark)
        self.assertFalse(self.net.listening(daemon.pid))
        self.net.wait_browse(lambda e: not any(x['name'] == 'Mirroring' for x in e))
        self.assertEqual(monitor.all(), [(243, 3)])  # no stream ran, so no (243, 8)


class StreamingTest(WifiTestCase):

    def test_phone_discovers_connects_and_is_acknowledged_every_90_frames(self):
        daemon = self.start_hu_daemon()
        monitor = self.start_monitor()
        self.start_wifi(monitor)
        _, log = self.phone('--discover', '30', events='frames=200')
        monitor.wait_for(243, 4, timeout=40)
        text = self.wait_file(log, r'^txt (.*)$').group(1)
        self.assertEqual(dict(item.split('=', 1) for item in text.split(',')),
                         {'deviceid': self.net.hu.mac(), 'width': str(FB[0]), 'height': str(FB[1]), 'maxFPS': '30'})
        self.assertIn('discovered "Mirroring"', self.read(log))
        self.assertIn('address %s' % self.net.hu.address, self.read(log))
        daemon.wait_for_console(r'read device info: O 1280 720')

        # The head unit acknowledges each 90th frame: 200 frames make two acknowledge bytes, the
        # second one once 180 have arrived, and no third however long the link stays up.
        self.wait_file(log, r'idle: frame limit reached')
        self.wait_file(log, r'^ack 2 ')
        self.wait_pictures(180)
        self.assertEqual(harness.request_link_status(self.bus, 243, 7)[0], 0)
        monitor.wait_for(243, 8)
        m = self.wait_file(log, r'video connection ended \((\d+) acks\)')
        self.assertEqual(int(m.group(1)), 2)
        acks = [int(s) for s in re.findall(r'^ack \d+ after (\d+) frames sent$', self.read(log), re.MULTILINE)]
        self.assertEqual(len(acks), 2)
        self.assertGreaterEqual(acks[0], 90)
        self.assertGreaterEqual(acks[1], 180)
        self.assertEqual(monitor.all(), [(243, 3), (243, 4), (243, 8)])

    def test_second_phone_is_turned_away_until_the_first_is_dead(self):
        daemon = self.start_hu_daemon()
        monitor = self.start_monitor()
        self.start_wifi(monitor)
        first, first_log = self.phone(*self.direct(), '--drop-at', '150', log='first.log')
        monitor.wait_for(243, 4, timeout=30)

        second, second_log = self.phone(*self.direct(), log='second.log')
        daemon.wait_for_console(r'mirroring is connected, will close accept socket:\d+!')
        self.wait_file(second_log, r'session end: head unit closed the connection')
        self.assertEqual(second.wait(timeout=30), 0)
        self.assertEqual(monitor.all(), [(243, 3), (243, 4)])

        self.wait_file(first_log, r'resetting at frame 150')
        daemon.wait_for_console(r'^Video stream stopped$')
        mark = daemon.mark()
        third, third_log = self.phone(*self.direct(), log='third.log')
        daemon.wait_for_console(r'mirroring use new client connection, old socket:\d+, new socket:\d+!', since=mark)
        monitor.wait_for(243, 4, since=2)
        before = self.pictures()
        self.wait_file(third_log, r'^frame 60 ')
        self.wait_pictures(before + 30)
        self.assertEqual(monitor.all(), [(243, 3), (243, 4), (243, 4)])
        daemon.assert_no_console('wait client retry connect timeout')

    def test_phone_that_comes_back_within_the_grace_period_keeps_the_link(self):
        daemon = self.start_hu_daemon()
        monitor = self.start_monitor()
        self.start_wifi(monitor)
        _, log = self.phone(*self.direct(), '--drop-at', '45', '--reconnect', '300')
        monitor.wait_for(243, 4, timeout=30)
        self.wait_file(log, r'reconnecting in 300 ms')
        monitor.wait_for(243, 4, since=2)
        daemon.wait_for_console(r'^Video stream stopped$')
        before = self.pictures()
        self.wait_pictures(before + 30)
        # Past the grace period, the link is still the same one.
        daemon.wait_for_console(r'mirroring use new client connection')
        self.wait_file(log, r'^frame 120 ')
        daemon.assert_no_console('wait client retry connect timeout')
        self.assertEqual(monitor.all(), [(243, 3), (243, 4), (243, 4)])

    def test_phone_that_does_not_come_back_ends_the_link(self):
        daemon = self.start_hu_daemon()
        monitor = self.start_monitor()
        self.start_wifi(monitor)
        _, log = self.phone(*self.direct(), '--drop-at', '45')
        monitor.wait_for(243, 4, timeout=30)
        self.wait_file(log, r'resetting at frame 45')
        daemon.wait_for_console(r'^wait client retry connect timeout, exit link!$', timeout=30)
        monitor.wait_for(243, 8)
        self.assertEqual(monitor.all(), [(243, 3), (243, 4), (243, 8)])
        self.assertFalse(self.net.listening(daemon.pid))
        self.net.wait_browse(lambda e: not any(x['name'] == 'Mirroring' for x in e))


class BadPhoneTest(WifiTestCase):

    def test_wrong_magic_and_silent_phone_fail_the_link_and_the_daemon_serves_on(self):
        daemon = self.start_hu_daemon()
        monitor = self.start_monitor()
        self.start_wifi(monitor)
        _, log = self.phone(*self.direct(), '--bad-magic', log='bad.log')
        daemon.wait_for_console(r'device_read_info error!', timeout=30)
        monitor.wait_for(243, 5)
        self.assertIn('"AFFBOrvane Phone Simulator"', self.read(log))
        self.assertFalse(self.net.listening(daemon.pid))
        daemon.assert_no_console('read device info:')

        # A phone that connects and says nothing holds the main thread for the 10 s receive
        # time-out and no longer.
        self.start_wifi(monitor)
        mark = daemon.mark()
        silent, silent_log = self.phone(*self.direct(), '--silent', log='silent.log')
        daemon.wait_for_console(r'mirroring client connected', since=mark, timeout=30)
        connected = time.monotonic()
        # An HMI request during the wait is queued behind the read, then answered.
        call = subprocess.Popen(['dbus-send', '--session', '--print-reply', '--dest=' + harness.SERVICE,
                                 harness.OBJECT_PATH, harness.INTERFACE + '.requestLinkStatus', 'int32:2',
                                 'int32:6'], env=self.bus.env(), stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        self.addCleanup(lambda: call.poll() is None and call.kill())
        daemon.wait_for_console(r'device_read_info failed!', since=mark, timeout=60)
        failed = monitor.wait_for(243, 5, since=2, timeout=30)[0]
        self.assertGreaterEqual(failed - connected, 8.0)
        self.assertEqual(call.wait(timeout=30), 0)
        monitor.wait_for(2, 6, since=2)
        self.wait_file(silent_log, r'silent: head unit closed the connection after (\d+) ms')
        self.assertEqual(silent.wait(timeout=30), 0)
        self.assertIn('Could not retrieve device information', daemon.console()[mark:])
        self.assertEqual(harness.request_link_status(self.bus, 243, 6)[0], 0)
        monitor.wait_for(243, 6, since=4)
        self.assertTrue(daemon.alive())


class StartFailureTest(WifiTestCase):

    def test_port_taken_then_free_then_started_twice(self):
        blocker = self.net.spawn(['python3', '-c', 'import socket,time\n'
                                  's=socket.socket(); s.bind(("0.0.0.0", %d)); s.listen(1); print("up", flush=True)\n'
                                  'time.sleep(600)' % PORT], log=self.tmp.file('blocker.log'), side=self.net.hu)
        self.addCleanup(self.net.stop, blocker)
        self.wait_file(self.tmp.file('blocker.log'), r'^up$')
        daemon = self.start_hu_daemon()
        monitor = self.start_monitor()
        self.start_wifi(monitor, expect=5)
        daemon.wait_for_console(r'^Could not listen on port 27555$\n(.*\n)*?.*startServerForWifi failed!')
        daemon.assert_no_console('register qvo mirroring dnssd!')

        self.net.stop(blocker)
        self.start_wifi(monitor)
        self.assertTrue(self.net.listening(daemon.pid))
        mark = daemon.mark()
        self.start_wifi(monitor)
        daemon.wait_for_console(r'^mirroring server is started!$', since=mark)
        self.assertEqual(daemon.console()[mark:].count('register qvo mirroring dnssd!'), 0)
        self.assertEqual(monitor.all(), [(243, 5), (243, 3), (243, 3)])

    def test_no_wlan1_fails_but_leaves_the_listener_up(self):
        # The phone's namespace has no wlan1.
        daemon = self.start_hu_daemon(side=self.net.phone)
        monitor = self.start_monitor()
        self.start_wifi(monitor, expect=5)
        self.assertTrue(self.net.listening(daemon.pid))
        daemon.assert_no_console('find_mac:')
        daemon.assert_no_console('register qvo mirroring dnssd!')
        daemon.assert_no_console('exit Mirror link!')
        mark = daemon.mark()
        self.start_wifi(monitor)
        daemon.wait_for_console(r'^mirroring server is started!$', since=mark)
        self.assertEqual(monitor.all(), [(243, 5), (243, 3)])


class SwitchingTest(WifiTestCase):

    def test_wifi_start_ends_usb_and_usb_start_ends_wifi(self):
        daemon = self.start_hu_daemon({'ADB': harness.binary('fake-adb'),
                                       'FAKE_ADB_LOG': self.tmp.file('adb.log'),
                                       'PHONE_SIM_LOG': self.tmp.file('usb-phone.log')})
        monitor = self.start_monitor()
        self.assertEqual(harness.request_link_status(self.bus, 2, 3)[0], 0)
        monitor.wait_for(2, 4, timeout=30)
        self.wait_pictures(10)

        self.start_wifi(monitor)
        self.assertEqual(monitor.all(), [(2, 4), (2, 8), (243, 3)])
        self.wait_file(self.tmp.file('usb-phone.log'), r'^end: ')
        _, log = self.phone(*self.direct())
        monitor.wait_for(243, 4, timeout=30)
        self.wait_file(log, r'^frame 30 ')

        since = monitor.count()
        self.assertEqual(harness.request_link_status(self.bus, 2, 3)[0], 0)
        monitor.wait_for(2, 4, since=since, timeout=30)
        self.assertEqual(monitor.all()[since:], [(243, 8), (2, 4)])
        self.wait_file(log, r'session end: head unit closed the connection')
        self.net.wait_browse(lambda e: not any(x['name'] == 'Mirroring' for x in e))


if __name__ == '__main__':
    unittest.main()
