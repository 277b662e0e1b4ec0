"""Benchmarks of the running daemon on the host platform, each beside a baseline from the same run
(nothing is asserted about times): frame latency from the phone simulator's send of a frame to the
picture latched on the layer (60 fps, 60 Hz vsync, frame cap on) against ffmpeg -threads 1 decoding
the same frames; touch latency (tests/bench/touch_bench); resident memory and CPU per picture.
The simulator's progress log is a FIFO read here, each 'frame N' line stamped with CLOCK_MONOTONIC on
arrival (it is written right after the frame's last byte); the daemon's frame log uses the same clock.

    python3 tests/bench/system_bench.py [BUILD_DIR]
"""

import contextlib
import os
import re
import subprocess
import sys
import threading
import time

HERE = os.path.dirname(os.path.abspath(__file__))
if len(sys.argv) > 1:
    os.environ['ORVANE_BUILD_DIR'] = os.path.abspath(sys.argv[1])
sys.path.insert(0, os.path.join(HERE, '..', 'system'))
import harness  # noqa: E402

SECONDS = float(os.environ.get('ORVANE_BENCH_SECONDS', '8'))


def make_clip(path, width, height, frames, fps):
    """libx264 with a phone's settings: no B-frames, headers repeated, a delimiter per frame."""
    subprocess.run(['ffmpeg', '-nostdin', '-v', 'error', '-y', '-f', 'lavfi', '-i',
                    'testsrc2=size=%dx%d:rate=%d' % (width, height, fps), '-frames:v', str(frames),
                    '-pix_fmt', 'yuv420p', '-c:v', 'libx264', '-preset', 'ultrafast', '-tune', 'zerolatency',
                    '-bf', '0', '-x264-params', 'aud=1:repeat-headers=1', '-f', 'h264', path],
                   check=True, timeout=300)


def ffmpeg_ms_per_frame(path, frames):
    start = time.monotonic()
    subprocess.run(['ffmpeg', '-nostdin', '-v', 'error', '-threads', '1', '-i', path, '-f', 'null', '-'],
                   check=True, timeout=300)
    return (time.monotonic() - start) * 1000.0 / frames


def percentile(values, p):
    values = sorted(values)
    return values[min(len(values) - 1, int(p * (len(values) - 1) + 0.5))]


def proc_stat_cpu_s(pid):
    with open('/proc/%d/stat' % pid) as f:
        fields = f.read().rsplit(')', 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf('SC_CLK_TCK')


def rss_mib(pid):
    with open('/proc/%d/status' % pid) as f:
        return next(int(line.split()[1]) for line in f if line.startswith('VmRSS:')) / 1024.0


class FifoStamper(threading.Thread):
    """Reads the simulator's log FIFO and stamps every 'frame N' line on arrival."""

    LINE = re.compile(rb'^frame (\d+) ')

    def __init__(self, path):
        super().__init__(daemon=True)
        self.path = path
        self.sent = []  # (frame number, monotonic ns)
        os.mkfifo(path)

    def run(self):
        with open(self.path, 'rb', buffering=0) as f:
            pending = b''
            while True:
                chunk = f.read(4096)
                now = time.monotonic_ns()
                if not chunk:
                    return
                pending += chunk
                *lines, pending = pending.split(b'\n')
                for line in lines:
                    m = self.LINE.match(line)
                    if m:
                        self.sent.append((int(m.group(1)), now))


def read_latches(path):
    """Monotonic times of the frame log's latched pictures."""
    if not os.path.exists(path):
        return []
    with open(path) as f:
        return [int(p[0]) for p in (line.split() for line in f) if len(p) >= 4 and p[3] == '1']


def run_link(clip, size, tmp, touches=0):
    """One USB link streaming clip at 60 fps; returns the measurements."""
    work = os.path.join(tmp, '%dx%d' % size)
    os.makedirs(work)
    stamper = FifoStamper(os.path.join(work, 'phone.fifo'))
    stamper.start()
    framelog, control_log = os.path.join(work, 'frames.log'), os.path.join(work, 'control.log')
    open(control_log, 'w').close()
    env = {'ADB': harness.binary('fake-adb'), 'FAKE_ADB_LOG': os.path.join(work, 'adb.log'),
           'PHONE_SIM_CLIP': clip, 'PHONE_SIM_FPS': '60', 'PHONE_SIM_SIZE': '%d:%d' % size,
           'PHONE_SIM_LOG': stamper.path, 'PHONE_SIM_CONTROL_LOG': control_log,
           'ORVANE_HOST_FRAMELOG': framelog, 'ORVANE_HOST_HZ': '60'}
    with contextlib.ExitStack() as cleanup:  # unwinds: monitor, daemon, orphans, bus
        bus = harness.PrivateBus()
        cleanup.callback(bus.close)
        cleanup.callback(harness.end_orphans)
        daemon = harness.Daemon(bus, work, env=env)
        cleanup.callback(daemon.stop)
        time.sleep(1.0)
        result = {'rss_idle': rss_mib(daemon.pid)}
        monitor = harness.Monitor(bus)
        cleanup.callback(monitor.close)
        rc, _, err = harness.request_link_status(bus, harness.LINK_USB, 3, timeout=60)
        if rc != 0:
            raise RuntimeError('start failed: ' + err)
        monitor.wait_for(harness.LINK_USB, 4, timeout=60)
        time.sleep(1.0)  # past the first key frame and the codec's start-up
        cpu0, t0, rss = proc_stat_cpu_s(daemon.pid), time.monotonic_ns(), 0.0
        end = time.monotonic() + SECONDS
        while time.monotonic() < end:
            time.sleep(0.25)
            rss = max(rss, rss_mib(daemon.pid))
        cpu1, t1 = proc_stat_cpu_s(daemon.pid), time.monotonic_ns()
        if touches:
            out = subprocess.run([os.path.join(harness.BUILD_DIR, 'bench', 'touch_bench'), control_log,
                                  str(touches), '512', '300'], env=bus.env(), capture_output=True, timeout=120)
            result['touch'] = out.stdout.decode() if out.returncode == 0 else \
                'touch_bench failed: ' + out.stderr.decode()
        harness.request_link_status(bus, harness.LINK_USB, 7, timeout=60)
        monitor.wait_for(harness.LINK_USB, 8, timeout=60)
    stamper.join(timeout=10)
    latches = read_latches(framelog)
    window = [t for t in latches if t0 <= t <= t1]
    result.update(rss_stream=rss, cpu_ms_per_frame=(cpu1 - cpu0) * 1000.0 / max(1, len(window)),
                  fps_latched=len(window) / ((t1 - t0) / 1e9), sent=len(stamper.sent), latched=len(latches),
                  latency=latency(stamper.sent, latches))
    return result


def latency(sent, latches):
    """For each latched picture, the time since the newest frame whose send had completed before
    the latch (vsync wait included). The frame-rate cap drops pictures, so a latch is paired with
    the newest frame sent, which can only understate the latency of the picture actually shown."""
    times = [t for _, t in sent]
    out = []
    j = 0
    for latch in latches:
        while j + 1 < len(times) and times[j + 1] <= latch:
            j += 1
        if times and times[j] <= latch:
            out.append((latch - times[j]) / 1e6)
    return out


def main():
    for name in ('orvaned', 'fake-adb', 'phone-sim', 'orvanectl'):
        if not os.access(harness.binary(name), os.X_OK):
            sys.exit('system_bench: %s not built in %s' % (name, harness.BIN_DIR))
    tmp = harness.TempDir('orvane-bench-')
    try:
        rows = []
        for size, touches in (((1280, 720), 200), ((1080, 1920), 0)):
            clip = os.path.join(tmp.path, 'clip-%dx%d.h264' % size)
            make_clip(clip, size[0], size[1], 240, 60)
            decode_ms = ffmpeg_ms_per_frame(clip, 240)
            rows.append(dict(run_link(clip, size, tmp.path, touches), name='%dx%d' % size, decode_ms=decode_ms))

        print('frame latency: phone-sim send -> picture latched (60 fps, 60 Hz vsync, frame cap on)')
        print('%-12s %8s %8s %8s %8s %14s %9s %9s' % ('size', 'sent', 'latched', 'p50 ms', 'p99 ms',
                                                     'decode ms/f', 'p50/dec', 'p99/dec'))
        for r in rows:
            lat = r['latency']
            if not lat:
                print('%-12s no latches matched' % r['name'])
                continue
            p50, p99 = percentile(lat, 0.5), percentile(lat, 0.99)
            print('%-12s %8d %8d %8.2f %8.2f %14.2f %9.1f %9.1f' % (
                r['name'], r['sent'], r['latched'], p50, p99, r['decode_ms'], p50 / r['decode_ms'],
                p99 / r['decode_ms']))
        print('(decode ms/f: ffmpeg -threads 1 on the same clip, process start included)')
        print()
        print('resources (daemon process)')
        print('%-12s %12s %14s %12s %14s' % ('size', 'RSS idle MiB', 'RSS stream MiB', 'latched fps',
                                           'CPU ms/frame'))
        for r in rows:
            print('%-12s %12.1f %14.1f %12.1f %14.2f' % (r['name'], r['rss_idle'], r['rss_stream'],
                                                        r['fps_latched'], r['cpu_ms_per_frame']))
        print()
        print('\n'.join(r['touch'].rstrip() for r in rows if 'touch' in r))
    finally:
        tmp.close()


if __name__ == '__main__':
    main()
