"""The Debian package: what it installs, its interface descriptions, its daemon started by activation."""

import configparser
import glob
import gzip
import os
import re
import shutil
import signal
import subprocess
import sys
import unittest

import harness

HMI_CLIENT = r'''#include <QCoreApplication>
#include "hmi_proxy.h"
int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    LocalDbusServerQVOMirrorInterface hmi("com.quorva.mirror", "/com/quorva/mirror", QDBusConnection::sessionBus());
    QDBusPendingReply<> reply = hmi.requestLinkStatus(2, 6);
    reply.waitForFinished();
    return reply.isError() ? 1 : 0;
}
'''
HMI_PROJECT = '''cmake_minimum_required(VERSION 3.16)
project(hmi CXX)
find_package(Qt@Q@ REQUIRED COMPONENTS DBus)
qt@Q@_add_dbus_interface(PROXY @XML@ hmi_proxy)
add_executable(hmi main.cpp ${PROXY})
target_include_directories(hmi PRIVATE ${CMAKE_CURRENT_BINARY_DIR})
target_link_libraries(hmi Qt@Q@::DBus)
'''

def run(*args, env=None):
    r = subprocess.run(args, stdin=subprocess.DEVNULL, capture_output=True, timeout=300, env=env)
    return r.returncode, r.stdout.decode(errors='replace') + r.stderr.decode(errors='replace')


class Packaging(unittest.TestCase):

    def test_package_from_a_fresh_build_installs_whole_and_its_daemon_starts_by_activation(self):
        harness.require_binaries('orvaned', 'orvanectl', 'fake-adb', 'phone-sim')
        if os.geteuid() != 0 or not shutil.which('cpack') or run('dpkg-query', '-W', 'orvane')[0] == 0:
            self.skipTest('needs root and cpack, and the package orvane not installed already')
        tmp = harness.TempDir('orvane-package-')
        self.addCleanup(tmp.close)
        # A fresh build directory with nothing built: cpack builds what it installs.
        rc, out = run('cmake', '-S', os.path.join(harness.HERE, '..', '..'), '-B', tmp.file('build'), '-G', 'Ninja',
                      '-DCMAKE_BUILD_TYPE=RelWithDebInfo', '-DORVANE_TESTS=OFF')
        self.assertEqual(rc, 0, out)
        rc, out = run('cpack', '-G', 'DEB', '--config', tmp.file('build/CPackConfig.cmake'), '-B', tmp.path)
        self.assertEqual(rc, 0, out)
        [deb], [ddeb] = glob.glob(tmp.file('orvane_*.deb')), glob.glob(tmp.file('orvane-dbgsym_*.ddeb'))
        control = run('dpkg-deb', '-f', deb)[1]
        fields = dict(re.findall(r'^(\S+): (.*)$', control, re.M))
        self.assertEqual([fields.get(k) for k in ('Section', 'Priority', 'Recommends')], ['video', 'optional', 'adb'])
        self.assertGreater(len(re.findall(r'^ \S', control, re.M)), 3, 'a description of a few lines')
        self.addCleanup(run, 'dpkg', '-r', 'orvane')
        rc, out = run('dpkg', '-i', deb)
        self.assertEqual(rc, 0, out)
        # Shipped stripped; the symbols are in the debug package, under the daemon's build id.
        self.assertNotIn('.debug_info', run('readelf', '-S', '/usr/bin/orvaned')[1])
        build_id = re.search(r'Build ID: (\w+)', run('readelf', '-n', '/usr/bin/orvaned')[1]).group(1)
        self.assertIn('usr/lib/debug/.build-id/%s/%s.debug' % (build_id[:2], build_id[2:]), run('dpkg-deb', '-c', ddeb)[1])
        for program in ('orvaned', 'orvanectl'):  # written from the programs' own --help and --version
            with gzip.open('/usr/share/man/man1/%s.1.gz' % program, 'rt') as page:
                self.assertRegex(page.read(), r'(?s)^.*\.TH %s .*\\-\\-version' % program.upper())
        # The user unit: a stop ends the link first, then SIGINT the daemon (SIGTERM only prints a call
        # stack); sandboxed as far as a user unit can be on a PC, with the score it reaches.
        unit_path = '/usr/lib/systemd/user/orvaned.service'
        unit = configparser.ConfigParser(strict=False, interpolation=None)
        unit.optionxform = str  # keys are case-sensitive
        unit.read(unit_path)
        self.assertEqual([unit['Service'].get(k) for k in ('Type', 'BusName', 'ExecStart', 'Restart', 'ExecStop',
                                                            'KillSignal', 'SendSIGKILL', 'NoNewPrivileges')],
                         ['dbus', harness.SERVICE, '/usr/bin/orvaned', 'on-failure',
                          '/usr/bin/orvanectl --timeout 10 stop', 'SIGINT', 'yes', 'yes'])
        if shutil.which('systemd-analyze'):
            score = re.search(r'Overall exposure level for \S+: ([\d.]+ \w+)',
                              run('systemd-analyze', 'security', '--offline=true', unit_path)[1])
            sys.stderr.write('\nsystemd-analyze security of the user unit: %s\n' % score.group(1))
            self.assertLess(float(score.group(1).split()[0]), 4.0)

        # A session bus that activates from the installed services, passing a hermetic environment on:
        # nobody owns the name until orvanectl's start activates the installed daemon, which mirrors.
        conf = tmp.file('session.conf')
        with open(harness.SESSION_CONF) as f, open(conf, 'w') as out:
            out.write(f.read().replace('</busconfig>', '<servicedir>/usr/share/dbus-1/services</servicedir>'
                                       '</busconfig>'))
        rig = harness.UsbRig(tmp.path)
        env = dict(os.environ, ORVANE_CONSOLE=tmp.file('console'), **dict(harness.Daemon.default_env(tmp.path),
                                                                          **rig.env()))
        bus = harness.PrivateBus(conf, {k: v for k, v in env.items() if k != 'DBUS_SESSION_BUS_ADDRESS'})
        self.addCleanup(bus.close)
        self.assertEqual(harness.call(bus, 'start', 'usb', timeout=60)[:2], (0, '2 4 streaming\n'))
        rig.wait_pictures(5)
        pid = int(harness.dbus_send(bus, '--dest=org.freedesktop.DBus', '/org/freedesktop/DBus', 'org.freedesktop.DBus.'
                                    'GetConnectionUnixProcessID', 'string:' + harness.SERVICE)[1].split()[-1])
        self.assertEqual(os.readlink('/proc/%d/exe' % pid), '/usr/bin/orvaned')

        # The installed interface descriptions are the daemon's; an HMI team's proxy generated from the
        # HMI file, built with moc, calls the daemon.
        hmi, diagnostics = ('/usr/share/dbus-1/interfaces/%s.xml' % name
                            for name in (harness.INTERFACE, 'com.quorva.mirror.Diagnostics1'))
        with open(hmi) as f, open(diagnostics) as g:
            described, properties = f.read(), re.findall(r'<property name="(\w+)"', g.read())
        self.assertEqual(harness.interface_members(bus), harness.interface_members(bus, described))
        self.assertEqual(sorted(properties), sorted(harness.stats(bus)))
        qt = '6' if re.search(r'^Qt6_DIR:PATH=/', harness.read_text(harness.BUILD_DIR + '/CMakeCache.txt'), re.M) else '5'
        with open(tmp.file('main.cpp'), 'w') as f, open(tmp.file('CMakeLists.txt'), 'w') as g:
            f.write(HMI_CLIENT)
            g.write(HMI_PROJECT.replace('@Q@', qt).replace('@XML@', hmi))
        for step in (['cmake', '-S', tmp.path, '-B', tmp.file('b')], ['cmake', '--build', tmp.file('b')],
                     [tmp.file('b/hmi')]):
            rc, out = run(*step, env=bus.env())
            self.assertEqual(rc, 0, out)
        harness.wait_file(tmp.file('console'), r'OrvaneApp::requestLinkStatus 2 6 $')

        # The session bus goes away: the daemon ends its link and itself with a status that restarts it, and
        # the next call on the new bus activates a new daemon, which mirrors (the codec and the layer free).
        bus.proc.kill()
        harness.wait_until(lambda: harness.reap_orphans(0.1) == [] and not os.path.exists('/proc/%d' % pid), 30,
                           'the daemon to end with its bus')
        harness.wait_file(tmp.file('console'), r'Session bus lost: ending the link and the daemon\n(.*\n)*.*screen stoped')
        bus = harness.PrivateBus(conf, {k: v for k, v in env.items() if k != 'DBUS_SESSION_BUS_ADDRESS'})
        self.addCleanup(bus.close)
        seen = len(rig.pictures())
        self.assertEqual(harness.call(bus, 'start', 'usb', timeout=60)[:2], (0, '2 4 streaming\n'))
        rig.wait_pictures(5, since=seen)
        pid = int(harness.dbus_send(bus, '--dest=org.freedesktop.DBus', '/org/freedesktop/DBus', 'org.freedesktop.DBus.'
                                    'GetConnectionUnixProcessID', 'string:' + harness.SERVICE)[1].split()[-1])

        # SIGINT, as the unit stops it: an orderly end.
        os.kill(pid, signal.SIGINT)
        harness.wait_until(lambda: harness.reap_orphans(0.1) == [] and not os.path.exists('/proc/%d' % pid), 10,
                           'the activated daemon to end by itself')  # it is ours since the bus let it go
        self.assertIn('Signal 2: ending the link and the daemon', harness.read_text(tmp.file('console')))
