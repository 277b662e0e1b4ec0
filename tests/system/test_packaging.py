"""What `cmake --install` lays out, and the Debian package's daemon started by D-Bus activation."""

import configparser
import glob
import os
import shutil
import signal
import subprocess
import unittest

import harness


def run(*args, **kwargs):
    r = subprocess.run(args, stdin=subprocess.DEVNULL, capture_output=True, timeout=300, **kwargs)
    return r.returncode, r.stdout.decode(errors='replace') + r.stderr.decode(errors='replace')


class Packaging(unittest.TestCase):

    def assert_layout(self, root, prefix):
        """The daemon and client, and a unit and an activation file that start the daemon where it was
        installed; SIGTERM only makes the daemon print a call stack, so SIGKILL must follow, and soon."""
        self.assertTrue(all(os.access('%s/bin/%s' % (root, name), os.X_OK) for name in ('orvaned', 'orvanectl')))
        files = {}
        for name, path in (('D-BUS Service', 'share/dbus-1/services/com.quorva.mirror.service'),
                           ('Service', 'lib/systemd/user/orvaned.service')):
            parser = configparser.ConfigParser(strict=False, interpolation=None)
            parser.optionxform = str  # keys are case-sensitive
            parser.read('%s/%s' % (root, path))
            files[name] = dict(parser[name])
        self.assertEqual(files['D-BUS Service'], {'Name': harness.SERVICE, 'Exec': prefix + '/bin/orvaned',
                                                  'SystemdService': 'orvaned.service'})
        unit = files['Service']
        self.assertEqual([unit.get(k) for k in ('Type', 'BusName', 'ExecStart', 'Restart', 'SendSIGKILL')],
                         ['dbus', harness.SERVICE, prefix + '/bin/orvaned', 'on-failure', 'yes'])
        self.assertLessEqual(float(unit['TimeoutStopSec'].rstrip('s')), 5)

    def test_install_and_the_package_whose_daemon_starts_by_activation(self):
        harness.require_binaries('orvaned', 'orvanectl')
        tmp = harness.TempDir('orvane-package-')
        self.addCleanup(tmp.close)
        prefix = tmp.file('other')  # the files carry the path installed to, not a fixed one
        rc, out = run('cmake', '--install', harness.BUILD_DIR, '--prefix', prefix)
        self.assertEqual(rc, 0, out)
        self.assert_layout(prefix, prefix)
        if os.geteuid() != 0 or not shutil.which('cpack') or run('dpkg-query', '-W', 'orvane')[0] == 0:
            self.skipTest('needs root and cpack, and the package orvane not installed already')
        rc, out = run('cpack', '-G', 'DEB', '--config', harness.BUILD_DIR + '/CPackConfig.cmake', '-B', tmp.path)
        self.assertEqual(rc, 0, out)
        [deb] = glob.glob(tmp.file('orvane_*.deb'))
        self.addCleanup(run, 'dpkg', '-r', 'orvane')
        rc, out = run('dpkg', '-i', deb)
        self.assertEqual(rc, 0, out)
        self.assert_layout('/usr', '/usr')

        # A session bus that activates from the installed services, passing a hermetic environment on.
        conf = tmp.file('session.conf')
        with open(harness.SESSION_CONF) as f, open(conf, 'w') as out:
            out.write(f.read().replace('</busconfig>', '<servicedir>/usr/share/dbus-1/services</servicedir></busconfig>'))
        env = dict(os.environ, ORVANE_CONSOLE=tmp.file('console'), **harness.Daemon.default_env(tmp.path))
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
        self.assertEqual(run('dpkg', '-r', 'orvane')[0], 0)
        self.assertFalse(os.path.exists('/usr/bin/orvaned'))


if __name__ == '__main__':
    unittest.main()
