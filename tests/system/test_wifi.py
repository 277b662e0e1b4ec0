"""The Wi-Fi link on a real network (see wifinet): orvaned announces itself from the head unit's side,
phone-sim browses, resolves and connects from the phone's. Needs root; skips elsewhere."""

import re
import time
import unittest

import harness
import wifinet
from harness import LINK_USB, LINK_WIFI as WIFI, wait_file

FB = (800, 480)
PORT = 27555


class WifiCase(harness.OrvaneTestCase):

    @classmethod
    def setUpClass(cls):
        harness.require_binaries('orvaned', 'phone-sim', 'orvanectl', 'fake-adb')
        cls.net = wifinet.WifiNet()

    @classmethod
    def tearDownClass(cls):
        cls.net.close()

    def begin(self, expect=3, side=None, env=None):
        """orvaned in the head unit's namespace (or side's) and a monitor; a Wi-Fi start answered by expect."""
        side = side or self.net.hu
        self.daemon = self.start_daemon(side.env(dict(
            {'ORVANE_HOST_FB': '%dx%d' % FB, 'ORVANE_HOST_FRAMELOG': self.tmp.file('frames.log'),
             'ORVANE_SYSFS_NET': '/sys/class/net'}, **(env or {}))), prefix=['ip', 'netns', 'exec', side.ns])
        self.monitor = self.start_monitor()
        if expect:
            self.start_wifi(expect)
        return self.daemon, self.monitor

    def start_wifi(self, expect=3):
        since = self.monitor.count()
        self.assertEqual(harness.request_link_status(self.bus, WIFI, 3)[0], 0)
        self.monitor.wait_for(WIFI, expect, timeout=20, since=since)

    def phone(self, *args, log='phone.log', events=None, direct=True):
        """phone-sim in Wi-Fi mode in the phone's namespace; returns (process, log path)."""
        path = self.tmp.file(log)
        if direct:
            args = ('--connect', '%s:%d' % (self.net.hu.address, PORT)) + args
        env = self.net.phone.env(dict({'PHONE_SIM_LOG': path}, **({'PHONE_SIM_EVENTS': events} if events else {})))
        proc = self.net.spawn([harness.binary('phone-sim'), 'wifi'] + list(args), env=env, log=path + '.out',
                              side=self.net.phone)
        self.addCleanup(self.net.stop, proc)
        return proc, path

    def pictures(self, wait_for=0):
        """How many pictures were latched, once there are at least wait_for."""
        count = lambda: len(harness.read_text(self.tmp.file('frames.log')).splitlines())
        harness.wait_until(lambda: count() >= wait_for, 30, '%d pictures latched' % wait_for)
        return count()

    def announced(self, present=True):
        """The announcement the phone browses (after waiting for it to come, or to go)."""
        entries = self.net.wait_browse(lambda e: any(x['name'] == 'Mirroring' for x in e) == present)
        self.assertEqual(self.net.listening(self.daemon.pid), present)
        return [x for x in entries if x['name'] == 'Mirroring']


class Announcement(WifiCase):

    def test_port_taken_then_announced_and_withdrawn_before_the_listener_closes(self):
        blocker = self.net.spawn(['python3', '-c', 'import socket, time\ns = socket.socket()\n'
                                  's.bind(("0.0.0.0", %d)); s.listen(1); print("up", flush=True); time.sleep(600)'
                                  % PORT], log=self.tmp.file('blocker.log'), side=self.net.hu)
        wait_file(self.tmp.file('blocker.log'), r'^up$')
        daemon, monitor = self.begin(expect=5)
        daemon.wait_for_console(r'^Could not listen on port 27555$\n(.*\n)*?.*startServerForWifi failed!')
        daemon.assert_no_console('register qvo mirroring dnssd!')
        self.net.stop(blocker)
        self.start_wifi()
        [entry] = self.announced()
        mac = self.net.hu.mac()
        self.assertEqual((entry['port'], entry['address']), (PORT, self.net.hu.address))
        self.assertEqual(entry['txt'], {'deviceid': mac, 'width': str(FB[0]), 'height': str(FB[1]), 'maxFPS': '30'})
        self.assertIn('find_mac:' + mac, daemon.console())
        mark = daemon.mark()
        self.start_wifi()  # while listening: answered, nothing registered again
        daemon.wait_for_console(r'^mirroring server is started!$', since=mark)
        daemon.assert_no_console('register qvo mirroring dnssd!', since=mark)
        # The client library withdraws by leaving its bus, which cannot be held up from outside:
        # the console's order is the evidence that the announcement goes before the listener.
        self.assertEqual(harness.request_link_status(self.bus, WIFI, 7)[0], 0)
        daemon.wait_for_console(r'exit Mirror link! false true.*\n(.*\n)*?mirroring server socket error, '
                                r'accept stoped!\n(.*\n)*?mirroring accept thread end!', since=mark)
        self.announced(False)
        self.assertEqual(monitor.all(), [(WIFI, 5), (WIFI, 3), (WIFI, 3)])  # no stream ran, so no (243, 8)

    def test_no_wlan1_fails_but_leaves_the_listener_up(self):
        daemon, monitor = self.begin(expect=5, side=self.net.phone)  # the phone's side has no wlan1
        self.assertTrue(self.net.listening(daemon.pid))
        for absent in ('find_mac:', 'register qvo mirroring dnssd!', 'exit Mirror link!'):
            daemon.assert_no_console(absent)
        self.start_wifi()
        self.assertEqual(monitor.all(), [(WIFI, 5), (WIFI, 3)])


class Streaming(WifiCase):

    def test_phone_discovers_connects_and_is_acknowledged_every_90_frames(self):
        daemon, monitor = self.begin()
        _, log = self.phone('--discover', '30', events='frames=200', direct=False)
        monitor.wait_for(WIFI, 4, timeout=40)
        txt = wait_file(log, r'^txt (.*)$').group(1)
        self.assertEqual(dict(item.split('=', 1) for item in txt.split(',')),
                         {'deviceid': self.net.hu.mac(), 'width': str(FB[0]), 'height': str(FB[1]), 'maxFPS': '30'})
        wait_file(log, r'discovered "Mirroring"(.*\n)*.*address %s' % re.escape(self.net.hu.address))
        daemon.wait_for_console(r'read device info: O 1280 720')
        # 200 frames make two acknowledge bytes, the second after frame 180, and no third however
        # long the link stays up.
        wait_file(log, r'idle: frame limit reached')
        self.pictures(180)
        self.assertEqual(harness.request_link_status(self.bus, WIFI, 7)[0], 0)
        monitor.wait_for(WIFI, 8)
        self.assertEqual(wait_file(log, r'video connection ended \((\d+) acks\)').group(1), '2')
        acks = [int(n) for n in re.findall(r'^ack \d+ after (\d+) frames sent$', harness.read_text(log), re.M)]
        self.assertEqual((len(acks), acks[0] >= 90, acks[1] >= 180), (2, True, True), acks)
        self.assertEqual(monitor.all(), [(WIFI, 3), (WIFI, 4), (WIFI, 8)])

    def test_second_phone_turned_away_newcomer_within_the_grace_period_and_none_after_it(self):
        daemon, monitor = self.begin()
        self.phone('--drop-at', '150', log='first.log')
        monitor.wait_for(WIFI, 4, timeout=30)
        second, second_log = self.phone(log='second.log')
        daemon.wait_for_console(r'mirroring is connected, will close accept socket:\d+!')
        wait_file(second_log, r'session end: head unit closed the connection')
        self.assertEqual(second.wait(timeout=30), 0)
        # The first phone drops; a newcomer within the grace period carries the same link on.
        wait_file(self.tmp.file('first.log'), r'resetting at frame 150')
        mark = daemon.wait_for_console(r'^Video stream stopped$').end()
        third, third_log = self.phone(log='third.log')
        daemon.wait_for_console(r'mirroring use new client connection, old socket:\d+, new socket:\d+!', since=mark)
        monitor.wait_for(WIFI, 4, since=2)
        before = self.pictures()
        wait_file(third_log, r'^frame 120 ')  # well past the grace period
        self.pictures(before + 60)
        daemon.assert_no_console('wait client retry connect timeout')
        self.assertEqual(monitor.all(), [(WIFI, 3), (WIFI, 4), (WIFI, 4)])
        self.net.stop(third)  # this time nobody comes back
        daemon.wait_for_console(r'^wait client retry connect timeout, exit link!$', timeout=30)
        monitor.wait_for(WIFI, 8)
        self.assertEqual(monitor.all(), [(WIFI, 3), (WIFI, 4), (WIFI, 4), (WIFI, 8)])
        self.announced(False)


class BadPhones(WifiCase):

    def test_wrong_magic_and_silent_phone_fail_the_link_and_the_daemon_serves_on(self):
        daemon, monitor = self.begin()
        _, log = self.phone('--bad-magic', log='bad.log')
        daemon.wait_for_console(r'device_read_info error!', timeout=30)
        monitor.wait_for(WIFI, 5)
        self.assertIn('"AFFBOrvane Phone Simulator"', harness.read_text(log))
        self.assertFalse(self.net.listening(daemon.pid))
        daemon.assert_no_console('read device info:')

        # A phone that connects and says nothing holds the main thread for the 10 s receive time-out.
        self.start_wifi()
        mark = daemon.mark()
        silent, silent_log = self.phone('--silent', log='silent.log')
        daemon.wait_for_console(r'mirroring client connected', since=mark, timeout=30)
        connected = time.monotonic()
        # An HMI request during the wait is queued behind the read, then answered.
        request = harness.spawn([harness.binary('orvanectl'), 'hide', 'usb'], env=self.bus.env())
        self.addCleanup(harness.kill_process, request)
        daemon.wait_for_console(r'device_read_info failed!', since=mark, timeout=60)
        self.assertGreaterEqual(monitor.wait_for(WIFI, 5, since=2, timeout=30)[0] - connected, 8.0)
        self.assertEqual(request.wait(timeout=30), 0)
        monitor.wait_for(LINK_USB, 6, since=2)
        wait_file(silent_log, r'silent: head unit closed the connection after (\d+) ms')
        self.assertEqual(silent.wait(timeout=30), 0)
        self.assertIn('Could not retrieve device information', daemon.console()[mark:])


class Switching(WifiCase):

    def test_wifi_start_ends_usb_and_usb_start_ends_wifi(self):
        usb_phone = self.tmp.file('usb-phone.log')
        self.begin(expect=None, env={'ADB': harness.binary('fake-adb'), 'PHONE_SIM_LOG': usb_phone})
        self.assertEqual(harness.request_link_status(self.bus, LINK_USB, 3)[0], 0)
        self.monitor.wait_for(LINK_USB, 4, timeout=30)
        self.pictures(10)
        self.start_wifi()
        self.assertEqual(self.monitor.all(), [(LINK_USB, 4), (LINK_USB, 8), (WIFI, 3)])
        wait_file(usb_phone, r'^end: ')
        _, log = self.phone()
        self.monitor.wait_for(WIFI, 4, timeout=30)
        wait_file(log, r'^frame 30 ')
        since = self.monitor.count()
        self.assertEqual(harness.request_link_status(self.bus, LINK_USB, 3)[0], 0)
        self.monitor.wait_for(LINK_USB, 4, since=since, timeout=30)
        self.assertEqual(self.monitor.all()[since:], [(WIFI, 8), (LINK_USB, 4)])
        wait_file(log, r'session end: head unit closed the connection')
        self.announced(False)


if __name__ == '__main__':
    unittest.main()
