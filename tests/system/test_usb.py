"""The USB link end to end through the real daemon: fake-adb as adb, phone-sim as the phone with its
live x264 pattern, the headless display's picture log and snapshots as the screen."""

import os
import re
import subprocess
import tempfile
import unittest

import harness
from harness import LINK_USB

LAUNCH = ('shell CLASSPATH=/data/local/tmp/qvoalink-server.jar app_process / com.qvo.alink.Server '
          '1280:720 8000000 false - true true')
ADB_CALLS = ['push /qvoprofile/qvoalink-server.jar /data/local/tmp/qvoalink-server.jar',
             'reverse localabstract:androidlink tcp:27555', LAUNCH, 'reverse --remove localabstract:androidlink']
TEARDOWN = (' stream stoped', ' controller stoped', ' video buffer stoped', ' screen stoped')


def service_line(text):
    """A service log line whose items end with text."""
    return r'^' + harness.LOG_PREFIX + r' .*' + re.escape(text) + r' $'


SCREEN_STOPPED = service_line('exitLink  screen stoped')


def write_script(path, text):
    with open(path, 'w') as f:
        f.write('#!/bin/sh\n' + text)
    os.chmod(path, 0o755)
    return path


class UsbCase(harness.OrvaneTestCase):
    """A daemon wired to fake-adb and phone-sim (replacing the previous one), and checks links share."""

    def start_usb_daemon(self, **rig_options):
        if self.daemons:
            self.daemons[-1].stop()
            harness.end_orphans()
        self.rig = harness.UsbRig(tempfile.mkdtemp(dir=self.tmp.path))
        self.daemon = self.start_daemon(env=self.rig.env(**rig_options))
        self.monitor = self.start_monitor()
        self.idle = harness.process_resources(self.daemon.pid)

    def request(self, status):
        rc, _, err = harness.request_link_status(self.bus, LINK_USB, status, timeout=90)
        self.assertEqual(rc, 0, err)

    def start_link(self):
        """A start that must be answered by (2, 4) (a failed test prints the console, with the reasons)."""
        since = self.monitor.count()
        self.request(3)
        answer = harness.wait_until(lambda: [s for _, s in self.monitor.all()[since:] if s in (4, 5)], 60, 'answer')
        self.assertEqual(answer[0], 4, 'the start failed')

    def assert_statuses(self, expected, since=0):
        """The statuses after since are exactly expected; a hide is the barrier (signals keep their order)."""
        before = self.monitor.count()
        self.request(6)
        self.monitor.wait_for(LINK_USB, 6, since=before)
        self.assertEqual(self.monitor.all()[since:], list(expected) + [(LINK_USB, 6)])

    def assert_nothing_left(self):
        """No adb or phone below the daemon, and its threads and descriptors back to idle."""
        harness.wait_until(lambda: not harness.descendants(self.daemon.pid), 20, "the daemon's children to end")
        self.assertEqual(harness.reap_orphans(), [])
        counts = lambda: harness.process_resources(self.daemon.pid)[:2]
        harness.wait_until(lambda: counts() == self.idle[:2], 10)
        self.assertEqual(counts(), self.idle[:2], 'threads and descriptors back to idle')

    def shell_runs(self, console):
        """How often the OTG switch and the adb kill ran."""
        return [console.count(trace) for trace in (self.rig.OTG_TRACE, self.rig.ADB_KILL_TRACE)]

    def assert_link_ended(self, since, statuses_since=0):
        """After since: (2, 8), the teardown lines in order, one OTG switch and adb kill; nothing left."""
        self.monitor.wait_for(LINK_USB, 8, timeout=30, since=statuses_since)
        self.daemon.wait_for_console(SCREEN_STOPPED, since=since)
        console = self.daemon.console()[since:]
        positions = [re.search(service_line('exitLink ' + text), console, re.M).start() for text in TEARDOWN]
        self.assertEqual(positions, sorted(positions), 'teardown lines out of order')
        self.assertEqual(self.shell_runs(console), [1, 1])
        self.assert_statuses([(LINK_USB, 4), (LINK_USB, 8)], since=statuses_since)
        self.assert_nothing_left()
        return console


class StartAndStop(UsbCase):

    def test_start_shows_the_phone_and_stop_7_or_24_ends_the_link(self):
        # 1280x720 into 800x480: 450 lines, cut to the layer's multiple of 4 (448), centred.
        self.start_usb_daemon(fb='800x480')
        x, y, w, h = place = (0, 16, 800, 448)
        for cycle, status in enumerate((7, 24)):
            mark, adb, seen, statuses = self.daemon.mark(), len(self.rig.adb_calls()), len(self.rig.pictures()), \
                self.monitor.count()
            self.start_link()
            self.assertEqual(self.rig.adb_calls()[adb:], ADB_CALLS)
            self.daemon.wait_for_console(service_line('read device info: Orvane Phone Simulator 1280 720'), since=mark)
            self.assertEqual({(p.size, p.place) for p in self.rig.wait_pictures(15, since=seen)}, {((1280, 720), place)})
            # Red, green, blue thirds over the top five sixths, black below (but for the moving
            # square), black bars outside the picture.
            shot = self.rig.wait_snapshot(lambda s: s.colour(x + w // 6, y + h // 3) == 'red', 'with the picture')
            self.assertEqual((shot.width, shot.height), (800, 480))
            for fraction, colour in ((1, 'red'), (3, 'green'), (5, 'blue')):
                for py in (y + h // 4, y + h * 5 // 12, y + h * 7 // 12):
                    self.assertEqual(shot.colour(x + w * fraction // 6, py), colour, (fraction, py))
            self.assertGreaterEqual(sum(shot.colour(w * i // 20, y + h * 11 // 12) == 'black' for i in range(1, 20)), 15)
            self.assertEqual({shot.colour(400, y // 2), shot.colour(400, y + h + y // 2)}, {'black'})

            self.request(status)
            console = self.assert_link_ended(mark, statuses)
            # OTG after the server has stopped and before the stream thread is joined; the adb
            # server ended after the video buffer and before the screen.
            order = ['Server terminated', self.rig.OTG_TRACE, ' stream stoped', ' video buffer stoped',
                     self.rig.ADB_KILL_TRACE, ' screen stoped']
            positions = [console.index(text) for text in order]
            self.assertEqual(positions, sorted(positions), order)
            # The phone ended (by the SIGTERM, or first by the sockets the stop closed before it).
            self.assertEqual(sum(line.startswith('end: ') for line in self.rig.sim_lines()), cycle + 1)


class InputAndRepeats(UsbCase):

    def test_input_reaches_the_phone_scaled_and_hide_and_start_repeat(self):
        self.start_usb_daemon()
        self.start_link()
        # 1280x720 into 1024x600: full width, 576 lines, centred; 1.25 both ways.
        self.assertEqual({p.place for p in self.rig.wait_pictures(3)}, {(0, 12, 1024, 576)})
        touch = lambda action, x, y: {'type': 'touch', 'action': action, 'pointer_id': 1, 'x': x, 'y': y,
                                      'width': 1280, 'height': 720}
        key = lambda code: [{'type': 'keycode', 'action': a, 'keycode': code, 'metastate': 0} for a in (0, 1)]
        steps = [
            (('touch', 'press', 512, 300), [touch(0, 640, 360)]),
            (('touch', 'move', 700, 400), [touch(2, 875, 485)]),
            (('touch', 'move', 512, 5), []),                          # on the bar above the picture: dropped
            (('touch', 'release', 512, 595), [touch(1, 875, 485)]),   # lifted off it: the last inside spot
            (('touch', 'move', 600, 300), []),                        # a move after the release
            (('touch', 'press', 0, 300), []), (('touch', 'release', 0, 300), []),  # the picture's edge is outside
            (('touch', 'press', 1023, 300), []),
            (('touch', 'press', 1022, 586), [touch(0, 1277, 717)]),
            (('touch', 'release', 1022, 586), [touch(1, 1277, 717)]),
            (('key', 'back'), key(4)), (('key', 'home'), key(3)), (('key', 'menu'), key(82)),
        ]
        expected = []
        for args, messages in steps:
            self.assertEqual(self.call(*args)[0], 0, args)
            expected += messages
        # The same as raw D-Bus calls; an unknown touch or key type sends nothing.
        for kind, xy, messages in ((1, 100, [touch(0, 125, 110)]), (2, 101, [touch(2, 126, 111)]),
                                   (3, 101, [touch(1, 126, 111)]), (9, 100, [])):
            rc = harness.raw_call(self.bus, 'requestTouchAction', ('uint32', kind), ('uint32', xy), ('uint32', xy))[0]
            self.assertEqual(rc, 0)
            expected += messages
        for kind, messages in ((7, []), (2, key(4))):
            self.assertEqual(harness.raw_call(self.bus, 'requestKeyValue', ('int32', kind))[0], 0)
            expected += messages
        # The last message closes the list: the control stream is one ordered connection.
        self.assertEqual(self.rig.wait_controls(len(expected)), expected)
        self.daemon.wait_for_console(service_line('requestKeyValue 7'))

        # Hide: the pictures keep coming, none of them shown, and the screen goes black.
        calls = self.rig.adb_calls()
        self.request(6)
        self.monitor.wait_for(LINK_USB, 6)
        self.rig.wait_snapshot(lambda s: s.all_black(), 'all black')
        hidden = len(self.rig.pictures())
        self.rig.wait_pictures(5, since=hidden, visible=False)
        self.assertFalse(any(p.visible for p in self.rig.pictures()[hidden:]))
        # A start while streaming shows the picture again, without adb.
        self.request(3)
        self.monitor.wait_for(LINK_USB, 4, since=2)
        self.rig.wait_pictures(3, since=len(self.rig.pictures()))
        self.rig.wait_snapshot(lambda s: s.colour(170, 250) == 'red', 'with the picture again')
        self.assertEqual(self.rig.adb_calls(), calls)
        self.assertEqual(self.monitor.all(), [(LINK_USB, 4), (LINK_USB, 6), (LINK_USB, 4)])


class PhoneEnds(UsbCase):

    def test_end_of_stream_or_closed_connections_end_the_link(self):
        for event, sim_line in (('eos@20', 'end of stream sent at frame 20'), ('close@20', 'closing at frame 20')):
            with self.subTest(event=event):
                self.start_usb_daemon(events=event)
                self.start_link()
                console = self.assert_link_ended(0)
                self.assertIn(sim_line, self.rig.sim_lines())
                self.assertLess(console.index('Video stream stopped'), console.index('exit Mirror link!'))


class StartFails(UsbCase):

    def check_failure(self, line, otg_runs, **rig_options):
        self.start_usb_daemon(**rig_options)
        self.request(3)
        self.monitor.wait_for(LINK_USB, 5, timeout=90)
        self.daemon.wait_for_console(service_line(line))
        self.daemon.wait_for_console(SCREEN_STOPPED)
        self.assert_statuses([(LINK_USB, 5)])  # a start that never streamed ends without (2, 8)
        self.assertEqual(self.shell_runs(self.daemon.console()), [otg_runs, 1])

    def test_no_phone_on_the_real_adb(self):
        adb = '/usr/bin/adb'
        if not os.access(adb, os.X_OK):
            self.skipTest('no adb at ' + adb)
        # An adb server on a port of its own, so no other adb user is disturbed; its keys in our home.
        env = {'ANDROID_ADB_SERVER_PORT': '27561', 'HOME': self.tmp.path}
        kill_server = lambda: subprocess.run([adb, 'kill-server'], env=dict(os.environ, **env), capture_output=True,
                                             timeout=30)
        self.addCleanup(kill_server)
        self.check_failure('startServer failed!', 0, adb=adb, ORVANE_ADB_DEVICES_COMMAND=adb + ' devices', **env)
        self.daemon.wait_for_console(r'^"adb push" returned with value 1$')
        kill_server()  # the adb server is not the daemon's child
        self.assert_nothing_left()

    def test_framebuffer_fault_and_a_phone_without_device_information(self):
        self.check_failure('screen_init_rendering failed!', 0, ORVANE_HOST_FAULTS='fb-open')
        self.assertEqual(self.rig.adb_calls(), [])
        self.assert_nothing_left()
        # A phone that connects both sockets and closes them without a byte.
        mute = write_script(self.tmp.file('mute-phone-adb'), 'case "$*" in *app_process*) exec python3 -c "import '
                            'socket\nfor s in [socket.create_connection((\'127.0.0.1\', 27555)) for _ in (0, 1)]: '
                            's.close()";; esac\nexec %s "$@"\n' % harness.binary('fake-adb'))
        self.check_failure('device_read_info failed!', 1, adb=mute)
        self.daemon.wait_for_console(r'^Could not retrieve device information$')
        self.assert_nothing_left()


if __name__ == '__main__':
    unittest.main()
