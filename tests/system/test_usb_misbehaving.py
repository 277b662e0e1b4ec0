"""A USB link's figures (`orvanectl stats`) while its phone stops reading input and has a hostile
name; the signals that end the daemon in order. (Broken handshakes: test_usb's start failures.)"""

import re
import signal
import time

import harness
from harness import LINK_USB
from test_usb import UsbCase, service_line


class Misbehaving(UsbCase):

    def test_figures_of_a_link_whose_phone_stops_reading_input(self):
        # The phone's name tries to clear the console and forge a line of its own.
        self.start_usb_daemon(fb='800x480', events='ignore-control', PHONE_SIM_NAME='Evil\x1b[2J\r\nforged line\x07')
        self.assertEqual([harness.stats(self.bus)[k] for k in ('state', 'link_type', 'links_started')], ['idle', '0', '0'])
        self.start_link()
        self.daemon.wait_for_console(service_line('read device info: Evil?[2J??forged line? 1280 720'))
        self.assertNotIn('\x1b', self.daemon.console())

        # The link's figures: two readings 2 s apart at 30 fps, and the dictionary beside the properties.
        self.rig.wait_pictures(10)
        first, start = harness.stats(self.bus), time.monotonic()
        time.sleep(2)
        second, elapsed = harness.stats(self.bus), time.monotonic() - start
        self.assertAlmostEqual(int(second['frames_received']) - int(first['frames_received']), 30 * elapsed, delta=10)
        out = harness.dbus_send(self.bus, '--dest=' + harness.SERVICE, '/com/quorva/mirror/diagnostics',
                                'com.quorva.mirror.Diagnostics1.GetStatistics')[1]
        self.assertEqual(sorted(re.findall(r'dict entry\(\s*(\w+)', out)), sorted(second))
        n = {k: float(v) for k, v in second.items() if re.match(r'^-?[\d.]+$', v)}
        self.assertTrue(0 < n['pictures_shown'] <= n['frames_decoded'] <= n['frames_received'], second)
        self.assertTrue(0 < n['decode_ms_p50'] <= n['decode_ms_p99'] and n['bitrate_kbps'] > 0, second)
        self.assertEqual([second[k] for k in ('state', 'link_type', 'phone_name', 'picture_size', 'layer')],
                         ['streaming', '2', 'Evil?[2J??forged line?', '1280x720', '0,16,800,448'])
        self.assertEqual([n[k] for k in ('decode_errors', 'reconnects', 'links_started', 'links_failed')], [0, 0, 1, 0])

        # The phone stops reading: touches fill the connection, it is given up on, a stop answered at once.
        mark = self.daemon.mark()
        drag = harness.spawn(['sh', '-c', 'while "$0" drag 100 100 700 400 1000; do :; done', harness.binary('orvanectl')],
                             env=self.bus.env())
        self.daemon.wait_for_console(r'^Control connection blocked: the phone stopped reading, input dropped$',
                                     since=mark, timeout=60)
        began = time.monotonic()
        self.request(7)
        self.assertLess(time.monotonic() - began, 2.0, 'the stop request was held up')
        self.monitor.wait_for(LINK_USB, 8)
        harness.kill_process(drag)
        self.assert_link_ended(mark)

        after = harness.stats(self.bus)
        self.assertEqual([after['state'], after['link_type']], ['idle', '2'])
        self.assertEqual(int(after['pictures_shown']) + int(after['frames_not_shown']), int(after['frames_decoded']))
        sizes = [int(b) for b in re.findall(r'^frame \d+ (\d+) bytes', harness.read_text(self.rig.sim_log), re.M)]
        self.assertEqual(int(after['bytes_received']), sum(sizes[:int(after['frames_received'])]))
        # The screen left behind shows the last picture, not the black of the closed layer.
        self.assertEqual(harness.Snapshot(self.rig.snapshot).colour(800 // 6, 16 + 448 // 3), 'red')

    def test_int_hup_and_quit_end_the_daemon_after_a_whole_teardown(self):
        for sig in (signal.SIGINT, signal.SIGHUP, signal.SIGQUIT):
            with self.subTest(signal=sig.name):
                # The first phone closes its control connection: a key sent into it must not kill the
                # daemon by SIGPIPE.
                self.start_usb_daemon(events='close-control@15' if sig == signal.SIGINT else None)
                self.start_link()
                self.rig.wait_pictures(20)
                if sig == signal.SIGINT:
                    self.daemon.wait_for_console(r'Receiver stopped$')
                    self.assertEqual([self.call('key', 'back')[0] for _ in range(3)], [0] * 3)
                mark = self.daemon.mark()
                self.daemon.proc.send_signal(sig)
                self.assertEqual(self.daemon.proc.wait(timeout=30), 0)
                self.assertIn('Signal %d: ending the link and the daemon' % sig, self.assert_teardown(mark))
                self.monitor.wait_for(LINK_USB, 8)
                self.assertEqual(harness.reap_orphans(), [])
