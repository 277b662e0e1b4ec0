"""Benchmarks of the running daemon on the host platform (USB link through fake-adb, phone-sim sending
a pre-encoded libx264 clip), each against a limit or a baseline measured in the same run:
- frame latency, from the simulator's send of a frame to the latch of its picture, against the limit
  of the pacing design for the same frame: decoded in the decoder's own time (stream_bench --clip:
  the host codec's decoder in process, same clip), then shown at the next vsync of the grid measured
  from the latches. The phone sends at 47 fps to a 60 Hz display, so its frames meet the vsync at
  47 phases spread over the period (the limit's mean wait is half a period) and each frame is shown
  (the 18 ms cap drops none), so a latch pairs with the newest frame sent before it;
- CPU per shown picture against the decoder's CPU time, alone and at the phone's pace, for the frames
  decoded per shown picture, in the configuration that ships (no picture log; pictures counted by the
  daemon's own figures) and, apart, with the picture log the latency needs (a line written and
  flushed per picture);
- touch latency against a D-Bus Peer.Ping round trip to the daemon (touch_bench);
- resident memory idle, streaming and after 200 USB link cycles, as anonymous, other shared
  (the allocator's memfd areas) and file-backed (libraries) pages;
- the window on a real X server (Xvfb): the input round trip, from an X pointer event (XTest) to the
  latch of the phone's picture that answers it (phone-sim's own screen draws a dot where a finger is),
  against its limit: the phone's own answer (from reading the touch to sending its new picture, by
  its logs: phone-sim answers at once, so a whole frame period would be no floor), the picture's
  decode (the daemon's own median), then the next vsync of the window; and the pictures shown per
  second of a streaming phone while a drag storm (a pointer event every millisecond) goes to the
  phone, against the same without it.
The simulator's progress log is a FIFO read here, each 'frame N' line stamped with CLOCK_MONOTONIC on
arrival (it is written right after the frame's last byte); the daemon's frame log uses the same clock.
Prints tables, then `ratio NAME VALUE` lines (limit or baseline over the measure, at most 1).

    python3 tests/bench/system_bench.py [BUILD_DIR]
"""

import contextlib
import ctypes
import json
import math
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
from harness import LINK_USB  # noqa: E402

SECONDS = float(os.environ.get('ORVANE_BENCH_SECONDS', '8'))
RUNS = 5  # figures that vary from run to run are the median of this many, with their spread
PHONE_FPS, HZ, CYCLES = 47, 60, 200


def bench_tool(name):
    return os.path.join(harness.BUILD_DIR, 'bench', name)


def percentile(values, p):
    values = sorted(values)
    return values[min(len(values) - 1, int(p * (len(values) - 1) + 0.5))]


def cpu_s(pid):
    with open('/proc/%d/stat' % pid) as f:
        fields = f.read().rsplit(')', 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf('SC_CLK_TCK')


def memory_mib(pid):
    """Resident MiB of a process: (anonymous, other shared, file-backed), summed over its smaps."""
    anon = other = files = 0
    with open('/proc/%d/smaps' % pid) as f:
        for line in f:
            field = line.split()
            if not field[0].endswith(':'):  # a mapping: range, mode, offset, device, inode, path
                backed = len(field) > 5 and field[5].startswith('/') and \
                    not field[5].startswith(('/memfd:', '/SYSV', '/dev/'))
            elif field[0] == 'Rss:':
                rss = int(field[1])
            elif field[0] == 'Anonymous:':
                anon += int(field[1])
                if backed:
                    files += rss - int(field[1])
                else:
                    other += rss - int(field[1])
    return tuple(kib / 1024.0 for kib in (anon, other, files))


class FifoStamper(threading.Thread):
    """Reads the simulator's log FIFO and stamps every 'frame N' line on arrival."""

    LINE = re.compile(rb'^frame (\d+) ')

    def __init__(self, path):
        super().__init__(daemon=True)
        self.path = path
        self.sent = []  # monotonic ns of each frame's send
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
                self.sent += [now for line in lines if self.LINE.match(line)]


@contextlib.contextmanager
def usb_daemon(work, framelog=True, **rig_options):
    """The daemon on a private bus with fake-adb and phone-sim, and a monitor of its statuses; without
    framelog as it ships, with no picture log."""
    os.makedirs(work)
    rig = harness.UsbRig(work)
    env = rig.env(**rig_options)
    del env['ORVANE_HOST_SNAPSHOT']  # a test's eyes, not part of the shipped path
    if not framelog:
        del env['ORVANE_HOST_FRAMELOG']
    with contextlib.ExitStack() as cleanup:  # unwinds: monitor, daemon, orphans, bus
        bus = harness.PrivateBus()
        cleanup.callback(bus.close)
        cleanup.callback(harness.end_orphans)
        daemon = harness.Daemon(bus, work, env=env)
        cleanup.callback(daemon.stop)
        monitor = harness.Monitor(bus)
        cleanup.callback(monitor.close)
        yield rig, bus, daemon, monitor


def link(bus, monitor, request, answer):
    """A USB link request answered by its status (a start by 4, a stop by 8)."""
    since = monitor.count()
    rc, _, err = harness.request_link_status(bus, LINK_USB, request, timeout=60)
    if rc != 0:
        raise RuntimeError('request %d failed: %s' % (request, err))
    monitor.wait_for(LINK_USB, answer, since=since, timeout=60)


def clip_and_decode(path, size, frames):
    """Writes the phone's clip and returns the decoder's time in ms per frame on it, back to back, and its
    CPU time per frame at the phone's pace (a decoder that sleeps between frames pays for colder caches
    and a core that slowed down: the daemon's stream thread decodes so)."""
    out = subprocess.run([bench_tool('stream_bench'), '--clip', '%dx%d' % size, str(frames), str(PHONE_FPS),
                          path], check=True, capture_output=True, timeout=300).stdout.decode()
    wall, cpu, paced = map(float, re.search(r'wall ([\d.]+) cpu ([\d.]+) paced cpu ([\d.]+)', out).groups())
    return min(wall, cpu), paced  # load from elsewhere stretches the clock more than CPU time


def run_link(clip, size, work, decode_ms, touches=0):
    """One USB link streaming clip; returns the measurements."""
    stamper = FifoStamper(os.path.join(os.path.dirname(work), 'phone-%dx%d.fifo' % size))
    stamper.start()
    with usb_daemon(work, fps=PHONE_FPS, PHONE_SIM_CLIP=clip, PHONE_SIM_SIZE='%d:%d' % size,
                    PHONE_SIM_LOG=stamper.path, ORVANE_HOST_HZ=str(HZ)) as (rig, bus, daemon, monitor):
        link(bus, monitor, 3, 4)
        result = {}
        time.sleep(1.0)  # past the first key frame and the codec's start-up
        cpu0, t0, mem = cpu_s(daemon.pid), time.monotonic_ns(), (0, 0, 0)
        end = time.monotonic() + SECONDS
        while time.monotonic() < end:
            time.sleep(0.25)
            mem = max(mem, memory_mib(daemon.pid), key=sum)
        cpu1, t1 = cpu_s(daemon.pid), time.monotonic_ns()
        result['touch'] = []
        for _ in range(RUNS if touches else 0):
            out = subprocess.run([bench_tool('touch_bench'), rig.control_log, str(touches), '512', '300'],
                                 env=bus.env(), capture_output=True, timeout=120)
            if out.returncode != 0:
                raise RuntimeError('touch_bench failed: ' + out.stderr.decode())
            result['touch'].append([tuple(map(float, line.split())) for line in out.stdout.decode().splitlines()])
        link(bus, monitor, 7, 8)
    stamper.join(timeout=10)
    latches = [int(line.split()[0]) for line in harness.read_text(rig.framelog).splitlines()]
    shown = [t for t in latches if t0 <= t <= t1]
    sent = [t for t in stamper.sent if t0 <= t <= t1]
    period = vsync_period_ns(latches)
    next_vsync = vsync_grid(latches, period)
    limits = [next_vsync(t + decode_ms * 1e6) - t for t in sent]
    result.update(mem_stream=mem, cpu_ms=(cpu1 - cpu0) * 1000.0 / max(1, len(shown)), shown=len(shown),
                  sent=len(sent), fps=len(shown) / ((t1 - t0) / 1e9), period_ms=period / 1e6,
                  wait=(sum(limits) / len(limits) - decode_ms * 1e6) / period,
                  limit=[t / 1e6 for t in limits], latency=latency(stamper.sent, shown))
    return result


def cpu_as_shipped(clip, size, work, decode_cpu_ms, runs):
    """CPU ms per shown picture of a daemon as it ships (no picture log), its limit (the decoder's CPU for
    the frames decoded per shown picture), one pair per run; the pictures by the daemon's own figures."""
    out = []
    for run in range(runs):
        with usb_daemon(os.path.join(work, 'run%d' % run), framelog=False, fps=PHONE_FPS, PHONE_SIM_CLIP=clip,
                        PHONE_SIM_SIZE='%d:%d' % size, ORVANE_HOST_HZ=str(HZ)) as (rig, bus, daemon, monitor):
            link(bus, monitor, 3, 4)
            time.sleep(1.0)
            figures = lambda: (lambda s: (int(s['pictures_shown']), int(s['frames_decoded'])))(harness.stats(bus))
            (shown0, decoded0), cpu0 = figures(), cpu_s(daemon.pid)
            time.sleep(SECONDS / 2)
            (shown1, decoded1), cpu1 = figures(), cpu_s(daemon.pid)
            link(bus, monitor, 7, 8)
        shown = max(1, shown1 - shown0)
        out.append(((cpu1 - cpu0) * 1000.0 / shown, decode_cpu_ms * (decoded1 - decoded0) / shown))
    return out


def median_spread(values):
    values = sorted(values)
    return values[len(values) // 2], values[0], values[-1]


def vsync_period_ns(latches):
    """The refresh period from the latch times, which fall on vsyncs (a late wake-up delays one a
    little): roughly, the longest period of which nearly every gap is a whole multiple (at this
    phone rate many gaps are of one period); then the sum of the gaps that fit over the periods
    they span."""
    gaps = [b - a for a, b in zip(latches, latches[1:])]

    def fitting(period, tolerance):
        return [(g, round(g / period)) for g in gaps if g > period / 2 and
                abs(g - round(g / period) * period) < tolerance * period]

    candidates = [n * 50000 for n in range(80, 840)]  # 4 to 42 ms: 24 to 250 Hz
    scores = [len(fitting(p, 0.1)) for p in candidates]
    period = max(p for p, score in zip(candidates, scores) if score >= 0.9 * max(scores))
    for _ in range(2):
        fit = fitting(period, 0.25)
        period = sum(g for g, _ in fit) / sum(k for _, k in fit)
    return period


def vsync_grid(latches, period):
    """The vsyncs as a function: the first one at or after a time. Latches sit on the vsyncs plus
    the clock thread's wake-up; the earliest of them (5th percentile) marks the vsync itself."""
    offsets = sorted((t - latches[0] + period / 2) % period - period / 2 for t in latches)
    first = latches[0] + offsets[len(offsets) // 20]
    return lambda t: first + math.ceil((t - first) / period) * period


def latency(sent, latches):
    """Milliseconds from the send of the newest frame sent before each latch to that latch."""
    out, j = [], 0
    for latch in latches:
        while j + 1 < len(sent) and sent[j + 1] <= latch:
            j += 1
        if sent and sent[j] <= latch:
            out.append((latch - sent[j]) / 1e6)
    return out


class XTest:
    """Real pointer events on an X server, as the XTest extension makes them (xdotool's way), timed."""

    def __init__(self, display):
        self.x11, xtst = ctypes.CDLL('libX11.so.6'), ctypes.CDLL('libXtst.so.6')
        self.x11.XOpenDisplay.restype, self.x11.XOpenDisplay.argtypes = ctypes.c_void_p, [ctypes.c_char_p]
        self.x11.XFlush.argtypes = self.x11.XCloseDisplay.argtypes = [ctypes.c_void_p]
        xtst.XTestFakeMotionEvent.argtypes = [ctypes.c_void_p, ctypes.c_int, ctypes.c_int, ctypes.c_int, ctypes.c_ulong]
        xtst.XTestFakeButtonEvent.argtypes = [ctypes.c_void_p, ctypes.c_uint, ctypes.c_int, ctypes.c_ulong]
        self.xtst, self.display = xtst, self.x11.XOpenDisplay(display.encode())

    def _flush(self):
        self.x11.XFlush(self.display)
        return time.monotonic_ns()

    def move(self, x, y):
        self.xtst.XTestFakeMotionEvent(self.display, -1, x, y, 0)
        return self._flush()

    def button(self, down):
        self.xtst.XTestFakeButtonEvent(self.display, 1, int(down), 0)
        return self._flush()

    def close(self):
        self.x11.XCloseDisplay(self.display)


@contextlib.contextmanager
def window_daemon(x, work, **rig_options):
    """usb_daemon in a window on x, streaming; yields it with the window's origin on the screen and the
    window's refresh rate."""
    with usb_daemon(work, DISPLAY=x.display, ORVANE_HOST_DISPLAY='sdl', **rig_options) as (rig, bus, daemon,
                                                                                           monitor):
        link(bus, monitor, 3, 4)
        hz = int(daemon.wait_for_console(r'^host display: window \d+x\d+ \(\w+, (\d+) Hz\)', 20).group(1))
        wid = x.window(daemon.pid)
        g = dict(re.findall(r'(\w+)=(\d+)', x.xdotool('getwindowgeometry', '--shell', wid)))
        yield rig, bus, (int(g['X']), int(g['Y'])), hz


def run_window(work, taps=40, storm_s=4.0):
    """The input round trip through the window, and the frame path with and without a drag storm."""
    from test_window import Xvfb, PORTRAIT
    os.makedirs(work)
    x = Xvfb()
    xtest = XTest(x.display)
    try:
        # Taps on the phone's own screen (home background, below the tiles): each press and each release
        # changes its picture (the finger's dot), which it sends at once; nothing else changes it.
        with window_daemon(x, os.path.join(work, 'taps'), fps=60, PHONE_SIM_SCREEN='phone',
                           PHONE_SIM_REPEAT_MS='0') as (rig, bus, (ox, oy), hz):
            time.sleep(1.0)  # past the phone's first burst of pictures
            events = []
            for i in range(taps):
                xtest.move(ox + PORTRAIT[0] + 60 + 5 * i, oy + 500)
                time.sleep(0.05)
                for down in (True, False):
                    events.append(xtest.button(down))
                    time.sleep(0.15)
            decode_ms = float(harness.stats(bus)['decode_ms_p50'])
        latches = [int(line.split()[0]) for line in harness.read_text(rig.framelog).splitlines()]
        # When the phone read each touch, and when it sent the picture that answers it (its own clock).
        read = [r['t_ns'] for r in map(json.loads, harness.read_text(rig.control_log).splitlines())
                if r['type'] == 'touch']
        sent = [int(t) for t in re.findall(r'^frame \d+ \d+ bytes .*sent_ns (\d+)$', harness.read_text(rig.sim_log), re.M)]
        answer = [next(t for t in sent if t > r) - r for r in read]
        next_vsync = vsync_grid(latches, 1e9 / hz)
        measured = [(next(t for t in latches if t > e) - e) / 1e6 for e in events if latches[-1] > e]
        limits = [(next_vsync(e + a + decode_ms * 1e6) - e) / 1e6 for e, a in zip(events, answer)]
        # A streaming phone (the live pattern at 60 fps), its pictures shown per second without input,
        # then under a drag storm.
        with window_daemon(x, os.path.join(work, 'storm'), fps=60) as (rig, bus, (ox, oy), hz):
            time.sleep(1.0)
            rates = []
            for storm in (False, True):
                begin = time.monotonic_ns()
                if storm:
                    xtest.move(ox + 100, oy + 100)
                    xtest.button(True)
                    i = 0
                    while time.monotonic_ns() - begin < storm_s * 1e9:
                        i += 1
                        xtest.move(ox + 100 + i % 800, oy + 100 + (i * 7) % 400)
                        time.sleep(0.001)
                    xtest.button(False)
                else:
                    time.sleep(storm_s)
                end = time.monotonic_ns()
                shown = [int(l.split()[0]) for l in harness.read_text(rig.framelog).splitlines() if l.endswith(' 1')]
                rates.append(sum(begin <= t <= end for t in shown) / ((end - begin) / 1e9))
            moves = sum(c['type'] == 'touch' and c['action'] == 2 for c in rig.controls())
        return dict(measured=measured, limits=limits, decode_ms=decode_ms, hz=hz, rates=rates, moves=moves,
                    answer_ms=percentile(answer, 0.5) / 1e6)
    finally:
        xtest.close()
        x.close()


def run_cycles(work):
    """Resident memory idle and after 1, 20 and CYCLES USB links through one daemon (a small screen
    and a slow phone, so that the cycles measure the link's life rather than decoding)."""
    with usb_daemon(work, fb='320x240', fps=5) as (_, bus, daemon, monitor):
        idle = harness.process_resources(daemon.pid)
        mem = {0: memory_mib(daemon.pid)}
        for cycle in range(1, CYCLES + 1):
            link(bus, monitor, 3, 4)
            link(bus, monitor, 7, 8)
            harness.wait_until(lambda: not harness.descendants(daemon.pid), 20, 'children of cycle %d' % cycle)
            if cycle in (1, 20, CYCLES):
                # Once the event loop has deleted the joined threads' objects, or after 10 s.
                harness.wait_until(lambda: harness.process_resources(daemon.pid)[:2] == idle[:2], 10)
                mem[cycle] = memory_mib(daemon.pid)
    return mem


def main():
    for name in ('orvaned', 'fake-adb', 'phone-sim', 'orvanectl'):
        if not os.access(harness.binary(name), os.X_OK):
            sys.exit('system_bench: %s not built in %s' % (name, harness.BIN_DIR))
    tmp = harness.TempDir('orvane-bench-')
    ratios = []
    try:
        rows = []
        for size, touches in (((1280, 720), 1000), ((1080, 1920), 0)):
            name = '%dx%d' % size
            clip = os.path.join(tmp.path, 'clip-%s.h264' % name)
            decode_ms, decode_cpu_ms = clip_and_decode(clip, size, 10 * PHONE_FPS)
            r = run_link(clip, size, os.path.join(tmp.path, name), decode_ms, touches)
            shipped = cpu_as_shipped(clip, size, os.path.join(tmp.path, name + '-shipped'), decode_cpu_ms, RUNS)
            rows.append(dict(r, name=name, decode_ms=decode_ms, decode_cpu_ms=decode_cpu_ms, shipped=shipped))
        cycles = run_cycles(os.path.join(tmp.path, 'cycles'))
        window = run_window(os.path.join(tmp.path, 'window'))

        print('frame latency: phone-sim send -> picture latched (%d fps phone, %d Hz vsync), and its limit:' % (
            PHONE_FPS, HZ))
        print('the same frames decoded in the decoder alone\'s time, then shown at the next vsync (ms)')
        print('%-10s %5s %5s %7s %6s %7s %7s %7s %7s %7s %7s %7s' % (
            'size', 'sent', 'shown', 'vsync', 'wait', 'decode', 'p50', 'limit', 'ratio', 'p99', 'limit', 'ratio'))
        for r in rows:
            figures = []
            for q in (0.5, 0.99):
                measured, limit = percentile(r['latency'], q), percentile(r['limit'], q)
                figures += [measured, limit, limit / measured]
                ratios.append(('latency_p%d_vs_limit_%s' % (q * 100, r['name']), limit / measured))
            print('%-10s %5d %5d %7.2f %6.2f %7.2f %7.2f %7.2f %7.2f %7.2f %7.2f %7.2f' % (
                (r['name'], r['sent'], r['shown'], r['period_ms'], r['wait'], r['decode_ms']) + tuple(figures)))
        print('(sent/shown in the measuring window; vsync: the period measured from the latches; wait: the\n'
              ' mean wait of the limit for the next vsync, in periods; decode: per frame, in process)')
        print()
        print('CPU per shown picture (daemon process, user+system), as the daemon ships: median of %d runs '
              '(lowest - highest)' % RUNS)
        print('%-10s %22s %22s %22s' % ('size', 'CPU ms/pic', 'decode CPU ms', 'ratio'))
        for r in rows:
            cpu, limit, ratio = (median_spread(v) for v in zip(*[(c, l, l / c) for c, l in r['shipped']]))
            print('%-10s %22s %22s %22s' % ((r['name'],) + tuple('%.2f (%.2f - %.2f)' % m for m in (cpu, limit, ratio))))
            ratios.append(('cpu_per_picture_vs_decode_' + r['name'], ratio[0]))
        print('with the picture log the latency needs (one line written and flushed per picture), one run:')
        for r in rows:
            limit = r['decode_cpu_ms'] * r['sent'] / max(1, r['shown'])
            print('%-10s %22.2f %22.2f %22.2f' % (r['name'], r['cpu_ms'], limit, limit / r['cpu_ms']))
        print('(decode CPU ms: the decoder alone at the phone\'s pace, per frame, times the frames decoded per\n'
              ' shown picture; back to back it takes %.2f / %.2f ms, but a decoder waiting for the next frame\n'
              ' starts it from colder caches)' % tuple(r['decode_ms'] for r in rows))
        print()
        print('resident memory, MiB: anonymous + other shared (memfd areas) + file-backed (libraries)')
        memory = [('idle', cycles[0])] + [('streaming ' + r['name'], r['mem_stream']) for r in rows]
        memory += [('after %d USB links' % n, m) for n, m in sorted(cycles.items()) if n]
        for label, m in memory:
            print('%-28s %7.1f + %5.1f + %5.1f = %7.1f' % ((label,) + m + (sum(m),)))
        ratios.append(('rss_%d_links_vs_first_link' % CYCLES, sum(cycles[1]) / sum(cycles[CYCLES])))
        print()
        print('touch, %d runs of %d calls each, in turns: p50 / p99 ms, medians of the runs (lowest - highest)'
              % (RUNS, len(rows[0]['touch'][0])))
        per_run = [([p for p, _ in run], [t for _, t in run]) for run in rows[0]['touch']]
        for label, which in (('D-Bus Peer.Ping round trip (baseline)', 0), ('requestTouchAction: reply + phone read', 1)):
            print('%-40s %s / %s' % ((label,) + tuple('%.3f (%.3f - %.3f)' % median_spread(
                [percentile(run[which], q) for run in per_run]) for q in (0.5, 0.99))))
        p99 = median_spread([percentile(pings, 0.99) / percentile(touches, 0.99) for pings, touches in per_run])
        print('p99 ratio: %.2f (%.2f - %.2f)' % p99)
        ratios.append(('touch_p99_vs_dbus_ping', p99[0]))
        print()
        w = window
        print('window on Xvfb (%d Hz): input round trip, X pointer event -> the phone\'s answering picture latched' %
              w['hz'])
        print('(%d presses and releases; limit: the phone\'s own answer (median %.2f ms) + decode (%.2f ms, the\n'
              ' daemon\'s median) + the next vsync of the window), ms' % (len(w['measured']), w['answer_ms'],
                                                                      w['decode_ms']))
        for q in (0.5, 0.99):
            measured, limit = percentile(w['measured'], q), percentile(w['limits'], q)
            print('p%-3d measured %7.2f   limit %7.2f   ratio %5.2f' % (q * 100, measured, limit, limit / measured))
            ratios.append(('input_round_trip_p%d_vs_limit' % (q * 100), limit / measured))
        print('pictures shown per second, streaming phone at 60 fps: %.1f without input, %.1f during a drag storm '
              '(%d moves reached the phone)' % (w['rates'][0], w['rates'][1], w['moves']))
        ratios.append(('pictures_per_s_drag_storm_vs_none', w['rates'][1] / w['rates'][0]))
        print()
        for name, value in ratios:
            print('ratio %s %.3f' % (name, value))
    finally:
        tmp.close()


if __name__ == '__main__':
    main()
