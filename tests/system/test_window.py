"""The host window on a real X server (Xvfb), used as a person would: real pointer and key events (xdotool)
on the mirrored phone (phone-sim's own screen); what the phone receives, and what the window shows."""

import ctypes
import os
import re
import shutil
import struct
import subprocess
import time
import unittest

import harness
from harness import LINK_USB
from test_usb import UsbCase, service_line

FB = (1024, 600)
# phone-sim's portrait screen (720x1280) fitted into the framebuffer, and its landscape one (1280x720).
PORTRAIT, LANDSCAPE = (344, 0, 336, 600), (0, 12, 1024, 576)
TILES = {'List': (40, 160), 'Draw': (380, 160), 'Rotate': (40, 520)}  # 300x300 each, portrait
ROTATE_BUTTON, BACK_ARROW = (110, 578, 500, 300), (0, 64, 112, 112)


def f32(v):  # the daemon scales touches in single precision
    return struct.unpack('f', struct.pack('f', v))[0]


def to_phone(place, phone, fx, fy):
    """The phone coordinates the daemon sends for framebuffer pixel fx, fy (its own arithmetic)."""
    x, y, w, h = place
    return int(f32((fx - x) * f32(f32(phone[0]) / w))), int(f32((fy - y) * f32(f32(phone[1]) / h)))


def to_fb(place, phone, px, py):
    x, y, w, h = place
    return x + px * w // phone[0], y + py * h // phone[1]


class Xvfb:
    def __init__(self):
        if not shutil.which('Xvfb') or not shutil.which('xdotool'):
            raise unittest.SkipTest('needs Xvfb and xdotool')
        self.display = next(':%d' % n for n in range(90, 200) if not os.path.exists('/tmp/.X11-unix/X%d' % n))
        self.proc = harness.spawn(['Xvfb', self.display, '-screen', '0', '1280x800x24', '-nolisten', 'tcp'],
                                  stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        harness.wait_until(lambda: os.path.exists('/tmp/.X11-unix/X' + self.display[1:]), 10, 'Xvfb')

    def run(self, *args):
        r = subprocess.run(args, env=dict(os.environ, DISPLAY=self.display), capture_output=True, timeout=30)
        assert r.returncode == 0, (args, r.stderr)
        return r.stdout.decode()

    def xdotool(self, *args):
        return self.run('xdotool', *[str(a) for a in args])

    def window(self, pid):
        return int(harness.wait_until(lambda: self.xdotool('search', '--pid', pid).split(), 20, 'the window')[0])

    def shot(self, wid, png=None):
        """What the window shows, grabbed from the screen (RGB rows); kept as a PNG too when asked."""
        g = dict(re.findall(r'(\w+)=(\d+)', self.xdotool('getwindowgeometry', '--shell', wid)))
        grab = ['ffmpeg', '-v', 'error', '-f', 'x11grab', '-video_size', '%sx%s' % (g['WIDTH'], g['HEIGHT']),
                '-i', '%s+%s,%s' % (self.display, g['X'], g['Y']), '-frames:v', '1']
        if png:
            self.run(*grab, '-y', png)
        raw = subprocess.run(grab + ['-f', 'rawvideo', '-pix_fmt', 'rgb24', '-'], capture_output=True, timeout=30,
                             env=dict(os.environ, DISPLAY=self.display), check=True).stdout
        return Shot(int(g['WIDTH']), int(g['HEIGHT']), raw)

    def close_window(self, wid):
        """What a window manager does when the person clicks the close button: WM_DELETE_WINDOW."""
        x = ctypes.CDLL('libX11.so.6')
        x.XOpenDisplay.restype, x.XOpenDisplay.argtypes = ctypes.c_void_p, [ctypes.c_char_p]
        x.XInternAtom.restype, x.XInternAtom.argtypes = ctypes.c_ulong, [ctypes.c_void_p, ctypes.c_char_p, ctypes.c_int]
        x.XSendEvent.argtypes = [ctypes.c_void_p, ctypes.c_ulong, ctypes.c_int, ctypes.c_long, ctypes.c_void_p]
        x.XCloseDisplay.argtypes = [ctypes.c_void_p]
        d = x.XOpenDisplay(self.display.encode())
        event = (ctypes.c_long * 24)()  # XClientMessageEvent: type, serial, send_event, display, window, ...
        event[0], event[4], event[5] = 33, wid, x.XInternAtom(d, b'WM_PROTOCOLS', 0)
        ctypes.c_int.from_buffer(event, 6 * 8).value = 32  # format
        event[7] = x.XInternAtom(d, b'WM_DELETE_WINDOW', 0)
        x.XSendEvent(d, wid, 0, 0, event)
        x.XCloseDisplay(d)

    def close(self):
        harness.kill_process(self.proc)


class Shot:
    def __init__(self, width, height, raw):
        self.width, self.height, self.raw = width, height, raw

    def colour(self, x, y):
        return harness.Snapshot.colour(self, x, y)

    def region(self, x, y, w, h):
        return b''.join(self.raw[((y + row) * self.width + x) * 3:][:w * 3] for row in range(h))


class Window(UsbCase):

    @classmethod
    def setUpClass(cls):
        cls.x = Xvfb()

    @classmethod
    def tearDownClass(cls):
        cls.x.close()

    def window_daemon(self, **env):
        self.start_usb_daemon(DISPLAY=self.x.display, ORVANE_HOST_DISPLAY='sdl', PHONE_SIM_SCREEN='phone', **env)
        self.start_link()
        self.daemon.wait_for_console(r'^host display: window 1024x600')
        return self.x.window(self.daemon.pid)

    def touches(self):
        return [(c['action'], c['x'], c['y']) for c in self.rig.controls() if c['type'] == 'touch']

    def click(self, wid, fb_point, scale=1.0):
        self.x.xdotool('mousemove', '--window', wid, round(fb_point[0] * scale), round(fb_point[1] * scale),
                       'click', 1)

    def ui(self, text, since=0):
        return harness.wait_until(lambda: [l for l in self.rig.sim_lines()[since:] if re.search(text, l)], 20,
                                  'phone-sim: ' + text)

    def test_the_window_is_the_phones_touchscreen(self):
        wid = self.window_daemon()
        portrait = (720, 1280)
        # The phone's first picture and its burst light the layer at once; then a still screen sends only
        # its repeats, four a second (unless the clock turns the minute meanwhile).
        self.ui(r'^frame 8 \d+ bytes \(repeat\) ')
        latched = self.rig.pictures()
        self.assertEqual({p.place for p in latched}, {PORTRAIT})
        lit = re.findall(r'^(\d+) .* 1$', harness.read_text(self.rig.framelog), re.M)
        self.assertLess((int(lit[0]) - int(harness.read_text(self.rig.framelog).split()[0])) / 1e9, 1.0)
        if time.time() % 60 > 57:
            time.sleep(61 - time.time() % 60)
        before = len(self.rig.sim_lines())
        time.sleep(2)
        sent = [line for line in self.rig.sim_lines()[before:] if line.startswith('frame ')]
        self.assertTrue(5 <= len(sent) <= 10 and all('(repeat)' in line for line in sent), sent)
        # A click on the List tile: the phone gets a press and a release where the tile is, and opens it.
        tile = to_fb(PORTRAIT, portrait, TILES['List'][0] + 150, TILES['List'][1] + 150)
        home = self.x.shot(wid)
        self.assertEqual([home.colour(*to_fb(PORTRAIT, portrait, x + 150, y + 150)) for x, y in TILES.values()],
                         ['red', 'green', 'blue'])
        self.click(wid, tile)
        self.ui(r'open List')
        self.assertEqual(self.touches()[:2], [(0, *to_phone(PORTRAIT, portrait, *tile)),
                                              (1, *to_phone(PORTRAIT, portrait, *tile))])
        bar = to_fb(PORTRAIT, portrait, 360, 120)  # the app bar takes the tile's colour
        harness.wait_until(lambda: self.x.shot(wid).colour(*bar) == 'red', 10, 'the list on the window')

        # A drag up the list scrolls it: the rows move, the bar stays.
        rows = (PORTRAIT[0], 200, PORTRAIT[2], 300)
        before, mark = self.x.shot(wid), len(self.rig.sim_lines())
        self.x.xdotool('mousemove', '--window', wid, 512, 500, 'mousedown', 1)
        for y in range(480, 200, -20):
            self.x.xdotool('mousemove', '--window', wid, 512, y)
        self.x.xdotool('mouseup', 1)
        self.ui(r'list scrolled to [1-9]', mark)
        harness.wait_until(lambda: self.x.shot(wid).region(*rows) != before.region(*rows), 10, 'the rows to move')
        self.assertEqual(self.x.shot(wid).colour(*bar), 'red')

        # F2 is the menu, Backspace back (it closes the menu), Escape back too: the home screen again.
        mark = len(self.rig.sim_lines())
        for key, said in (('F2', 'menu open'), ('BackSpace', 'back -> menu closed'), ('Escape', 'back -> home')):
            self.x.xdotool('windowfocus', '--sync', wid, 'key', key)
            mark = self.rig.sim_lines().index(self.ui(r'^ui: ' + said, mark)[0]) + 1
        self.assertEqual(self.rig.controls()[-2:], [{'type': 'keycode', 'action': a, 'keycode': 4, 'metastate': 0}
                                                     for a in (0, 1)])
        harness.wait_until(lambda: self.x.shot(wid).colour(*tile) == 'red', 10, 'the home screen')

        # The rotate app turns the phone: a landscape picture, letterboxed above and below instead of at
        # the sides, and clicks still land where they should on the phone.
        self.click(wid, to_fb(PORTRAIT, portrait, TILES['Rotate'][0] + 150, TILES['Rotate'][1] + 150))
        self.ui(r'open Rotate')
        seen = len(self.rig.pictures())
        self.click(wid, to_fb(PORTRAIT, portrait, ROTATE_BUTTON[0] + 250, ROTATE_BUTTON[1] + 150))
        self.ui(r'rotate -> landscape 1280x720')
        self.ui(r'^frame \d+ \d+ bytes rotation \(changed\) ')
        self.daemon.wait_for_console('detect screen rotated!')
        harness.wait_until(lambda: any(p.place == LANDSCAPE for p in self.rig.pictures()[seen:]), 20, 'landscape')
        shot = harness.wait_until(lambda: (lambda s: s if s.colour(512, 100) == 'blue' else None)(self.x.shot(wid)),
                                  10, 'the landscape picture')
        self.x.shot(wid, png=os.path.join(self.tmp.path, 'landscape.png'))
        self.assertEqual([shot.colour(512, 5), shot.colour(512, 594), shot.colour(5, 300)],
                         ['black', 'black', 'other'])
        landscape, n = (1280, 720), len(self.touches())
        back = to_fb(LANDSCAPE, landscape, BACK_ARROW[0] + 56, BACK_ARROW[1] + 56)
        self.click(wid, back)
        harness.wait_until(lambda: len(self.touches()) >= n + 2, 10, 'the click on the landscape phone')
        self.assertEqual(self.touches()[n], (0, *to_phone(LANDSCAPE, landscape, *back)))

        # A window made smaller is scaled: a click maps back to the framebuffer pixel under it.
        self.x.xdotool('windowsize', '--sync', wid, FB[0] // 2, FB[1] // 2)
        n = len(self.touches())
        self.click(wid, (700, 300), scale=0.5)
        harness.wait_until(lambda: len(self.touches()) >= n + 2, 10, 'the click on the smaller window')
        self.assertEqual(self.touches()[n], (0, *to_phone(LANDSCAPE, landscape, 700, 300)))

        # Closing the window ends the link and the daemon in order, as SIGINT does.
        mark = self.daemon.mark()
        self.x.close_window(wid)
        self.assertEqual(self.daemon.proc.wait(timeout=30), 0)
        self.assertIn('Window closed: ending the link and the daemon', self.assert_teardown(mark))

    def test_no_input_where_an_hmi_owns_the_touchscreen(self):
        wid = self.window_daemon(ORVANE_HOST_INPUT='0')
        self.click(wid, to_fb(PORTRAIT, (720, 1280), 190, 310))
        self.x.xdotool('windowfocus', '--sync', wid, 'key', 'Escape')
        # The HMI's own call, after them, is the only thing the phone receives.
        self.assertEqual(self.call('key', 'home')[0], 0)
        harness.wait_until(lambda: self.rig.controls(), 10, 'the HMI key')
        self.assertEqual([c['keycode'] for c in self.rig.controls()], [3, 3])
