"""Many USB links in a row through one daemon: every start/stop cycle must give back what it took.
Descriptors and threads are counted exactly; resident memory is allowed a small fixed slack,
because the allocator keeps freed pages and Qt grows its caches once, not per cycle."""

import sys
import time
import unittest

import harness
from harness import LINK_USB
from test_usb import UsbCase

CYCLES = 200
EARLY = 20
# Resident memory moves by allocator bookkeeping: heap pages kept after free, and glibc's
# per-thread arenas, each of which keeps its own decoder-sized chunks, so the figure steps by
# megabytes depending on which arena a link's threads happened to get. The daemon runs with two
# arenas here, which keeps those steps under a megabyte; a leak of 25 kB a cycle shows up as
# 4.5 MB over the 180 cycles compared.
RSS_SLACK_KB = 4096


class Endurance(UsbCase):

    def test_start_stop_cycles_leave_no_growth(self):
        # A small screen and a slow phone: the cycles measure the link's life, not decoding.
        self.start_usb_daemon(fb='320x240', fps=5, MALLOC_ARENA_MAX='2')
        began = time.monotonic()
        figures = {'before': harness.process_resources(self.daemon.pid)}
        for cycle in range(1, CYCLES + 1):
            start = self.monitor.count()
            self.start_link()
            self.assertEqual(self.monitor.all()[start:], [(LINK_USB, 4)], 'cycle %d' % cycle)
            self.assertEqual(harness.request_link_status(self.bus, LINK_USB, 7)[0], 0)
            self.monitor.wait_for(LINK_USB, 8, since=start + 1, timeout=60)
            # adb and the phone of this cycle are gone before the next one starts.
            harness.wait_until(lambda: not harness.descendants(self.daemon.pid), 20,
                               'children of cycle %d to end' % cycle)
            if cycle in (EARLY, CYCLES):
                # Let the event loop delete the joined thread objects before counting.
                self.assert_statuses_tail()
                figures[cycle] = self.settled(figures['before'])
        elapsed = time.monotonic() - began

        sys.stderr.write('\n%d cycles in %.1f s; threads, descriptors, resident kB: before %s, after %d %s, '
                         'after %d %s\n' % (CYCLES, elapsed, figures['before'], EARLY, figures[EARLY],
                                            CYCLES, figures[CYCLES]))
        before, early, late = figures['before'], figures[EARLY], figures[CYCLES]
        self.assertEqual(late[:2], before[:2], 'threads and descriptors after %d cycles' % CYCLES)
        self.assertEqual(early[:2], before[:2], 'threads and descriptors after %d cycles' % EARLY)
        if self.sanitized():
            # AddressSanitizer holds freed memory in its quarantine (up to 256 MB) on purpose.
            sys.stderr.write('resident memory not compared: the daemon runs under AddressSanitizer\n')
        else:
            self.assertLessEqual(late[2] - early[2], RSS_SLACK_KB,
                                 'resident memory grew from %d kB to %d kB between cycle %d and %d'
                                 % (early[2], late[2], EARLY, CYCLES))
        self.assertEqual(self.rig.otg_runs(), CYCLES)
        launches = [c for c in self.rig.adb_calls() if 'app_process' in c]
        self.assertEqual(len(launches), CYCLES)
        self.assertEqual(harness.reap_orphans(), [])

    def sanitized(self):
        with open('/proc/%d/maps' % self.daemon.pid) as f:
            return 'libasan' in f.read()

    def assert_statuses_tail(self):
        before = self.monitor.count()
        self.assertEqual(harness.request_link_status(self.bus, LINK_USB, 6)[0], 0)
        self.monitor.wait_for(LINK_USB, 6, since=before)
        self.assertEqual(self.monitor.all()[before:], [(LINK_USB, 6)])

    def settled(self, idle):
        """The daemon's figures once its thread and descriptor counts are back at idle (or after a
        bounded wait, so a leak is reported with its numbers rather than as a time-out)."""
        try:
            harness.wait_until(lambda: harness.process_resources(self.daemon.pid)[:2] == idle[:2], 10,
                               'idle counts')
        except AssertionError:
            pass
        return harness.process_resources(self.daemon.pid)


if __name__ == '__main__':
    unittest.main()
