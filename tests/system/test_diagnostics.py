"""The link's figures on /com/quorva/mirror/diagnostics through `orvanectl stats`, on a USB link at
30 fps (a Wi-Fi link's reconnection is counted in test_wifi)."""

import re
import signal
import time
import unittest

import harness
import test_usb


class UsbFigures(test_usb.UsbCase):

    def test_usb_link_counts_what_the_phone_sent_and_what_was_shown(self):
        self.start_usb_daemon(fb='800x480')
        self.assertEqual([harness.stats(self.bus)[k] for k in ('state', 'link_type', 'links_started')], ['idle', '0', '0'])
        self.start_link()
        self.rig.wait_pictures(10)
        first, start = harness.stats(self.bus), time.monotonic()
        time.sleep(2)
        second, elapsed = harness.stats(self.bus), time.monotonic() - start
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
        after = harness.stats(self.bus)
        self.assertEqual([after['state'], after['link_type']], ['idle', '2'])
        self.assertEqual(int(after['pictures_shown']) + int(after['frames_not_shown']), int(after['frames_decoded']))
        # The bytes are those of the frames the phone sent first.
        sizes = [int(b) for b in re.findall(r'^frame \d+ (\d+) bytes', harness.read_text(self.rig.sim_log), re.M)]
        self.assertEqual(int(after['bytes_received']), sum(sizes[:int(after['frames_received'])]))
        # The screen left behind shows the last picture, not the black of the closed layer.
        self.assertEqual(harness.Snapshot(self.rig.snapshot).colour(800 // 6, 16 + 448 // 3), 'red')
        self.daemon.stop()
        self.assertEqual(self.call('stats')[0], 3)


if __name__ == '__main__':
    unittest.main()
