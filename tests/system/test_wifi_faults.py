"""The Wi-Fi link when the network under it fails: the link drops mid-stream, or the head unit's
DNS-SD daemon restarts. Each fault ends in its status and leaves nothing; needs root (see wifinet)."""

import os
import signal
import time

import harness
import wifinet
from harness import LINK_USB, LINK_WIFI as WIFI
from test_wifi import WifiCase

AVAHI = ('mount -t tmpfs tmpfs /run/avahi-daemon && exec avahi-daemon -f "$1" '
         '--no-drop-root --no-chroot --no-rlimits --no-proc-title')  # as wifinet starts it


class Faults(WifiCase):

    def begin_idle(self):
        self.begin(expect=None)
        self.idle = harness.process_resources(self.daemon.pid)[:2]  # threads, descriptors
        self.start_wifi()

    def set_link(self, state):
        wifinet._ip('-n', self.net.hu.ns, 'link', 'set', self.net.hu.interface, state)

    def restart_avahi(self):
        """The head unit's avahi-daemon ended (with its goodbyes) and started again as before."""
        conf = os.path.join(self.net.dir, self.net.hu.ns, 'avahi.conf')
        [pid] = [int(p) for p in os.listdir('/proc') if p.isdigit() and
                 harness.read_text('/proc/%s/cmdline' % p).split('\0')[:3] == ['avahi-daemon', '-f', conf]]
        os.kill(pid, signal.SIGTERM)
        harness.wait_until(lambda: harness._running_cmdline(pid) is None, 20, 'avahi-daemon to end')
        log = self.tmp.file('avahi-%d.log' % pid)
        self.net.spawn(['sh', '-c', AVAHI, 'sh', conf], env=self.net.hu.env(), log=log, side=self.net.hu)
        harness.wait_file(log, r'Server startup complete', 20)

    def assert_unannounced_but_listening(self):
        self.net.wait_browse(lambda e: all(x['name'] != 'Mirroring' for x in e))
        self.assertTrue(self.net.listening(self.daemon.pid))

    def stop_link(self, phone_log):
        """An HMI stop: (243, 8), nothing announced, the phone told, no process left, threads and
        descriptors as before the first start, and the daemon still answers (a hide, (2, 6))."""
        since = self.monitor.count()
        self.assertEqual(harness.request_link_status(self.bus, WIFI, 7)[0], 0)
        self.monitor.wait_for(WIFI, 8, since=since)
        self.announced(False)
        harness.wait_file(phone_log, r'session end: head unit closed the connection')
        self.assertEqual((harness.descendants(self.daemon.pid), harness.reap_orphans()), ([], []))
        counts = lambda: harness.process_resources(self.daemon.pid)[:2]
        self.assertEqual(harness.wait_until(lambda: counts() == self.idle, 10) and counts(), self.idle)
        self.assertEqual(harness.request_link_status(self.bus, LINK_USB, 6)[0], 0)
        self.monitor.wait_for(LINK_USB, 6, since=since)

    def test_link_down_mid_stream_ends_after_the_receive_time_out_and_grace_period(self):
        self.begin_idle()
        first, _ = self.phone(log='first.log')
        self.monitor.wait_for(WIFI, 4, timeout=30)
        self.pictures(30)
        mark = self.daemon.mark()
        self.addCleanup(self.set_link, 'up')
        self.set_link('down')
        down = time.monotonic()
        self.daemon.wait_for_console(r'^Video stream stopped$', since=mark, timeout=60)
        stopped = time.monotonic()
        # Nothing arrives, so the reader's receive gives up after its 10 s; then 3 s for a phone.
        self.assertGreaterEqual(stopped - down, 9.5)
        self.assertGreaterEqual(self.monitor.wait_for(WIFI, 8, timeout=30)[0] - stopped, 2.5)
        self.daemon.wait_for_console(r'^Video stream stopped$\n(.*\n)*?^wait client retry connect timeout, exit '
                                     r'link!$\n(.*\n)*?.*exit Mirror link! false true \n(.*\n)*?.*exitLink  '
                                     r'screen stoped ', since=mark)
        self.daemon.assert_no_console('mirroring use new client connection|device_read_info', since=mark)
        self.net.stop(first)  # still writing into the dead link
        self.set_link('up')
        self.start_wifi()
        _, log = self.phone('--discover', '30', log='second.log', direct=False)
        self.monitor.wait_for(WIFI, 4, since=3, timeout=40)
        self.pictures(self.pictures() + 30)
        self.stop_link(log)
        self.assertEqual(self.monitor.all(), [(WIFI, 3), (WIFI, 4), (WIFI, 8)] * 2 + [(LINK_USB, 6)])

    def test_dns_sd_daemon_restart_goes_unnoticed_until_the_link_is_restarted(self):
        self.begin_idle()
        self.announced()
        self.restart_avahi()  # while listening
        self.assert_unannounced_but_listening()
        _, log = self.phone()  # a phone that knows the address
        self.monitor.wait_for(WIFI, 4, timeout=30)
        self.restart_avahi()  # while streaming
        self.pictures(self.pictures() + 30)
        self.assert_unannounced_but_listening()
        self.start_wifi(expect=4)  # while streaming only shows the video again; orders the statuses
        self.assertEqual(self.monitor.all(), [(WIFI, 3), (WIFI, 4), (WIFI, 4)])
        self.stop_link(log)
        self.start_wifi()
        self.announced()
        self.assertEqual(self.monitor.all(), [(WIFI, 3), (WIFI, 4), (WIFI, 4), (WIFI, 8), (LINK_USB, 6), (WIFI, 3)])
