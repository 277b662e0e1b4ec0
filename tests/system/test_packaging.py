"""What `cmake --install` lays out, and the Debian package's daemon started by D-Bus activation."""

import configparser
import glob
import os
import re
import shutil
import signal
import subprocess
import unittest

import harness

UNIT, ACTIVATION = 'lib/systemd/user/orvaned.service', 'share/dbus-1/services/com.quorva.mirror.service'
INTERFACES = 'share/dbus-1/interfaces/'
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


def run(args, **kwargs):
    r = subprocess.run(args, stdin=subprocess.DEVNULL, capture_output=True, timeout=300, **kwargs)
    return r.returncode, r.stdout.decode(errors='replace') + r.stderr.decode(errors='replace')


def section(path, name):
    parser = configparser.ConfigParser(strict=False, interpolation=None)
    parser.optionxform = str  # keys are case-sensitive
    parser.read(path)
    return dict(parser[name])


class Packaging(unittest.TestCase):

    def setUp(self):
        harness.require_binaries('orvaned', 'orvanectl')
        self.tmp = harness.TempDir('orvane-package-')
        self.addCleanup(self.tmp.close)

    def test_install_lays_out_the_daemon_client_unit_and_activation_file(self):
        for prefix, stage in (('/usr', self.tmp.file('stage')), (self.tmp.file('other'), '')):
            rc, out = run(['cmake', '--install', harness.BUILD_DIR, '--prefix', prefix], env=dict(os.environ, DESTDIR=stage))
            self.assertEqual(rc, 0, out)
            root, daemon = stage + prefix, prefix + '/bin/orvaned'  # the installed path, not the default prefix
            self.assertTrue(all(os.access('%s/bin/%s' % (root, name), os.X_OK) for name in ('orvaned', 'orvanectl')))
            self.assertEqual(section('%s/%s' % (root, ACTIVATION), 'D-BUS Service'),
                             {'Name': harness.SERVICE, 'Exec': daemon, 'SystemdService': 'orvaned.service'})
            unit = section('%s/%s' % (root, UNIT), 'Service')
            self.assertEqual([unit.get(k) for k in ('Type', 'BusName', 'ExecStart', 'Restart')],
                             ['dbus', harness.SERVICE, daemon, 'on-failure'])
            # SIGTERM only makes the daemon print a call stack: SIGKILL must follow, and soon.
            self.assertIn(unit.get('KillSignal', 'SIGTERM'), ('SIGTERM', 'TERM', '15'))
            self.assertNotEqual(unit.get('SendSIGKILL', 'yes'), 'no')
            self.assertLessEqual(float(unit['TimeoutStopSec'].rstrip('s')), 5)

    def test_installed_interfaces_match_the_daemon_and_build_an_hmi_proxy(self):
        stage = self.tmp.file('stage')
        rc, out = run(['cmake', '--install', harness.BUILD_DIR, '--prefix', '/usr'], env=dict(os.environ, DESTDIR=stage))
        self.assertEqual(rc, 0, out)
        hmi, diagnostics = (stage + '/usr/' + INTERFACES + name + '.xml' for name in (harness.INTERFACE, 'com.quorva.mirror.Diagnostics1'))
        bus = harness.PrivateBus()
        self.addCleanup(bus.close)
        daemon = harness.Daemon(bus, self.tmp.path)
        self.addCleanup(daemon.stop)
        with open(hmi) as f, open(diagnostics) as g:
            described, properties = f.read(), re.findall(r'<property name="(\w+)"', g.read())
        self.assertEqual(harness.interface_members(bus), harness.interface_members(bus, described))
        self.assertEqual(sorted(properties), sorted(line.split()[0] for line in harness.call(bus, 'stats')[1].splitlines()))

        # The HMI team's way in: a proxy generated from the installed file, built with moc, calling the daemon.
        qt = '6' if re.search(r'^Qt6_DIR:PATH=/', harness.read_text(harness.BUILD_DIR + '/CMakeCache.txt'), re.M) else '5'
        with open(self.tmp.file('main.cpp'), 'w') as f, open(self.tmp.file('CMakeLists.txt'), 'w') as g:
            f.write(HMI_CLIENT)
            g.write(HMI_PROJECT.replace('@Q@', qt).replace('@XML@', hmi))
        for step in (['cmake', '-S', self.tmp.path, '-B', self.tmp.file('b')],
                     ['cmake', '--build', self.tmp.file('b')], [self.tmp.file('b/hmi')]):
            rc, out = run(step, env=bus.env())
            self.assertEqual(rc, 0, out)
        daemon.wait_for_console(r'OrvaneApp::requestLinkStatus 2 6 $')

    def test_package_installs_and_its_daemon_starts_by_activation(self):
        if os.geteuid() != 0 or not shutil.which('cpack') or run(['dpkg-query', '-W', 'orvane'])[0] == 0:
            self.skipTest('needs root and cpack, and the package orvane not installed already')
        rc, out = run(['cpack', '-G', 'DEB', '--config', harness.BUILD_DIR + '/CPackConfig.cmake', '-B', self.tmp.path])
        self.assertEqual(rc, 0, out)
        [deb] = glob.glob(self.tmp.file('orvane_*.deb'))
        self.addCleanup(run, ['dpkg', '-r', 'orvane'])
        rc, out = run(['dpkg', '-i', deb])
        self.assertEqual(rc, 0, out)

        # A session bus that activates from the installed services, passing a hermetic environment on.
        conf = self.tmp.file('session.conf')
        with open(harness.SESSION_CONF) as f, open(conf, 'w') as out:
            out.write(f.read().replace('</busconfig>', '<servicedir>/usr/share/dbus-1/services</servicedir></busconfig>'))
        env = dict(os.environ, ORVANE_CONSOLE=self.tmp.file('console'), **harness.Daemon.default_env(self.tmp.path))
        bus = harness.PrivateBus(conf, {k: v for k, v in env.items() if k != 'DBUS_SESSION_BUS_ADDRESS'})
        self.addCleanup(bus.close)
        # Nobody owns the name until this call activates the installed daemon; then it answers.
        self.assertEqual(harness.request_link_status(bus, harness.LINK_USB, 6)[:2], (0, ''))
        rc, out, err = harness.dbus_send(bus, '--dest=org.freedesktop.DBus', '/org/freedesktop/DBus',
                                         'org.freedesktop.DBus.GetConnectionUnixProcessID', 'string:' + harness.SERVICE)
        self.assertEqual(rc, 0, err)
        pid = int(out.split()[-1])
        self.assertEqual(os.readlink('/proc/%d/exe' % pid), '/usr/bin/orvaned')
        os.kill(pid, signal.SIGKILL)
        harness.wait_until(lambda: harness.end_orphans(0.1) is not None and not os.path.exists('/proc/%d' % pid),
                           10, 'the activated daemon to end')
        rc, out = run(['dpkg', '-r', 'orvane'])
        self.assertEqual(rc, 0, out)
        self.assertFalse(os.path.exists('/usr/bin/orvaned'))


if __name__ == '__main__':
    unittest.main()
