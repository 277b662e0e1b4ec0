"""A USB link at 60 pictures a second under a seeded storm of HMI requests (ORVANE_STORM_SECONDS, _SEED):
each request gets exactly its statuses, the pictures keep coming as last asked, and each idle spell finds
threads and descriptors as at start and resident memory flat after a minute (as in test_endurance)."""

import os
import random
import subprocess
import sys
import time

import harness
from test_endurance import RSS_SLACK_KB
from test_usb import UsbCase

SECONDS = float(os.environ.get('ORVANE_STORM_SECONDS') or 300)
SEED = int(os.environ.get('ORVANE_STORM_SEED') or 1)
SAMPLE_EVERY = min(60.0, SECONDS / 5)
PLACE = (0, 12, 1024, 576)  # 1280x720 fitted into the 1024x600 screen


class Storm(UsbCase):

    def new_pictures(self):
        """The picture log's lines since the last look: it grows too fast to re-read each time."""
        with open(self.rig.framelog, 'a+b') as f:
            f.seek(self.offset)
            data = f.read()
        data = data[:data.rfind(b'\n') + 1]
        self.offset += len(data)
        return [harness.Picture(line) for line in data.decode().splitlines()]

    def send(self, ctl_args, method, *args):
        """Through orvanectl or as a raw D-Bus call, as the storm picks (orvanectl has no stop 24)."""
        ctl = ctl_args and self.rng.random() < 0.5
        rc, _, err = self.call(*ctl_args) if ctl else harness.raw_call(self.bus, method, *args, timeout=90)
        self.assertEqual(rc, 0, (ctl_args, method, err))

    def link_request(self, status, ctl_args, statuses):
        self.send(ctl_args, 'requestLinkStatus', ('int32', harness.LINK_USB), ('int32', status))
        self.expected += [(harness.LINK_USB, s) for s in statuses]
        harness.wait_until(lambda: self.monitor.count() >= len(self.expected), 90, 'statuses %s' % statuses)
        self.assertEqual(self.monitor.all(), self.expected)
        self.new_pictures()  # latched before the request took effect

    def see_pictures(self, reveal):
        """Three more pictures, in place, as the HMI last asked; a start shows the layer a few pictures late."""
        seen = []
        harness.wait_until(lambda: seen.extend(self.new_pictures()) or
                           sum(p.visible == self.shown for p in seen) >= 3, 60, 'pictures, visible=%s' % self.shown)
        seen = seen[[p.visible for p in seen].index(True):] if reveal else seen
        self.assertEqual({(p.visible, p.place) for p in seen}, {(self.shown, PLACE)})

    def input_request(self, kind):
        if kind == 'key':
            key = self.rng.randint(1, 3)
            self.send(('key', ('home', 'back', 'menu')[key - 1]), 'requestKeyValue', ('int32', key))
        else:
            xy = self.rng.randint(1, 1022), self.rng.randint(PLACE[1] + 1, PLACE[1] + PLACE[3] - 2)
            for action, code in (('press', 1), ('release', 3)):
                self.send(('touch', action) + xy, 'requestTouchAction', *[('uint32', v) for v in (code,) + xy])
        # Down and up, or press and release, over the one ordered control connection; none while idle.
        self.controls += 2 if self.streaming else 0
        received = lambda: harness.read_text(self.rig.control_log).count('\n')
        harness.wait_until(lambda: received() >= self.controls, 30)
        self.assertEqual(received(), self.controls)

    def sample(self, figures):
        harness.wait_until(lambda: not harness.descendants(self.daemon.pid), 20, "the link's children to end")
        harness.wait_until(lambda: harness.process_resources(self.daemon.pid)[:2] == self.idle[:2], 10)
        figures.append(harness.process_resources(self.daemon.pid))

    def test_request_storm_while_streaming(self):
        clip = self.tmp.file('clip.h264')
        subprocess.run(['ffmpeg', '-v', 'error', '-f', 'lavfi', '-i', 'testsrc2=size=1280x720:rate=60', '-t', '3',
                        '-c:v', 'libx264', '-preset', 'ultrafast', '-bf', '0', '-g', '60', '-x264-params', 'aud=1',
                        '-pix_fmt', 'yuv420p', '-f', 'h264', clip], check=True, timeout=120)
        self.start_usb_daemon(fps=60, PHONE_SIM_CLIP=clip)
        self.rng, self.offset, self.expected, self.controls, self.streaming = random.Random(SEED), 0, [], 0, False
        counts, figures, begin, kind = {}, [], time.monotonic(), None
        while time.monotonic() - begin < SECONDS or self.streaming:
            time.sleep(self.rng.uniform(0.2, 1.0))
            if self.streaming:
                self.see_pictures(reveal=kind == 'start')
            else:
                self.assertEqual(self.new_pictures(), [], 'pictures while idle')
            kind = 'stop' if time.monotonic() - begin >= SECONDS else self.rng.choices(
                ('start', 'hide', 'stop', 'touch', 'key'), (3, 3, 1.5, 3, 3) if self.streaming else (6, 1, 1, 1, 1))[0]
            name = kind + ('' if self.streaming else ' idle')
            counts[name] = counts.get(name, 0) + 1
            if kind == 'start':
                adb_calls = len(self.rig.adb_calls())
                self.link_request(3, ('start', 'usb'), [4])
                self.assertEqual(len(self.rig.adb_calls()) == adb_calls, self.streaming, 'adb only for a new link')
                self.streaming = self.shown = True
            elif kind == 'hide':
                self.link_request(6, ('hide',), [6])
                self.shown = False
            elif kind == 'stop':
                status = self.rng.choice((7, 24))
                self.link_request(status, ('stop',) if status == 7 else None, [8] if self.streaming else [])
                if self.streaming and len(figures) < (time.monotonic() - begin) // SAMPLE_EVERY:
                    self.sample(figures)
                self.streaming = False
            else:
                self.input_request(kind)
        self.sample(figures)
        sys.stderr.write('\nseed %d, %.0f s: requests %s; %d pictures, %d control messages\nthreads, descriptors, '
                         'resident kB: at start %s, idle about every %.0f s %s\n'
                         % (SEED, time.monotonic() - begin, counts, len(harness.read_text(self.rig.framelog)
                            .splitlines()), self.controls, self.idle, SAMPLE_EVERY, figures))
        self.assertIsNone(self.daemon.proc.poll(), 'the daemon ended')
        self.link_request(6, ('hide',), [6])  # it still answers, and no late status came before this one
        self.assertEqual({f[:2] for f in figures}, {self.idle[:2]})
        if 'libasan' not in harness.read_text('/proc/%d/maps' % self.daemon.pid):
            self.assertLessEqual(max(f[2] for f in figures) - figures[0][2], RSS_SLACK_KB, figures)
        self.assert_nothing_left()
