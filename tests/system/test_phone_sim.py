"""The simulated phone's own screen through the real daemon: a still home screen is quiet yet lights the
layer, a tap opens an app, a drag scrolls, keys navigate, and the rotate app turns the picture."""

import re
import time

import harness
from test_usb import UsbCase

# Phone pixels, from the layout in tools/phone-sim/sim_phone.h (portrait 720x1280, landscape 1280x720).
LIST, DRAW, ROTATE = (190, 310), (530, 310), (190, 670)  # tile centres, portrait
ROTATE_BUTTON, BAR, LANDSCAPE_BAR, MENU = (360, 728), (360, 120), (640, 120), (1100, 120)
HOME = ([LIST, DRAW, ROTATE, BAR], ['red', 'green', 'blue', 'black'])


class PhoneScreen(UsbCase):

    def ui(self, regex):
        """Waits for regex in the simulator's log after the last one found; returns the match."""
        found = lambda: re.compile(regex, re.M).search(harness.read_text(self.rig.sim_log), self.seen)
        m = harness.wait_until(found, 20, lambda: '%r in the log of phone-sim after %d' % (regex, self.seen))
        self.seen = m.end()
        return m

    def at(self, point):
        """Where a phone pixel lies on the head unit's screen, by the placement of the last picture."""
        p = self.rig.pictures()[-1]
        return [p.place[i] + point[i] * p.place[2 + i] // p.size[i] for i in (0, 1)]

    def tap(self, point):
        for action in ('press', 'release'):
            self.assertEqual(self.call('touch', action, *self.at(point))[0], 0)

    def shows(self, points, colours, what):
        self.rig.wait_snapshot(lambda s: [s.colour(*self.at(p)) for p in points] == colours, what)

    def test_taps_drags_keys_and_rotation_through_the_mirror(self):
        self.seen = 0
        self.start_usb_daemon(PHONE_SIM_SCREEN='phone')
        self.start_link()
        self.ui(r'^device information sent: .* 720x1280$')
        # The first picture and its burst light the layer long before a repeat would (the daemon's latch times).
        self.ui(r'^frame 8 \d+ bytes \(repeat\)$')
        latched = re.findall(r'^(\d+) .* ([01])$', harness.read_text(self.rig.framelog), re.M)
        lit = (int(next(t for t, v in latched if v == '1')) - int(latched[0][0])) / 1e9
        self.assertLess(lit, 1.0, 'the layer came up %.1f s after the first picture' % lit)
        shown = {(p.size, p.place) for p in self.rig.pictures() if p.visible}
        self.assertEqual(shown, {((720, 1280), (344, 0, 336, 600))})
        self.shows(*HOME, 'of the home screen')
        # A still screen sends only its repeats, one a second (the clock must not turn the minute meanwhile).
        if time.time() % 60 > 55:
            time.sleep(61 - time.time() % 60)
        before = len(self.rig.sim_lines())
        time.sleep(3.2)
        sent = [line for line in self.rig.sim_lines()[before:] if line.startswith('frame ')]
        self.assertTrue(2 <= len(sent) <= 4 and all(line.endswith('(repeat)') for line in sent), sent)

        # A tap on the List tile opens the list: its red bar where the home screen is plain.
        self.tap(LIST)
        x, y = map(int, self.ui(r'^ui: tap (\d+),(\d+) -> open List$').groups())
        self.assertLessEqual(abs(x - LIST[0]) + abs(y - LIST[1]), 6, 'the tap landed off its spot')
        self.shows([BAR, DRAW], ['red', 'other'], 'of the list')
        # A drag up by 400 phone pixels scrolls at least as far (a quick one flings on).
        self.assertEqual(self.call('drag', *self.at((360, 1000)), *self.at((360, 600)), 20)[0], 0)
        self.assertGreaterEqual(int(self.ui(r'^ui: list scrolled to (\d+)$').group(1)), 380)
        self.call('key', 'back')
        self.ui(r'^ui: back -> home$')
        self.shows(*HOME, 'of the home screen again')

        # The rotate app turns the phone: the daemon gets the new size behind the rotation mark and shows it.
        self.tap(ROTATE)
        self.ui(r'^ui: tap \d+,\d+ -> open Rotate$')
        self.shows([BAR, ROTATE], ['blue', 'other'], 'of the rotate app')
        seen = len(self.rig.pictures())
        self.tap(ROTATE_BUTTON)
        self.ui(r'^ui: rotate -> landscape 1280x720$')
        self.ui(r'^frame \d+ \d+ bytes rotation \(changed\)$')
        shown = lambda: {p.place for p in self.rig.pictures()[seen:] if p.visible and p.size == (1280, 720)}
        self.assertEqual(harness.wait_until(shown, 10, 'a landscape picture shown'), {(0, 12, 1024, 576)})
        self.assertIn('detect screen rotated!', self.daemon.console())
        self.shows([LANDSCAPE_BAR, MENU], ['blue', 'blue'], 'of the landscape rotate app')
        # Menu opens a panel over the bar; back closes it.
        self.call('key', 'menu')
        self.ui(r'^ui: menu open$')
        self.shows([LANDSCAPE_BAR, MENU], ['blue', 'other'], 'with the menu')
        self.call('key', 'back')
        self.ui(r'^ui: back -> menu closed$')
        self.shows([MENU], ['blue'], 'without the menu')
        self.request(7)
        self.assert_link_ended(0)
