"""200 USB links in a row through one daemon as it ships: threads and descriptors come back exactly,
resident memory stays within 4 MB of its value after the fifth link (a 25 kB leak a link fails)."""

import harness
from harness import LINK_USB
from test_usb import UsbCase

CYCLES, EARLY, RSS_SLACK_KB = 200, 5, 4096


class Endurance(UsbCase):

    def test_start_stop_cycles_leave_no_growth(self):
        # A small screen and a slow phone: the cycles measure the link's life, not decoding.
        self.start_usb_daemon(fb='320x240', fps=5)
        figures = {}
        for cycle in range(1, CYCLES + 1):
            start = self.start_link()[1]
            self.request(7)
            self.monitor.wait_for(LINK_USB, 8, since=start + 1, timeout=60)
            self.assertEqual(self.monitor.all()[start:], [(LINK_USB, 4), (LINK_USB, 8)], 'cycle %d' % cycle)
            harness.wait_until(lambda: not harness.children_of(self.daemon.pid), 20, 'children of cycle %d' % cycle)
            if cycle in (EARLY, CYCLES):
                # Counted once the event loop has deleted the joined threads' objects, or after 10 s.
                harness.wait_until(lambda: harness.process_resources(self.daemon.pid)[:2] == self.idle[:2], 10)
                figures[cycle] = harness.process_resources(self.daemon.pid)
        self.assertEqual([figures[EARLY][:2], figures[CYCLES][:2]], [self.idle[:2]] * 2)
        if 'libasan' not in harness.read_text('/proc/%d/maps' % self.daemon.pid):  # ASan keeps freed memory
            self.assertLessEqual(figures[CYCLES][2] - figures[EARLY][2], RSS_SLACK_KB, figures)
        self.assertEqual(self.shell_runs(self.daemon.console())[0], CYCLES)
        self.assert_nothing_left()
