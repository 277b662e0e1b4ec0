"""The link's figures on /com/quorva/mirror/diagnostics through `orvanectl stats`: a USB link at 30 fps
and a Wi-Fi link whose phone comes back within the grace period."""

import re
import signal
import time
import unittest

import harness
import test_usb
import test_wifi
from harness import LINK_WIFI


def stats(case):
    rc, out, err = case.call('stats')
    case.assertEqual(rc, 0, err)
    return dict(line.split(' ', 1) for line in out.splitlines())


class UsbFigures(test_usb.UsbCase):

    def test_usb_link_counts_what_the_phone_sent_and_what_was_shown(self):
        self.start_usb_daemon(fb='800x480')
        self.assertEqual([stats(self)[k] for k in ('state', 'link_type', 'links_started')], ['idle', '0', '0'])
        self.start_link()
        self.rig.wait_pictures(10)
        first, start = stats(self), time.monotonic()
        time.sleep(2)
        second, elapsed = stats(self), time.monotonic() - start
        grown = int(second['frames_received']) - int(first['frames_received'])
        self.assertAlmostEqual(grown, 30 * elapsed, delta=10)  # about 60
        # GetStatistics has every figure the properties have, read at its own time.
        out = harness.dbus_send(self.bus, '--dest=' + harness.SERVICE, '/com/quorva/mirror/diagnostics',
                                'com.quorva.mirror.Diagnostics1.GetStatistics')[1]
        self.assertEqual(sorted(re.findall(r'dict entry\(\s*(\w+)', out)), sorted(second))
        self.assertGreaterEqual(int(re.search(r'frames_received +variant +uint64 (\d+)', out).group(1)),
                                int(second['frames_received']))
        n = {k: float(v) for k, v in second.items() if re.match(r'^-?[\d.]+$', v)}
        self.assertTrue(0 < n['pictures_shown'] <= n['frames_decoded'] <= n['frames_received'], second)
        self.assertTrue(0 < n['decode_ms_p50'] <= n['decode_ms_p99'] and n['bitrate_kbps'] > 0, second)
        self.assertEqual([second[k] for k in ('state', 'link_type', 'phone_name', 'picture_size', 'layer')],
                         ['streaming', '2', 'Orvane Phone Simulator', '1280x720', '0,16,800,448'])
        self.assertEqual([n[k] for k in ('decode_errors', 'reconnects', 'links_started', 'links_failed')], [0, 0, 1, 0])

        with open(self.tmp.file('watch.out'), 'wb') as out:
            watch = harness.spawn([harness.binary('orvanectl'), 'stats', '--watch'], env=self.bus.env(), stdout=out)
        harness.wait_file(out.name, r'^frames_received +\d+ +\d+\.\d$')  # with a rate: the second table
        watch.send_signal(signal.SIGINT)
        self.assertEqual(watch.wait(timeout=10), 0)

        mark = self.daemon.mark()
        self.request(7)
        self.daemon.wait_for_console(test_usb.SCREEN_STOPPED, since=mark)
        after = stats(self)
        self.assertEqual([after['state'], after['link_type']], ['idle', '2'])
        self.assertEqual(int(after['pictures_shown']) + int(after['frames_not_shown']), int(after['frames_decoded']))
        # The bytes are those of the frames the phone sent first.
        sizes = [int(b) for b in re.findall(r'^frame \d+ (\d+) bytes', harness.read_text(self.rig.sim_log), re.M)]
        self.assertEqual(int(after['bytes_received']), sum(sizes[:int(after['frames_received'])]))
        # The screen left behind shows the last picture, not the black of the closed layer.
        self.assertEqual(harness.Snapshot(self.rig.snapshot).colour(800 // 6, 16 + 448 // 3), 'red')
        self.daemon.stop()
        self.assertEqual(self.call('stats')[0], 3)


class WifiFigures(test_wifi.WifiCase):

    def test_phone_back_within_the_grace_period_is_one_reconnect(self):
        daemon, monitor = self.begin()
        self.assertEqual([stats(self)[k] for k in ('state', 'link_type')], ['waiting', str(LINK_WIFI)])
        self.phone('--drop-at', '60', log='first.log')
        monitor.wait_for(LINK_WIFI, 4, timeout=30)
        daemon.wait_for_console(r'^Video stream stopped$')
        self.assertEqual(stats(self)['state'], 'grace')
        self.phone(log='back.log')
        monitor.wait_for(LINK_WIFI, 4, since=2, timeout=30)
        self.pictures(70)
        figures = stats(self)
        self.assertEqual([figures[k] for k in ('state', 'reconnects', 'links_started', 'phone_name')],
                         ['streaming', '1', '1', 'Orvane Phone Simulator'])
        self.assertGreater(int(figures['frames_received']), 60)
        self.assertEqual(harness.request_link_status(self.bus, LINK_WIFI, 7)[0], 0)
        monitor.wait_for(LINK_WIFI, 8)
        self.assertEqual([stats(self)[k] for k in ('state', 'reconnects')], ['idle', '1'])


if __name__ == '__main__':
    unittest.main()
