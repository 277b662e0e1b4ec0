"""Wi-Fi phones as they are: a still screen for a minute, one that leaves just before the HMI restarts
the link or comes back just in time, connections arriving as their link ends. Needs root."""

import os
import signal
import threading
import time

import harness
from harness import LINK_USB, LINK_WIFI as WIFI
from test_wifi import Wifi

STALE = 'event 2028 of an ended link ignored\n'


class Misbehaving(Wifi):

    def test_still_screen_stale_grace_and_a_phone_back_just_in_time(self):
        self.begin()
        self.start_wifi()
        # A still screen: nothing for 60 s, then frames again; the link holds throughout.
        phone, log = self.phone('--drop-at', '45', events='idle:60@30', log='still.log')
        self.monitor.wait_for(WIFI, 4, timeout=30)
        harness.wait_file(log, r'^idle period over$', timeout=90)
        self.more_pictures(5)  # its next frames are shown
        self.daemon.assert_no_console(r'^Video stream stopped$')
        self.assertEqual(self.monitor.all(), [(WIFI, 3), (WIFI, 4)])
        # It leaves (reset at frame 45) and the HMI stops and restarts within its grace period:
        # that grace period must not end the new link.
        mark = self.daemon.mark()
        self.daemon.wait_for_console(r'^Video stream stopped$', since=mark, timeout=30)
        self.assertEqual(harness.request_link_status(self.bus, WIFI, 7)[0], 0)
        self.start_wifi()
        time.sleep(4)  # past the old grace period's end
        self.daemon.assert_no_console('wait client retry connect timeout', since=mark)
        self.assertTrue(self.net.listening(self.daemon.pid))
        # A phone dropped mid-stream and back 2.9 s later keeps its link: the grace is 3000 ms.
        since = self.monitor.count()
        self.phone('--drop-at', '20', '--reconnect', '2900', log='back.log')
        harness.wait_file(self.tmp.file('back.log'), r'^video connected to .*\n(.*\n)*^video connected to ',
                          timeout=30)
        self.more_pictures(30)
        self.assertEqual(self.monitor.all()[since:], [(WIFI, 4), (WIFI, 4)])
        self.daemon.assert_no_console('wait client retry connect timeout', since=mark)

    def test_connection_events_of_an_ended_link_act_on_nothing(self):
        # Frozen while a phone connects and the HMI stops (or switches to USB), thawed: which reaches the
        # main thread first is the scheduler's choice, so rounds go on until a connection came late.
        self.begin()
        stale = lambda: self.daemon.console().count(STALE)
        for round_ in range(40):
            if stale():
                break
            request = (LINK_USB, 3) if round_ % 2 else (WIFI, 7)
            with self.subTest(round=round_, request=request):
                self.start_wifi()
                since = self.monitor.count()
                os.kill(self.daemon.pid, signal.SIGSTOP)
                try:
                    phone, log = self.phone(log='round%d.log' % round_)
                    harness.wait_file(log, r'^video connected to ')
                    answered = threading.Thread(target=harness.request_link_status, args=(self.bus,) + request)
                    answered.start()
                    time.sleep(1)  # the request is on its way into the frozen daemon
                finally:
                    os.kill(self.daemon.pid, signal.SIGCONT)
                answered.join(60)
                if request[0] == LINK_USB:
                    self.monitor.wait_for(LINK_USB, 4, since=since, timeout=30)
                    self.assertEqual(self.monitor.all()[since:][-1:], [(LINK_USB, 4)])
                    self.assertEqual(harness.request_link_status(self.bus, LINK_USB, 7)[0], 0)
                    self.monitor.wait_for(LINK_USB, 8, since=since)
                self.assertFalse({(WIFI, 5), (LINK_USB, 5)} & set(self.monitor.all()[since:]))
                self.assertFalse(self.net.listening(self.daemon.pid))
                self.net.stop(phone)
        self.assertTrue(stale(), 'no round handed a connection event in after its teardown')
