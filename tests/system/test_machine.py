"""A machine that turns on the daemon: its session bus goes away, a signal lands on a worker thread, threads
and file descriptors run out, adb hangs while the daemon is told to end. Each ends in a clear line and a
true status: never a death, a hang or a link that says it streams when it does not."""

import ctypes
import os
import re
import signal
import subprocess
import time

import harness
from harness import LINK_USB, LINK_WIFI
from test_usb import UsbCase, service_line

ENDING_BOUND = 10  # seconds from SIGINT to the daemon's end, a start in progress included (README)


def thread_ids(pid, name):
    return [int(t) for t in os.listdir('/proc/%d/task' % pid)
            if harness.read_text('/proc/%d/task/%s/comm' % (pid, t)).strip() == name]


def tgkill(pid, tid, sig):
    assert ctypes.CDLL(None).tgkill(pid, tid, sig) == 0


class PidsLimit:
    """A pids cgroup (v2, or v1's pids hierarchy) holding one process and what it starts."""

    def __init__(self, pid):
        root = '/sys/fs/cgroup'
        if 'pids' in harness.read_text(root + '/cgroup.controllers').split():
            with open(root + '/cgroup.subtree_control', 'w') as f:
                f.write('+pids')
        else:
            root += '/pids'
        self.path = '%s/orvane-test-%d' % (root, pid)
        os.mkdir(self.path)
        self._write('cgroup.procs', pid)

    def _write(self, name, value):
        with open(os.path.join(self.path, name), 'w') as f:
            f.write(str(value))

    def set(self, limit):
        self._write('pids.max', limit)

    def close(self):
        self.set('max')
        for pid in harness.read_text(self.path + '/cgroup.procs').split():
            with open(os.path.dirname(self.path) + '/cgroup.procs', 'w') as f:
                f.write(pid)
        os.rmdir(self.path)


class Machine(UsbCase):

    def wifi_stream(self):
        """A Wi-Fi link from a phone on this machine's loopback; returns once it streams."""
        since = self.monitor.count()
        self.assertEqual(harness.request_link_status(self.bus, LINK_WIFI, 3)[0], 0)
        self.monitor.wait_for(LINK_WIFI, 3, since=since)
        phone = harness.spawn([harness.binary('phone-sim'), 'wifi', '--connect', '127.0.0.1:27555'],
                              env=dict(self.daemon.env, PHONE_SIM_LOG=self.rig.sim_log), stdout=subprocess.DEVNULL)
        self.addCleanup(harness.kill_process, phone)
        self.monitor.wait_for(LINK_WIFI, 4, since=since)

    def test_lost_session_bus_ends_the_link_and_the_daemon(self):
        self.start_usb_daemon()
        self.start_link()
        self.rig.wait_pictures(5)
        mark = self.daemon.mark()
        self.bus.proc.kill()
        self.assertEqual(self.daemon.proc.wait(timeout=30), 1, 'a status that restarts it')
        self.assertIn('Session bus lost: ending the link and the daemon', self.assert_teardown(mark))
        self.assertEqual(harness.reap_orphans(), [])

    def test_sigterm_on_the_stream_thread_is_not_taken_mid_frame(self):
        for link in ('usb', 'wifi'):
            with self.subTest(link=link):
                self.start_usb_daemon(ORVANE_WIFI_INTERFACE='lo')
                self.start_link() if link == 'usb' else self.wifi_stream()
                self.rig.wait_pictures(5)
                [stream] = thread_ids(self.daemon.pid, 'orvane-stream')
                mark, seen = self.daemon.mark(), len(self.rig.pictures())
                for _ in range(40):
                    tgkill(self.daemon.pid, stream, signal.SIGTERM)
                    time.sleep(0.02)
                self.rig.wait_pictures(30, since=seen)
                for wrong in (r'overflow', r'exceeds the video buffer', r'^Video stream stopped$', r'callstack'):
                    self.daemon.assert_no_console(wrong, since=mark)
                # Aimed at the process, the signal still reaches the main thread: a call stack, then on.
                self.daemon.proc.send_signal(signal.SIGTERM)
                self.daemon.wait_for_console(r'^exception_print_callstack \d+ $', since=mark)
                self.rig.wait_pictures(10, since=len(self.rig.pictures()))

    def assert_start_holds(self, link_type):
        """A start under a limit: the link streams (USB) or waits for the phone (Wi-Fi) for real, or it
        failed with its line (or ended after it streamed) and left nothing; the status says which."""
        since, mark = self.monitor.count(), self.daemon.mark()
        self.assertEqual(harness.request_link_status(self.bus, link_type, 3, timeout=90)[0], 0)
        status = harness.wait_until(lambda: [s for t, s in self.monitor.all()[since:] if s in (3, 4, 5)], 60,
                                    'an answer')[0]
        self.assertIsNone(self.daemon.proc.poll(), 'the daemon died')
        if status == 4:
            # Shown, or ended and said so (the phone itself may run out of threads after it connected).
            seen = len(self.rig.pictures())
            harness.wait_until(lambda: len(self.rig.pictures()) >= seen + 3 or (link_type, 8) in
                               self.monitor.all()[since:], 30, 'pictures or the end of the link')
            status = 8 if (link_type, 8) in self.monitor.all()[since:] else 4
        elif status == 3:
            harness.wait_until(lambda: thread_ids(self.daemon.pid, 'orvane-accept'), 10, 'the accept thread')
        else:
            self.assertRegex(harness.stats(self.bus)['last_failure'], r'failed!$')
        self.assertEqual(harness.request_link_status(self.bus, link_type, 7)[0], 0, 'D-Bus answers')
        self.daemon.wait_for_console(service_line('exitLink  screen stoped'), since=mark)
        self.assert_nothing_left()
        return status

    def test_threads_and_descriptors_that_run_out(self):
        # Descriptors and address space from what the idle daemon holds upwards, threads (the daemon's and
        # what it starts) likewise: every start fails cleanly until one works.
        self.start_usb_daemon(ORVANE_WIFI_INTERFACE='lo')
        limits = PidsLimit(self.daemon.pid)
        self.addCleanup(limits.close)
        prlimit = lambda option: subprocess.run(['prlimit', '--pid', str(self.daemon.pid), option], check=True)
        # What the daemon holds now: its address space grows with the first links (the allocator's arenas).
        held = lambda: (*self.idle[:2], int(re.search(r'VmSize:\s+(\d+)', harness.read_text(
            '/proc/%d/status' % self.daemon.pid)).group(1)))
        for resource, link_type, sweep in (('descriptors', LINK_USB, lambda t, d, kb: range(d, d + 40)),
                                           ('address space', LINK_USB, lambda t, d, kb: range(kb, kb + 2 ** 19, 2 ** 13)),
                                           ('threads', LINK_USB, lambda t, d, kb: range(t, t + 60)),
                                           ('threads', LINK_WIFI, lambda t, d, kb: range(t, t + 10))):
            statuses = []
            for limit in sweep(*held()):
                with self.subTest(resource=resource, link=link_type, limit=limit):
                    if resource == 'threads':
                        limits.set(limit)
                    else:
                        prlimit('--nofile=%d:' % limit if resource == 'descriptors' else '--as=%d:' % (limit * 1024))
                    statuses.append(self.assert_start_holds(link_type))
                    if statuses[-1] in (3, 4):
                        break
            self.assertEqual((statuses[0], statuses[-1]), (5, 4 if link_type == LINK_USB else 3), resource)
            prlimit('--nofile=1024:')
            prlimit('--as=unlimited:')
            limits.set('max')
        self.daemon.wait_for_console(r'^Could not start the orvane-accept thread$')

    def test_sigint_while_adb_hangs_ends_in_order_within_the_bound(self):
        hung = self.tmp.file('hanging-adb')
        with open(hung, 'w') as f:
            f.write('#!/bin/sh\ncase "$*" in reverse*|forward*) exec sleep 600;; esac\nexec %s "$@"\n'
                    % harness.binary('fake-adb'))
        os.chmod(hung, 0o755)
        self.start_usb_daemon(adb=hung)
        start = harness.spawn([harness.binary('orvanectl'), 'start', 'usb'], env=self.bus.env(),
                              stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        self.addCleanup(harness.kill_process, start)
        harness.wait_until(lambda: any('sleep 600' in cmd for _, cmd in harness.descendants(self.daemon.pid)), 20,
                           'adb reverse hanging')
        began = time.monotonic()
        self.daemon.proc.send_signal(signal.SIGINT)
        self.assertEqual(self.daemon.proc.wait(timeout=60), 0)
        self.assertLess(time.monotonic() - began, ENDING_BOUND)
        console = self.daemon.console()
        self.assertRegex(console, r'"adb reverse" killed: the daemon is ending\n(.*\n)*.*startServer failed!')
        self.assertIn('Signal 2: ending the link and the daemon', console)
        self.assertTrue(re.search(service_line('exitLink  screen stoped'), console, re.M))
        self.assertEqual(harness.reap_orphans(), [])
