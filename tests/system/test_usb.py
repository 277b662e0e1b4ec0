"""The USB link end to end: fake-adb as adb, phone-sim as the phone, the headless display's picture
log and snapshots as the screen. Every way a link ends or fails ends in its status, leaving nothing."""

import os
import re
import signal
import tempfile
import time

import harness
from harness import LINK_USB

LAUNCH = ('shell CLASSPATH=/data/local/tmp/qvoalink-server.jar app_process / com.qvo.alink.Server '
          '1280:720 8000000 false - true true')
ADB_CALLS = ['push /qvoprofile/qvoalink-server.jar /data/local/tmp/qvoalink-server.jar',
             'reverse localabstract:androidlink tcp:27555', LAUNCH, 'reverse --remove localabstract:androidlink']


def service_line(text):  # a service log line whose items end with text
    return r'^' + harness.LOG_PREFIX + r' .*' + re.escape(text) + r' $'


SCREEN_STOPPED = service_line('exitLink  screen stoped')  # the last step of every teardown


class UsbCase(harness.OrvaneTestCase):
    """A daemon wired to fake-adb and phone-sim (replacing the previous one), and checks links share."""

    def start_usb_daemon(self, prefix=(), **rig_options):
        if self.daemons:
            self.daemons[-1].stop()
            harness.end_orphans()
        self.rig = harness.UsbRig(tempfile.mkdtemp(dir=self.tmp.path))
        self.daemon = self.start_daemon(env=self.rig.env(**rig_options), prefix=prefix)
        self.monitor = self.start_monitor()
        self.idle = harness.process_resources(self.daemon.pid)

    def request(self, status):
        rc, _, err = harness.request_link_status(self.bus, LINK_USB, status, timeout=90)
        self.assertEqual(rc, 0, err)

    def start_link(self):
        """A start answered by (2, 4); returns the console, status and picture positions it began at."""
        marks = self.daemon.mark(), self.monitor.count(), len(self.rig.pictures())
        self.request(3)
        answer = harness.wait_until(lambda: [s for _, s in self.monitor.all()[marks[1]:] if s in (4, 5)], 60, 'answer')
        self.assertEqual(answer[0], 4, 'the start failed')
        return marks

    def assert_statuses(self, expected, since=0):
        """The statuses after since are exactly expected; a hide is the barrier (signals keep their order)."""
        before = self.monitor.count()
        self.request(6)
        self.monitor.wait_for(LINK_USB, 6, since=before)
        self.assertEqual(self.monitor.all()[since:], list(expected) + [(LINK_USB, 6)])

    def assert_nothing_left(self):
        """No adb or phone below the daemon, none unreaped, and its threads and descriptors back to idle."""
        harness.wait_until(lambda: not harness.children_of(self.daemon.pid), 20, "the daemon's children to be reaped")
        self.assertEqual(harness.reap_orphans(), [])
        counts = lambda: harness.process_resources(self.daemon.pid)[:2]
        harness.wait_until(lambda: counts() == self.idle[:2], 10)
        self.assertEqual(counts(), self.idle[:2], 'threads and descriptors back to idle')

    def shell_runs(self, console):  # how often the OTG switch and the adb kill ran
        return [console.count(trace) for trace in (self.rig.OTG_TRACE, self.rig.ADB_KILL_TRACE)]

    def assert_link_ended(self, since, statuses_since=0):
        """After since: (2, 8), the teardown in order (the OTG switch after the server stopped and before
        the stream is joined, the adb kill after the video buffer), each shell command once; nothing left."""
        self.monitor.wait_for(LINK_USB, 8, timeout=30, since=statuses_since)
        console = self.assert_teardown(since)
        self.assert_statuses([(LINK_USB, 4), (LINK_USB, 8)], since=statuses_since)
        self.assert_nothing_left()
        return console

    def assert_teardown(self, since):
        """The console after since holds a whole USB teardown, in order, each shell command once."""
        self.daemon.wait_for_console(SCREEN_STOPPED, since=since)
        console = self.daemon.console()[since:]
        order = ['Server terminated', self.rig.OTG_TRACE] + [service_line('exitLink  %s stoped' % step) for step in (
            'stream', 'controller', 'video buffer')] + [self.rig.ADB_KILL_TRACE, SCREEN_STOPPED]
        positions = [re.search(text if text.startswith('^') else re.escape(text), console, re.M).start()
                     for text in order]
        self.assertEqual(positions, sorted(positions), 'teardown out of order')
        self.assertEqual(self.shell_runs(console), [1, 1])
        return console


class Link(UsbCase):

    def test_mirror_input_hide_and_each_way_a_link_ends(self):
        self.start_usb_daemon()
        self.start_link()
        self.assertEqual(self.rig.adb_calls(), ADB_CALLS)
        # 1280x720 into 1024x600: full width, 576 lines, centred; 1.25 both ways.
        x, y, w, h = place = (0, 12, 1024, 576)
        self.assertEqual({(p.size, p.place) for p in self.rig.wait_pictures(15)}, {((1280, 720), place)})
        # Red, green, blue thirds over the top five sixths, black bars outside the picture.
        shot = self.rig.wait_snapshot(lambda s: s.colour(x + w // 6, y + h // 3) == 'red', 'with the picture')
        self.assertEqual([shot.colour(x + w * i // 6, py) for i in (1, 3, 5) for py in (y + h // 4, y + h * 7 // 12)] +
                         [shot.colour(512, y // 2), shot.colour(512, y + h + y // 2), (shot.width, shot.height)],
                         ['red'] * 2 + ['green'] * 2 + ['blue'] * 2 + ['black', 'black', (1024, 600)])

        # Touches scaled from where the real screen put the picture (the rules themselves are unit-tested),
        # keys, and unknown touch and key types, all in order on the one control connection.
        touch = lambda action, x, y: [{'type': 'touch', 'action': action, 'pointer_id': 1, 'x': x, 'y': y,
                                       'width': 1280, 'height': 720}]
        key = lambda code: [{'type': 'keycode', 'action': a, 'keycode': code, 'metastate': 0} for a in (0, 1)]
        steps = [  # orvanectl arguments, or a raw D-Bus method with its arguments; what the phone receives
            (('touch', 'press', 512, 300), touch(0, 640, 360)), (('touch', 'move', 700, 400), touch(2, 875, 485)),
            (('touch', 'move', 512, 5), []),                        # on the bar above the picture: dropped
            (('touch', 'release', 512, 595), touch(1, 875, 485)),  # lifted off it: the last inside spot
            (('requestTouchAction', 1, 1022, 586), touch(0, 1277, 717)),
            (('requestTouchAction', 3, 101, 101), touch(1, 126, 111)),  # the edge rules are unit-tested
            (('key', 'back'), key(4)), (('key', 'home'), key(3)), (('key', 'menu'), key(82)),
            (('requestKeyValue', 2), key(4)),
        ]
        for args, _ in steps:
            kind = {'requestTouchAction': 'uint32', 'requestKeyValue': 'int32'}.get(args[0])
            rc = harness.raw_call(self.bus, args[0], *[(kind, v) for v in args[1:]]) if kind else self.call(*args)
            self.assertEqual(rc[0], 0, args)
        expected = sum((messages for _, messages in steps), [])
        harness.wait_until(lambda: len(self.rig.controls()) >= len(expected), 20, 'the control messages')
        self.assertEqual(self.rig.controls(), expected)

        # Hide: the screen goes black (the pictures keep coming unseen, as the storm checks); a start while
        # streaming shows the picture again, without adb.
        self.request(6)
        self.monitor.wait_for(LINK_USB, 6)
        self.rig.wait_snapshot(lambda s: s.all_black(), 'all black')
        self.request(3)
        self.monitor.wait_for(LINK_USB, 4, since=2)
        self.rig.wait_snapshot(lambda s: s.colour(170, 250) == 'red', 'with the picture again')
        self.assertEqual(self.rig.adb_calls(), ADB_CALLS)
        self.assertEqual(self.monitor.all(), [(LINK_USB, 4), (LINK_USB, 6), (LINK_USB, 4)])
        self.request(7)
        self.assert_link_ended(0, statuses_since=2)

        for end in ('stop 24', 'phone killed'):
            mark, statuses, seen = self.start_link()
            self.assertEqual(self.rig.adb_calls()[-len(ADB_CALLS):], ADB_CALLS)
            self.rig.wait_pictures(5, since=seen)
            if end == 'stop 24':
                self.request(24)
            else:
                [phone] = [pid for pid, cmd in harness.descendants(self.daemon.pid) if 'phone-sim' in cmd]
                os.kill(phone, signal.SIGKILL)
            console = self.assert_link_ended(mark, statuses)
            self.assertEqual('Video stream stopped' in console.split('exit Mirror link!')[0], end != 'stop 24')

    def test_start_failures_end_in_status_5_within_their_bounds_and_leave_nothing(self):
        # A push that never ends (exec: the hanging step is the adb process itself, as a stuck adb client).
        hung = self.tmp.file('hanging-adb')
        with open(hung, 'w') as f:
            f.write('#!/bin/sh\ncase "$*" in push*) exec sleep 600;; esac\nexec %s "$@"\n' % harness.binary('fake-adb'))
        os.chmod(hung, 0o755)
        connect, info = 'connectToServer failed!', 'device_read_info failed!'
        late, cut = 'Server did not connect within 12000 ms', 'Could not retrieve device information'
        rows = [  # rig options, the service's line, the lower layer's reason before it, OTG switches
            ({'ORVANE_HOST_FAULTS': 'fb-open'}, 'screen_init_rendering failed!',
             '-----------------open fb4 fail.----------------------', 0),
            ({'FAKE_ADB_NO_DEVICE': '1'}, 'startServer failed!', '"adb push" returned with value 1', 0),
            ({'adb': hung, 'ORVANE_ADB_TIMEOUT_MS': '1500'}, 'startServer failed!',
             '"adb push" did not finish within 1500 ms, killed', 0),
            # Phone-side servers that misbehave; a framebuffer size out of range is refused on the way.
            ({'events': 'exit-at-launch', 'fb': '4294967312x16'}, connect,
             'Server exited before connecting (exit status 1)', 1),
            ({'events': 'never-connect'}, connect, late, 1), ({'events': 'video-only'}, connect, late, 1),
            ({'events': 'no-hello', 'FAKE_ADB_FAIL': 'reverse'}, connect, late, 1),
            ({'events': 'info-bytes=0'}, info, cut, 1), ({'events': 'info-bytes=40'}, info, cut, 1),
            ({'events': 'short-info'}, info, cut, 1),  # cut short and closed: never padded with zeros
        ]
        for options, line, reason, otg_runs in rows:
            with self.subTest(line=line, options=options):
                self.start_usb_daemon(**options)
                began = time.monotonic()
                # orvanectl says why, as the console did: the lower layer's reason, then the step's line.
                self.assertEqual(self.call('start', 'usb', timeout=90),
                                 (1, '2 5 failed\n', 'orvanectl: %s\norvanectl: %s\n' % (reason, line)))
                self.assertLess(time.monotonic() - began, 15, "beyond the README's bound")
                mark = self.daemon.wait_for_console('^' + re.escape(reason) + '$').end()
                self.daemon.wait_for_console(service_line(line), since=mark)
                self.daemon.wait_for_console(SCREEN_STOPPED)
                self.assert_statuses([(LINK_USB, 5)])  # never streamed: no (2, 8); D-Bus answers at once
                self.assertEqual(self.shell_runs(self.daemon.console()), [otg_runs, 1])
                if 'ORVANE_HOST_FAULTS' in options:
                    self.assertEqual(self.rig.adb_calls(), [], 'the screen is set up before adb is used')
                if 'fb' in options:
                    self.assertIn('ORVANE_HOST_FB=4294967312x16 is not WIDTHxHEIGHT', self.daemon.console())
                self.assert_nothing_left()
