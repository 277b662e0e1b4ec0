"""A USB link at 60 pictures a second under a seeded storm of HMI requests (ORVANE_STORM_SECONDS,
_SEED): exact statuses, pictures as last asked, nothing left at the end."""

import os
import random
import subprocess
import time

import harness
from harness import LINK_USB
from test_usb import UsbCase

SECONDS = float(os.environ.get('ORVANE_STORM_SECONDS') or 300)
SEED = int(os.environ.get('ORVANE_STORM_SEED') or 1)
PLACE = (0, 12, 1024, 576)  # 1280x720 fitted into the 1024x600 screen


class Storm(UsbCase):

    def new_pictures(self):
        with open(self.rig.framelog, 'a+b') as f:
            f.seek(self.offset)
            data = f.read()
        data = data[:data.rfind(b'\n') + 1]
        self.offset += len(data)
        return harness.parse_pictures(data.decode())

    def test_request_storm_while_streaming(self):
        clip = self.tmp.file('clip.h264')
        subprocess.run(['ffmpeg', '-v', 'error', '-f', 'lavfi', '-i', 'testsrc2=size=1280x720:rate=60', '-t', '3',
                        '-c:v', 'libx264', '-preset', 'ultrafast', '-bf', '0', '-g', '60', '-x264-params', 'aud=1',
                        '-pix_fmt', 'yuv420p', '-f', 'h264', clip], check=True, timeout=120)
        self.start_usb_daemon(fps=60, PHONE_SIM_CLIP=clip)
        rng, self.offset, expected, controls, streaming = random.Random(SEED), 0, [], 0, False
        begin, kind = time.monotonic(), None
        while time.monotonic() - begin < SECONDS or streaming:
            time.sleep(rng.uniform(0.2, 1.0))
            seen = self.new_pictures()
            if streaming:  # three more pictures, in place, as last asked; a start shows the layer a few late
                harness.wait_until(lambda: seen.extend(self.new_pictures()) or
                                   sum(p.visible == shown for p in seen) >= 3, 60, 'pictures, visible=%s' % shown)
                seen = seen[[p.visible for p in seen].index(True):] if kind == 'start' else seen
                self.assertEqual({(p.visible, p.place) for p in seen}, {(shown, PLACE)})
            else:
                self.assertEqual(seen, [], 'pictures while idle')
            kind = 'stop' if time.monotonic() - begin >= SECONDS else rng.choices(
                ('start', 'hide', 'stop', 'touch', 'key'), (3, 3, 1.5, 3, 3) if streaming else (6, 1, 1, 1, 1))[0]
            if kind in ('start', 'hide', 'stop'):
                adb_calls = len(self.rig.adb_calls())
                status, answer = {'start': (3, [4]), 'hide': (6, [6]), 'stop': (rng.choice((7, 24)), [8])}[kind]
                self.request(status)
                expected += [(LINK_USB, s) for s in answer if streaming or kind != 'stop']
                harness.wait_until(lambda: self.monitor.count() >= len(expected), 90, 'statuses for %s' % kind)
                self.assertEqual(self.monitor.all(), expected)
                self.new_pictures()  # latched before the request took effect
                if kind == 'start':
                    self.assertEqual(len(self.rig.adb_calls()) == adb_calls, streaming, 'adb only for a new link')
                streaming, shown = (True, True) if kind == 'start' else (streaming and kind != 'stop', kind != 'hide')
            else:
                xy = [('uint32', rng.randint(1, 1022)), ('uint32', rng.randint(PLACE[1] + 1, PLACE[1] + PLACE[3] - 2))]
                for call in ([('requestKeyValue', ('int32', rng.randint(1, 3)))] if kind == 'key' else
                             [['requestTouchAction', ('uint32', action)] + xy for action in (1, 3)]):
                    self.assertEqual(harness.raw_call(self.bus, *call)[0], 0, call)
                # Down and up, or press and release, over the one ordered control connection; none while idle.
                controls += 2 if streaming else 0
                received = lambda: harness.read_text(self.rig.control_log).count('\n')
                harness.wait_until(lambda: received() >= controls, 30)
                self.assertEqual(received(), controls)
        self.assert_statuses(expected)  # it still answers, and no late status came
        self.assert_nothing_left()
