"""The Wi-Fi link on a real network (see wifinet): orvaned announces itself from the head unit's side,
phone-sim browses, resolves and connects from the phone's. Needs root; skips elsewhere."""

import re
import time

import harness
import wifinet
from harness import LINK_USB, LINK_WIFI as WIFI, wait_file
from test_usb import UsbCase

PORT = 27555


class Wifi(UsbCase):

    @classmethod
    def setUpClass(cls):
        cls.net = wifinet.WifiNet()

    @classmethod
    def tearDownClass(cls):
        cls.net.close()

    def begin(self, side=None, prefix=None, **env):  # orvaned in the head unit's namespace (or side's)
        side = side or self.net.hu
        self.start_usb_daemon(fb='800x480', prefix=prefix or ['ip', 'netns', 'exec', side.ns], **side.env(), **env)
        return self.daemon, self.monitor

    def start_wifi(self, expect=3):
        since = self.monitor.count()
        self.assertEqual(harness.request_link_status(self.bus, WIFI, 3)[0], 0)
        self.monitor.wait_for(WIFI, expect, timeout=20, since=since)

    def phone(self, *args, log='phone.log', events=None, direct=True):
        """phone-sim in Wi-Fi mode in the phone's namespace; returns (process, log path)."""
        path, args = self.tmp.file(log), (('--connect', '%s:%d' % (self.net.hu.address, PORT)) if direct else ()) + args
        env = self.net.phone.env(dict({'PHONE_SIM_LOG': path, 'PHONE_SIM_SCREEN': 'pattern'},
                                      **({'PHONE_SIM_EVENTS': events} if events else {})))
        proc = self.net.spawn([harness.binary('phone-sim'), 'wifi'] + list(args), env=env, log=path + '.out',
                              side=self.net.phone)
        self.addCleanup(self.net.stop, proc)
        return proc, path

    def more_pictures(self, count):
        self.rig.wait_pictures(count, since=len(self.rig.pictures()))

    def announced(self, present=True, listening=None):
        """The announcement the phone browses (after waiting for it to come, or to go), and the listener."""
        entries = self.net.wait_browse(lambda e: any(x['name'] == 'Mirroring' for x in e) == present)
        self.assertEqual(self.net.listening(self.daemon.pid), present if listening is None else listening)
        return [x for x in entries if x['name'] == 'Mirroring']

    def test_the_interface_named_and_none_at_all(self):
        # ORVANE_WIFI_INTERFACE names the interface whose address is the head unit's identity.
        mac = '02:00:5e:10:20:30'
        wifinet.ip('-n', self.net.hu.ns, 'link', 'add', 'orvtest0', 'address', mac, 'type', 'veth', 'peer', 'orvtest1')
        self.addCleanup(wifinet.ip, '-n', self.net.hu.ns, 'link', 'del', 'orvtest0')
        self.begin(ORVANE_WIFI_INTERFACE='orvtest0')
        self.start_wifi()
        # (An earlier test's announcement may linger in the phone's cache for a moment.)
        self.net.wait_browse(lambda e: [x['txt'].get('deviceid') for x in e if x['name'] == 'Mirroring'] == [mac])
        # A machine with nothing but its loopback: said, failed, the listener left up for a phone that
        # knows the address; the next start only answers.
        bare = self.net.hu.ns + '-bare'
        wifinet.ip('netns', 'add', bare)
        self.addCleanup(wifinet.ip, 'netns', 'del', bare)
        daemon, monitor = self.begin(prefix=['ip', 'netns', 'exec', bare])
        self.start_wifi(5)
        self.assertTrue(self.net.listening(daemon.pid))
        line = 'No Wi-Fi interface address: nothing announced, the listener stays up'
        daemon.wait_for_console(re.escape(line))
        self.assertEqual(harness.stats(self.bus)['last_failure'], line)
        for absent in ('find_mac:', 'register qvo mirroring dnssd!', 'exit Mirror link!'):
            daemon.assert_no_console(absent)
        self.start_wifi()
        self.assertEqual(monitor.all(), [(WIFI, 5), (WIFI, 3)])

    def test_announced_found_acknowledged_and_withdrawn(self):
        # The port taken by another program fails the start before anything is announced.
        blocker = self.net.spawn(['python3', '-m', 'http.server', str(PORT)], side=self.net.hu)
        harness.wait_until(lambda: self.net.listening(blocker.pid), 10, 'the port taken')
        daemon, monitor = self.begin()
        self.start_wifi(5)
        daemon.wait_for_console(r'^Could not listen on port 27555$\n(.*\n)*?.*startServerForWifi failed!')
        self.net.stop(blocker)
        self.start_wifi()
        [entry] = self.announced()
        txt = {'deviceid': self.net.hu.mac(), 'width': '800', 'height': '480', 'maxFPS': '30'}
        self.assertEqual((entry['port'], entry['address'], entry['txt']), (PORT, self.net.hu.address, txt))
        mark = daemon.mark()
        self.start_wifi()  # while listening: answered, nothing registered again
        daemon.wait_for_console(r'^mirroring server is started!$', since=mark)
        self.assertEqual(daemon.console().count('register qvo mirroring dnssd!'), 1)
        # The client library withdraws by leaving its bus, which cannot be held up from outside:
        # the console's order is the evidence that the announcement goes before the listener.
        self.assertEqual(harness.request_link_status(self.bus, WIFI, 7)[0], 0)
        daemon.wait_for_console(r'exit Mirror link! false true.*\n(.*\n)*?mirroring server socket error, '
                                r'accept stoped!\n(.*\n)*?mirroring accept thread end!', since=mark)
        self.announced(False)

        # A phone finds the head unit by DNS-SD, and is acknowledged once per 90 frames (the counting
        # itself is unit-tested): 179 frames make one.
        self.start_wifi()
        _, log = self.phone('--discover', '30', events='eos@179', direct=False)
        self.assertEqual(dict(item.split('=', 1) for item in wait_file(log, r'^txt (.*)$').group(1).split(',')), txt)
        self.assertEqual(wait_file(log, r'video connection ended \((\d+) acks\)').group(1), '1')
        monitor.wait_for(WIFI, 8)
        # No stream ran before the withdrawal, so no (243, 8) then.
        self.assertEqual(monitor.all(), [(WIFI, 5), (WIFI, 3), (WIFI, 3), (WIFI, 3), (WIFI, 4), (WIFI, 8)])

    def test_newcomer_within_the_grace_period_none_after_it_and_bad_phones(self):
        daemon, monitor = self.begin()
        self.start_wifi()
        self.phone('--drop-at', '150', log='first.log')
        monitor.wait_for(WIFI, 4, timeout=30)
        # The phone drops; a newcomer within the grace period carries the same link on.
        wait_file(self.tmp.file('first.log'), r'resetting at frame 150')
        mark = daemon.wait_for_console(r'^Video stream stopped$').end()
        self.assertEqual(harness.stats(self.bus)['state'], 'grace')
        third, third_log = self.phone(log='third.log')
        daemon.wait_for_console(r'mirroring use new client connection, old socket:\d+, new socket:\d+!', since=mark)
        monitor.wait_for(WIFI, 4, since=2)
        self.assertEqual([harness.stats(self.bus)[k] for k in ('state', 'reconnects', 'links_started')],
                         ['streaming', '1', '1'])
        wait_file(third_log, r'^frame 120 ')  # well past the grace period
        self.more_pictures(30)
        daemon.assert_no_console('wait client retry connect timeout')
        self.net.stop(third)  # this time nobody comes back
        daemon.wait_for_console(r'^wait client retry connect timeout, exit link!$', timeout=30)
        monitor.wait_for(WIFI, 8)
        self.announced(False)

        # A wrong magic fails the link; the daemon serves on.
        self.start_wifi()
        mark = daemon.mark()
        self.phone('--bad-magic', log='bad.log')
        daemon.wait_for_console(r'device_read_info error!', timeout=30)
        monitor.wait_for(WIFI, 5)
        self.assertFalse(self.net.listening(daemon.pid))
        daemon.assert_no_console('read device info:', since=mark)
        # A phone that connects and says nothing holds the main thread for the 10 s receive time-out;
        # an HMI request meanwhile is queued behind the read, then answered.
        self.start_wifi()
        mark = daemon.mark()
        _, silent_log = self.phone('--silent', log='silent.log')
        daemon.wait_for_console(r'mirroring client connected', since=mark, timeout=30)
        connected = time.monotonic()
        request = harness.spawn([harness.binary('orvanectl'), 'hide', 'usb'], env=self.bus.env())
        self.addCleanup(harness.kill_process, request)
        daemon.wait_for_console(r'^Could not retrieve device information\n(.*\n)*?.*device_read_info failed!',
                                since=mark, timeout=60)
        self.assertGreaterEqual(monitor.wait_for(WIFI, 5, since=6, timeout=30)[0] - connected, 8.0)
        self.assertEqual(request.wait(timeout=30), 0)
        monitor.wait_for(LINK_USB, 6)
        wait_file(silent_log, r'silent: head unit closed the connection after (\d+) ms')
        self.assertEqual(monitor.all(), [(WIFI, 3), (WIFI, 4), (WIFI, 4), (WIFI, 8), (WIFI, 3), (WIFI, 5), (WIFI, 3),
                                         (WIFI, 5), (LINK_USB, 6)])

    def test_dns_sd_restart_link_down_and_switching_to_usb_and_back(self):
        daemon, monitor = self.begin()
        self.start_wifi()
        first, _ = self.phone(log='first.log')  # a phone that knows the address
        monitor.wait_for(WIFI, 4, timeout=30)
        # The DNS-SD daemon restarting takes the announcement with it, unnoticed until the link restarts.
        self.announced()
        self.net.stop(self.net.hu.avahi)  # it ends, with its goodbyes, and starts again as before
        self.net.start_avahi(self.net.hu, self.tmp.file('avahi-again.log'))
        self.more_pictures(30)
        self.announced(False, listening=True)
        self.start_wifi(expect=4)  # while streaming only shows the video again

        # The phone vanishes (out of range: no FIN, no RST, whatever was in flight): TCP's own liveness
        # ends the stream within its bound; then 3 s for a phone to come back.
        link = lambda state: wifinet.ip('-n', self.net.phone.ns, 'link', 'set', self.net.phone.interface, state)
        self.addCleanup(link, 'up')
        mark, down = daemon.mark(), time.monotonic()
        link('down')
        daemon.wait_for_console(r'^Video stream stopped$', since=mark, timeout=60)
        stopped = time.monotonic()
        self.assertLess(stopped - down, 20)
        self.assertGreaterEqual(monitor.wait_for(WIFI, 8, timeout=30)[0] - stopped, 2.5)
        daemon.assert_no_console('mirroring use new client connection|device_read_info', since=mark)
        self.net.stop(first)  # still writing into the dead link
        link('up')
        self.start_wifi()  # announced anew: the phone finds it
        _, log = self.phone('--discover', '30', log='second.log', direct=False)
        monitor.wait_for(WIFI, 4, since=5, timeout=40)
        self.more_pictures(30)

        # A USB start ends the Wi-Fi link, and a Wi-Fi start the USB link.
        self.assertEqual(harness.request_link_status(self.bus, LINK_USB, 3)[0], 0)
        monitor.wait_for(LINK_USB, 4, timeout=30)
        wait_file(log, r'session end: head unit closed the connection')
        self.announced(False)
        self.more_pictures(10)
        self.start_wifi()
        wait_file(self.rig.sim_log, r'^end: ')
        self.assertEqual(monitor.all(), [(WIFI, 3), (WIFI, 4), (WIFI, 4), (WIFI, 8), (WIFI, 3), (WIFI, 4), (WIFI, 8),
                                         (LINK_USB, 4), (LINK_USB, 8), (WIFI, 3)])
        # A stop leaves nothing: no process, threads and descriptors as before the first start.
        self.assertEqual(harness.request_link_status(self.bus, WIFI, 7)[0], 0)
        self.announced(False)
        self.assert_nothing_left()
