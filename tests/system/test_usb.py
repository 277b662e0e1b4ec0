"""The USB link end to end through the real daemon: fake-adb as adb, phone-sim as the phone with its
live x264 pattern, the headless display's picture log and PNG snapshots as the screen, and the
daemon's D-Bus surface as the HMI sees it."""

import os
import re
import signal
import subprocess
import threading
import unittest

import harness
from harness import LINK_USB, LOG_PREFIX

LAUNCH = ('shell CLASSPATH=/data/local/tmp/qvoalink-server.jar app_process / com.qvo.alink.Server '
          '1280:720 8000000 false - true true')
TEARDOWN_LINES = (' stream stoped', ' controller stoped', ' video buffer stoped', ' screen stoped')


def service_line(text):
    """A service log line whose items end with text (the console format: prefix, items, blanks)."""
    return r'^' + LOG_PREFIX + r' .*' + re.escape(text) + r' $'


class UsbCase(harness.OrvaneTestCase):
    """Gives a test a daemon wired to fake-adb and phone-sim, and the checks every link shares."""

    def start_usb_daemon(self, **rig_options):
        self.rig = harness.UsbRig(self.tmp.path)
        self.daemon = self.start_daemon(env=self.rig.env(**rig_options))
        self.monitor = self.start_monitor()
        return self.daemon

    def start_link(self):
        """Requests a start and waits for its answer, which must be (2, 4); a failed start names
        its reasons from the console."""
        since = self.monitor.count()
        rc, _, err = harness.request_link_status(self.bus, LINK_USB, 3)
        self.assertEqual(rc, 0, err)
        answer = harness.wait_until(
            lambda: [s for t, s in self.monitor.all()[since:] if t == LINK_USB and s in (4, 5)], 60,
            'an answer to the start')
        if answer[0] != 4:
            reasons = [line for line in self.daemon.console().splitlines()
                       if 'failed' in line or 'Could not' in line or 'returned with value' in line]
            self.fail('start answered (2, %d): %s' % (answer[0], reasons[-6:]))

    def assert_statuses(self, expected):
        """The statuses so far are exactly expected; a hide request is the barrier that makes sure
        nothing else is still on its way (calls and signals keep their order)."""
        before = self.monitor.count()
        self.assertEqual(harness.request_link_status(self.bus, LINK_USB, 6)[0], 0)
        self.monitor.wait_for(LINK_USB, 6, since=before)
        self.assertEqual(self.monitor.all(), list(expected) + [(LINK_USB, 6)])

    def assert_nothing_left(self, idle=None):
        """No adb or phone below the daemon; with idle=(threads, fds, _), the daemon is back to
        the threads and descriptors it had before the link."""
        harness.wait_until(lambda: not harness.descendants(self.daemon.pid), 20,
                           'the daemon\'s children to end (left: %s)' % harness.descendants(self.daemon.pid))
        self.assertEqual(harness.reap_orphans(), [])
        if idle is not None:
            def back():
                now = harness.process_resources(self.daemon.pid)
                return now[:2] == idle[:2]
            try:
                harness.wait_until(back, 10, 'threads and descriptors back to idle')
            except AssertionError:
                self.assertEqual(harness.process_resources(self.daemon.pid)[:2], idle[:2],
                                 'threads, descriptors: %s' % self.daemon.fd_targets())

    def assert_teardown_in_order(self, since=0):
        console = self.daemon.console()[since:]
        positions = []
        for text in TEARDOWN_LINES:
            m = re.search(service_line('exitLink ' + text), console, re.MULTILINE)
            self.assertIsNotNone(m, 'no "exitLink%s" on the console' % text)
            positions.append(m.start())
        self.assertEqual(positions, sorted(positions), 'teardown lines out of order')
        return console


class Start(UsbCase):

    def check_link(self, fb, place):
        self.start_usb_daemon(fb=fb)
        self.start_link()
        calls = self.rig.adb_calls()
        expected = ['push /qvoprofile/qvoalink-server.jar /data/local/tmp/qvoalink-server.jar',
                    'reverse localabstract:androidlink tcp:27555', LAUNCH,
                    'reverse --remove localabstract:androidlink']
        self.assertEqual(calls, expected)
        self.daemon.wait_for_console(service_line('read device info: Orvane Phone Simulator 1280 720'))

        pictures = self.rig.wait_pictures(15)
        self.assertEqual({(p.size, p.place) for p in pictures}, {((1280, 720), place)})

        # The pattern where the placement puts it: red, green, blue thirds over the top five sixths,
        # black below (apart from the moving square), black bars outside the picture.
        x, y, w, h = place
        shot = self.rig.wait_snapshot(lambda s: s.colour(x + w // 6, y + h // 3) == 'red', 'with the picture')
        self.assertEqual((shot.width, shot.height), tuple(int(v) for v in fb.split('x')))
        top = y + h * 5 // 12  # middle of the coloured band
        for fraction, colour in ((1, 'red'), (3, 'green'), (5, 'blue')):
            for dy in (-h // 6, 0, h // 6):
                px = x + w * fraction // 6
                self.assertEqual(shot.colour(px, top + dy), colour, (px, top + dy, shot.pixel(px, top + dy)))
        bottom = y + h * 11 // 12
        black = sum(shot.colour(x + w * i // 20, bottom) == 'black' for i in range(1, 20))
        self.assertGreaterEqual(black, 15, 'bottom sixth should be mostly black')
        for bx, by in self.bars(shot, place):
            self.assertEqual(shot.colour(bx, by), 'black', (bx, by, shot.pixel(bx, by)))

        self.assertEqual(harness.request_link_status(self.bus, LINK_USB, 7)[0], 0)
        self.monitor.wait_for(LINK_USB, 8)

    @staticmethod
    def bars(shot, place):
        x, y, w, h = place
        points = []
        if y > 0:
            points += [(shot.width // 2, y // 2), (shot.width // 2, y + h + (shot.height - y - h) // 2)]
        if x > 0:
            points += [(x // 2, shot.height // 2), (x + w + (shot.width - x - w) // 2, shot.height // 2)]
        return points

    # 1280x720 into 1024x600: full width, 576 lines, centred; into 800x480: 450 lines, cut to the
    # layer's multiple of 4 (448), centred.
    def test_start_runs_adb_and_shows_the_phone_on_1024x600(self):
        self.check_link('1024x600', (0, 12, 1024, 576))

    def test_start_shows_the_phone_on_800x480(self):
        self.check_link('800x480', (0, 16, 800, 448))


class Input(UsbCase):

    def test_touches_and_keys_reach_the_phone_scaled_to_the_video(self):
        self.start_usb_daemon()
        self.start_link()
        self.rig.wait_pictures(3)
        # The picture is at 0,12 sized 1024x576; the video is 1280x720: 1.25 both ways.
        def touch(action, x, y):
            return {'type': 'touch', 'action': action, 'pointer_id': 1, 'x': x, 'y': y,
                    'width': 1280, 'height': 720}

        def key(action, keycode):
            return {'type': 'keycode', 'action': action, 'keycode': keycode, 'metastate': 0}

        steps = [
            (('touch', 'press', 512, 300), [touch(0, 640, 360)]),
            (('touch', 'move', 700, 400), [touch(2, 875, 485)]),
            (('touch', 'move', 512, 5), []),             # on the bar above the picture: dropped
            (('touch', 'release', 512, 595), [touch(1, 875, 485)]),  # lifted off it: last inside spot
            (('touch', 'move', 600, 300), []),           # a move after the release means nothing
            (('touch', 'press', 0, 300), []),            # the picture's own edge counts as outside
            (('touch', 'release', 0, 300), []),
            (('touch', 'press', 1023, 300), []),
            (('touch', 'press', 1022, 586), [touch(0, 1277, 717)]),
            (('touch', 'release', 1022, 586), [touch(1, 1277, 717)]),
            (('key', 'back'), [key(0, 4), key(1, 4)]),
            (('key', 'home'), [key(0, 3), key(1, 3)]),
            (('key', 'menu'), [key(0, 82), key(1, 82)]),
        ]
        expected = []
        for args, messages in steps:
            rc, _, err = self.call(*args)
            self.assertEqual(rc, 0, (args, err))
            expected += messages
        # The same through raw D-Bus, as any HMI would call it; a key type without a key code
        # sends nothing.
        for method, typed, messages in (
                ('requestTouchAction', (('uint32', 1), ('uint32', 100), ('uint32', 100)), [touch(0, 125, 110)]),
                ('requestTouchAction', (('uint32', 2), ('uint32', 101), ('uint32', 101)), [touch(2, 126, 111)]),
                ('requestTouchAction', (('uint32', 3), ('uint32', 101), ('uint32', 101)), [touch(1, 126, 111)]),
                ('requestTouchAction', (('uint32', 9), ('uint32', 100), ('uint32', 100)), []),
                ('requestKeyValue', (('int32', 7),), []),
                ('requestKeyValue', (('int32', 2),), [key(0, 4), key(1, 4)])):
            rc, _, err = harness.raw_call(self.bus, method, *typed)
            self.assertEqual(rc, 0, err)
            expected += messages
        # The last message closes the list, and the stream is one ordered connection.
        self.assertEqual(self.rig.wait_controls(len(expected)), expected)
        self.assertEqual(self.rig.controls(), expected)
        self.daemon.wait_for_console(service_line('requestKeyValue 7'))


class Stop(UsbCase):

    def check_stop(self, status):
        self.start_usb_daemon()
        idle = harness.process_resources(self.daemon.pid)
        self.start_link()
        self.rig.wait_pictures(5)
        linked = harness.process_resources(self.daemon.pid)
        self.assertGreater(linked[0], idle[0], 'a link runs threads of its own')
        since = self.daemon.mark()

        self.assertEqual(harness.request_link_status(self.bus, LINK_USB, status)[0], 0)
        self.monitor.wait_for(LINK_USB, 8)
        self.daemon.wait_for_console(service_line('exitLink  screen stoped'), since=since)
        self.assert_statuses([(LINK_USB, 4), (LINK_USB, 8)])

        console = self.assert_teardown_in_order(since)
        self.assertEqual(self.rig.otg_runs(), 1)
        self.assertEqual(self.rig.adb_kill_runs(), 1)
        # The USB controller goes back to OTG after the server has stopped and before the stream
        # thread is joined; the adb server is ended after the screen has closed.
        otg = console.index(self.rig.OTG_TRACE)
        self.assertLess(console.index('Server terminated'), otg)
        self.assertLess(otg, console.index(' stream stoped'))
        kill = console.index(self.rig.ADB_KILL_TRACE)
        self.assertLess(console.index(' video buffer stoped'), kill)
        self.assertLess(kill, console.index(' screen stoped'))
        self.assertIn('end: terminated', self.rig.sim_lines())
        self.assert_nothing_left(idle)

    def test_stop_7_ends_the_link_and_leaves_the_daemon_as_it_was(self):
        self.check_stop(7)

    def test_stop_24_ends_the_link_and_leaves_the_daemon_as_it_was(self):
        self.check_stop(24)


class PhoneEnds(UsbCase):

    def test_end_of_stream_or_closed_connections_end_the_link(self):
        for event, sim_line in (('eos@20', 'end of stream sent at frame 20'), ('close@20', 'closing at frame 20')):
            with self.subTest(event=event):
                if self.daemons:
                    self.daemons[-1].stop()
                    harness.end_orphans()
                self.start_usb_daemon(events=event)
                idle = harness.process_resources(self.daemon.pid)
                since = self.daemon.mark()
                self.start_link()
                self.monitor.wait_for(LINK_USB, 8, timeout=30)
                self.daemon.wait_for_console(service_line('exitLink  screen stoped'), since=since)
                self.assertIn(sim_line, self.rig.sim_lines())
                console = self.assert_teardown_in_order(since)
                self.assertLess(console.index('Video stream stopped'), console.index('exit Mirror link!'))
                self.assertEqual(self.rig.otg_runs(), 1)
                self.assert_statuses([(LINK_USB, 4), (LINK_USB, 8)])
                self.assert_nothing_left(idle)
                for path in (self.rig.otg_log, self.rig.adb_kill_log, self.rig.adb_log, self.rig.sim_log):
                    os.unlink(path)


class StartFails(UsbCase):

    def check_failure(self, line, **rig_options):
        self.start_usb_daemon(**rig_options)
        idle = harness.process_resources(self.daemon.pid)
        rc, _, err = harness.request_link_status(self.bus, LINK_USB, 3)
        self.assertEqual(rc, 0, err)
        self.monitor.wait_for(LINK_USB, 5, timeout=60)
        self.daemon.wait_for_console(service_line(line))
        self.daemon.wait_for_console(service_line('exitLink  screen stoped'))
        # A start that never streamed ends without (2, 8).
        self.assert_statuses([(LINK_USB, 5)])
        self.assertEqual(self.rig.adb_kill_runs(), 1)
        self.assert_nothing_left(idle)
        return idle

    def test_no_phone_on_the_real_adb(self):
        adb = '/usr/bin/adb'
        if not os.access(adb, os.X_OK):
            self.skipTest('no adb at ' + adb)
        # The adb server of this test on a port of its own, so no other adb user is disturbed,
        # and its keys in the test's home.
        port = '27561'
        env = {'ANDROID_ADB_SERVER_PORT': port, 'HOME': self.tmp.path}
        kill_server = lambda: subprocess.run([adb, 'kill-server'], env=dict(os.environ, **env),
                                             capture_output=True, timeout=30)
        self.addCleanup(kill_server)
        self.start_usb_daemon(adb=adb, ORVANE_ADB_DEVICES_COMMAND=adb + ' devices', **env)
        idle = harness.process_resources(self.daemon.pid)
        self.assertEqual(harness.request_link_status(self.bus, LINK_USB, 3, timeout=90)[0], 0)
        self.monitor.wait_for(LINK_USB, 5, timeout=90)
        self.daemon.wait_for_console(service_line('startServer failed!'))
        self.daemon.wait_for_console(r'^"adb push" returned with value 1$')
        self.daemon.wait_for_console(service_line('exitLink  screen stoped'))
        self.assert_statuses([(LINK_USB, 5)])
        self.assertEqual(self.rig.otg_runs(), 0, 'no server started, no OTG switch')
        # The adb server that the daemon's adb started is not the daemon's child: end it here.
        kill_server()
        self.assert_nothing_left(idle)

    def test_framebuffer_that_cannot_be_opened(self):
        self.check_failure('screen_init_rendering failed!', ORVANE_HOST_FAULTS='fb-open')
        self.assertEqual(self.rig.adb_calls(), [])

    def test_phone_that_closes_before_its_device_information(self):
        # A phone (server) that connects both sockets and closes them without a byte.
        wrapper = os.path.join(self.tmp.path, 'mute-phone-adb')
        with open(wrapper, 'w') as f:
            f.write('#!/bin/sh\n'
                    'case "$*" in *app_process*) exec python3 -c "import socket\n'
                    'a = socket.create_connection((\'127.0.0.1\', 27555))\n'
                    'b = socket.create_connection((\'127.0.0.1\', 27555))\n'
                    'a.close(); b.close()";; esac\n'
                    'exec %s "$@"\n' % harness.binary('fake-adb'))
        os.chmod(wrapper, 0o755)
        self.check_failure('device_read_info failed!', adb=wrapper)
        self.daemon.wait_for_console(r'^Could not retrieve device information$')
        self.assertEqual(self.rig.otg_runs(), 1)

    def test_device_information_cut_short(self):
        # The socket layer counts a receive that the phone's close cut short as complete, so a
        # record cut after 30 bytes reads with a zeroed tail; the stream then finds the
        # connection closed and the link ends as any other whose phone went away.
        self.start_usb_daemon(events='short-info')
        idle = harness.process_resources(self.daemon.pid)
        self.assertEqual(harness.request_link_status(self.bus, LINK_USB, 3)[0], 0)
        self.monitor.wait_for(LINK_USB, 8, timeout=60)
        self.daemon.wait_for_console(service_line('read device info: Orvane Phone Simulator 0 0'))
        self.daemon.wait_for_console(r'^Video stream stopped$')
        self.daemon.wait_for_console(service_line('exitLink  screen stoped'))
        self.assertIn('short device information sent (30 of 68 bytes), closing', self.rig.sim_lines())
        self.assert_statuses([(LINK_USB, 4), (LINK_USB, 8)])
        self.assert_nothing_left(idle)


class ControlClosedByThePhone(UsbCase):

    def test_video_goes_on_and_input_fails_quietly(self):
        self.start_usb_daemon(events='close-control@10')
        # SIGPIPE is ignored: a send on the closed connection gets EPIPE instead of ending us.
        with open('/proc/%d/status' % self.daemon.pid) as f:
            ignored = int(next(l for l in f if l.startswith('SigIgn:')).split()[1], 16)
        self.assertTrue(ignored & (1 << (signal.SIGPIPE - 1)))
        self.start_link()
        self.daemon.wait_for_console(r'^Receiver stopped$', timeout=30)
        self.assertIn('closing the control connection at frame 10', self.rig.sim_lines())
        seen = len(self.rig.pictures())
        for _ in range(3):
            for args in (('key', 'back'), ('touch', 'press', 512, 300), ('touch', 'release', 512, 300)):
                self.assertEqual(self.call(*args)[0], 0, args)
        self.assertTrue(self.daemon.alive())
        self.rig.wait_pictures(10, since=seen)
        self.assertEqual(self.rig.controls(), [])
        self.assert_statuses([(LINK_USB, 4)])
        self.daemon.assert_no_console(r'Video stream stopped')
        self.assertEqual(harness.request_link_status(self.bus, LINK_USB, 7)[0], 0)
        self.monitor.wait_for(LINK_USB, 8)
        self.assert_nothing_left()


class RepeatedRequests(UsbCase):

    def test_start_while_streaming_shows_a_hidden_picture_again_without_adb(self):
        self.start_usb_daemon()
        self.start_link()
        self.rig.wait_pictures(3)
        calls = self.rig.adb_calls()

        seen = len(self.rig.pictures())
        self.assertEqual(harness.request_link_status(self.bus, LINK_USB, 6)[0], 0)
        self.monitor.wait_for(LINK_USB, 6)
        hidden = self.rig.wait_pictures(5, since=seen, visible=False)
        self.rig.wait_snapshot(lambda s: s.all_black(), 'all black')
        # Hidden stays hidden: the pictures keep coming, none of them shown.
        after_hide = len(self.rig.pictures())
        self.rig.wait_pictures(5, since=after_hide, visible=False)
        self.assertFalse(any(p.visible for p in self.rig.pictures()[after_hide:]))

        before = self.monitor.count()
        self.assertEqual(harness.request_link_status(self.bus, LINK_USB, 3)[0], 0)
        self.monitor.wait_for(LINK_USB, 4, since=before)
        self.daemon.wait_for_console(service_line('OrvaneApp::startLink'), since=0)
        self.rig.wait_pictures(3, since=len(hidden) + seen)
        self.rig.wait_snapshot(lambda s: s.colour(170, 250) == 'red', 'with the picture again')
        self.assertEqual(self.rig.adb_calls(), calls)
        self.assertEqual(self.monitor.all(), [(LINK_USB, 4), (LINK_USB, 6), (LINK_USB, 4)])

    def test_start_queued_behind_a_slow_start_is_answered_by_the_running_link(self):
        # An adb whose push takes a while keeps the first start busy while the second arrives.
        wrapper = os.path.join(self.tmp.path, 'slow-adb')
        with open(wrapper, 'w') as f:
            f.write('#!/bin/sh\ncase "$1" in push) sleep 2;; esac\nexec %s "$@"\n' % harness.binary('fake-adb'))
        os.chmod(wrapper, 0o755)
        self.start_usb_daemon(adb=wrapper)
        calls = [subprocess.Popen(['dbus-send', '--session', '--print-reply', '--dest=' + harness.SERVICE,
                                   harness.OBJECT_PATH, harness.INTERFACE + '.requestLinkStatus',
                                   'int32:2', 'int32:3'], env=self.bus.env(), stdout=subprocess.DEVNULL,
                                  stderr=subprocess.DEVNULL) for _ in range(2)]
        for proc in calls:
            self.addCleanup(harness._kill_process, proc)
        for proc in calls:
            self.assertEqual(proc.wait(timeout=60), 0)
        self.monitor.wait_for(LINK_USB, 4, since=1, timeout=30)
        self.assertEqual(self.monitor.all(), [(LINK_USB, 4), (LINK_USB, 4)])
        self.assertEqual(len(re.findall(service_line('OrvaneApp::startLink'), self.daemon.console(), re.M)), 2)
        self.assertEqual(sum(1 for c in self.rig.adb_calls() if c.startswith('push ')), 1)
        self.assertEqual(self.rig.adb_calls().count(LAUNCH), 1)


if __name__ == '__main__':
    unittest.main()
