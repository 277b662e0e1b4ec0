"""The USB link when things go wrong underneath it; each fault ends in its status and leaves nothing."""

import fcntl
import os
import signal
import threading
import unittest

import harness
from harness import LINK_USB
from test_usb import SCREEN_STOPPED, UsbCase, service_line, write_script


class Faults(UsbCase):

    def test_phone_killed_while_streaming(self):
        self.start_usb_daemon()
        self.start_link()
        self.rig.wait_pictures(10)
        [phone] = [pid for pid, cmd in harness.descendants(self.daemon.pid) if 'phone-sim' in cmd]
        mark = self.daemon.mark()
        os.kill(phone, signal.SIGKILL)
        self.daemon.wait_for_console(r'^Video stream stopped$', since=mark, timeout=30)
        self.assert_link_ended(mark)

    def test_phone_closes_its_control_connection_under_a_stream_of_input(self):
        # Video goes on; later input fails quietly, without a SIGPIPE death.
        self.start_usb_daemon(events='close-control@15')
        self.start_link()
        stop, errors = threading.Event(), []

        def drag():  # an HMI dragging a finger across the picture, and pressing back
            n = 0
            while not stop.is_set():
                for method, *args in [('requestTouchAction', ('uint32', kind), ('uint32', x), ('uint32', 300))
                                      for kind, x in ((1, 300), (2, 300 + n % 400), (3, 700))] + \
                                     [('requestKeyValue', ('int32', 2))]:
                    rc, _, err = harness.raw_call(self.bus, method, *args)
                    if rc:
                        errors.append(err)
                n += 7

        dragger = threading.Thread(target=drag)
        dragger.start()
        try:
            self.daemon.wait_for_console(r'^Receiver stopped$', timeout=30)
            self.rig.wait_pictures(15, since=len(self.rig.pictures()))  # touches go on after the close
        finally:
            stop.set()
            dragger.join(timeout=60)
        self.assertEqual(errors, [])
        self.assertNotEqual(self.rig.controls(), [], 'touches before the close reach the phone')
        self.assertLessEqual({m['type'] for m in self.rig.controls()}, {'touch', 'keycode'})
        self.assertIn('closing the control connection at frame 15', self.rig.sim_lines())
        self.daemon.assert_no_console(r'Video stream stopped')
        self.request(24)
        self.assert_link_ended(0)

    def test_push_that_never_ends_is_killed_after_the_limit(self):
        hung = self.tmp.file('hung-adb.pid')
        # exec: the hanging step is the adb process itself, as a stuck adb client would be.
        adb = write_script(self.tmp.file('hanging-adb'), 'case "$1" in push) echo $$ > %s; exec sleep 600;; esac\n'
                           'exec %s "$@"\n' % (hung, harness.binary('fake-adb')))
        self.start_usb_daemon(adb=adb, ORVANE_ADB_TIMEOUT_MS='1500')
        self.request(3)
        self.monitor.wait_for(LINK_USB, 5, timeout=60)
        self.daemon.wait_for_console(r'^"adb push" did not finish within 1500 ms, killed$')
        self.daemon.wait_for_console(service_line('startServer failed!'))
        self.daemon.wait_for_console(SCREEN_STOPPED)
        self.assertFalse(os.path.exists('/proc/%d' % int(harness.read_text(hung))), 'the hung adb is reaped')
        self.assert_statuses([(LINK_USB, 5)])
        self.assert_nothing_left()

    def test_codec_held_by_another_process_ends_the_stream_until_it_lets_go(self):
        holder = open(self.tmp.file('codec.lock'), 'w')
        self.addCleanup(holder.close)
        fcntl.flock(holder, fcntl.LOCK_EX | fcntl.LOCK_NB)
        self.start_usb_daemon(ORVANE_HOST_CODEC_LOCK=holder.name)
        self.start_link()
        decoder = self.daemon.wait_for_console(r'^Could not open decoder$', timeout=30)
        self.daemon.wait_for_console(r'^Video stream stopped$', since=decoder.end())
        self.assert_link_ended(0)
        self.assertEqual(self.rig.pictures(), [])
        fcntl.flock(holder, fcntl.LOCK_UN)
        self.start_link()
        self.rig.wait_pictures(5)


if __name__ == '__main__':
    unittest.main()
