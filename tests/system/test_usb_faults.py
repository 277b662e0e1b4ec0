"""The USB link when things go wrong underneath it: a phone that dies, a control connection that
closes under a stream of touches, an adb that hangs, a codec that another process holds. Each ends
in its status, the daemon keeps serving D-Bus, and nothing is left running."""

import fcntl
import os
import re
import signal
import threading
import unittest

import harness
from harness import LINK_USB
from test_usb import UsbCase, service_line


def write_script(path, text):
    with open(path, 'w') as f:
        f.write(text)
    os.chmod(path, 0o755)
    return path


class PhoneDies(UsbCase):

    def test_phone_killed_while_streaming(self):
        self.start_usb_daemon()
        idle = harness.process_resources(self.daemon.pid)
        self.start_link()
        self.rig.wait_pictures(10)
        phones = [pid for pid, cmd in harness.descendants(self.daemon.pid) if 'phone-sim' in cmd]
        self.assertEqual(len(phones), 1, harness.descendants(self.daemon.pid))
        since = self.daemon.mark()
        os.kill(phones[0], signal.SIGKILL)

        self.monitor.wait_for(LINK_USB, 8, timeout=30)
        self.daemon.wait_for_console(r'^Video stream stopped$', since=since)
        self.daemon.wait_for_console(service_line('exitLink  screen stoped'), since=since)
        self.assert_teardown_in_order(since)
        self.assert_statuses([(LINK_USB, 4), (LINK_USB, 8)])
        self.assertEqual(self.rig.otg_runs(), 1)
        self.assert_nothing_left(idle)


class ControlClosesUnderTouches(UsbCase):

    def test_touches_keep_coming_while_the_phone_closes_its_control_connection(self):
        self.start_usb_daemon(events='close-control@15')
        self.start_link()
        stop = threading.Event()
        errors = []

        def pump():
            # An HMI that keeps dragging a finger across the picture.
            n = 0
            while not stop.is_set():
                for kind, x in ((1, 300), (2, 300 + n % 400), (3, 700)):
                    rc, _, err = harness.raw_call(self.bus, 'requestTouchAction', ('uint32', kind),
                                                  ('uint32', x), ('uint32', 300))
                    if rc != 0:
                        errors.append(err)
                n += 7

        pumper = threading.Thread(target=pump)
        pumper.start()
        try:
            self.daemon.wait_for_console(r'^Receiver stopped$', timeout=30)
            # Some touches after the close, on a connection the phone has reset.
            after = self.daemon.mark()
            self.rig.wait_pictures(15, since=len(self.rig.pictures()))
        finally:
            stop.set()
            pumper.join(timeout=60)
        self.assertFalse(pumper.is_alive())
        self.assertEqual(errors, [])
        self.assertTrue(self.daemon.alive())
        self.daemon.assert_no_console(r'Video stream stopped', since=after)
        delivered = self.rig.controls()
        self.assertGreater(len(delivered), 0, 'touches before the close reach the phone')
        self.assertEqual({m['type'] for m in delivered}, {'touch'})

        self.assertEqual(harness.request_link_status(self.bus, LINK_USB, 24)[0], 0)
        self.monitor.wait_for(LINK_USB, 8)
        self.assert_statuses([(LINK_USB, 4), (LINK_USB, 8)])
        self.assert_nothing_left()


class AdbHangs(UsbCase):

    def test_push_that_never_ends_is_killed_after_the_limit(self):
        hang_log = os.path.join(self.tmp.path, 'hung-adb.pid')
        # exec: the hanging step is the adb process itself, as a stuck adb client would be.
        wrapper = write_script(os.path.join(self.tmp.path, 'hanging-adb'),
                               '#!/bin/sh\ncase "$1" in push) echo $$ >> %s; exec sleep 600;; esac\n'
                               'exec %s "$@"\n' % (hang_log, harness.binary('fake-adb')))
        self.start_usb_daemon(adb=wrapper, ORVANE_ADB_TIMEOUT_MS='1500')
        idle = harness.process_resources(self.daemon.pid)
        self.assertEqual(harness.request_link_status(self.bus, LINK_USB, 3, timeout=90)[0], 0)
        self.monitor.wait_for(LINK_USB, 5, timeout=60)
        self.daemon.wait_for_console(r'^"adb push" did not finish within 1500 ms, killed$')
        self.daemon.wait_for_console(service_line('startServer failed!'))
        self.daemon.wait_for_console(service_line('exitLink  screen stoped'))
        with open(hang_log) as f:
            hung = int(f.read().split()[0])
        self.assertFalse(os.path.exists('/proc/%d' % hung), 'the hung adb is gone and reaped')
        self.assert_statuses([(LINK_USB, 5)])
        self.assert_nothing_left(idle)

    def test_tunnel_removal_that_hangs_does_not_stop_the_link(self):
        wrapper = write_script(os.path.join(self.tmp.path, 'hanging-adb'),
                               '#!/bin/sh\ncase "$*" in "reverse --remove"*) exec sleep 600;; esac\n'
                               'exec %s "$@"\n' % harness.binary('fake-adb'))
        self.start_usb_daemon(adb=wrapper, ORVANE_ADB_TIMEOUT_MS='1000')
        self.start_link()
        self.daemon.wait_for_console(r'^"adb reverse --remove" did not finish within 1000 ms, killed$')
        self.rig.wait_pictures(5)
        self.assertEqual(harness.request_link_status(self.bus, LINK_USB, 7)[0], 0)
        self.monitor.wait_for(LINK_USB, 8)
        self.assert_nothing_left()


class CodecBusy(UsbCase):

    def test_codec_held_by_another_process_ends_the_stream(self):
        lock_path = os.path.join(self.tmp.path, 'codec.lock')
        holder = open(lock_path, 'w')
        self.addCleanup(holder.close)
        fcntl.flock(holder, fcntl.LOCK_EX | fcntl.LOCK_NB)
        self.start_usb_daemon(ORVANE_HOST_CODEC_LOCK=lock_path)
        idle = harness.process_resources(self.daemon.pid)
        since = self.daemon.mark()
        self.start_link()
        self.monitor.wait_for(LINK_USB, 8, timeout=30)
        console = self.daemon.wait_for_console(r'^Could not open decoder$', since=since)
        self.daemon.wait_for_console(r'^Video stream stopped$', since=console.end())
        self.daemon.wait_for_console(service_line('exitLink  screen stoped'), since=since)
        self.assertEqual(self.rig.pictures(), [])
        self.assert_statuses([(LINK_USB, 4), (LINK_USB, 8)])
        self.assert_nothing_left(idle)

        # Once the other process lets go, the next link decodes.
        fcntl.flock(holder, fcntl.LOCK_UN)
        before = self.monitor.count()
        self.assertEqual(harness.request_link_status(self.bus, LINK_USB, 3)[0], 0)
        self.monitor.wait_for(LINK_USB, 4, since=before, timeout=60)
        self.rig.wait_pictures(5)


if __name__ == '__main__':
    unittest.main()
