#!/usr/bin/python3
"""Starts cameras on the loopback interface, reads them and compares; scripts/test-cameras.sh calls it.

usage: run.py --reader PROGRAM --clips DIR --work DIR [--gate] [--only WORDS] [--jobs N]
       run.py --reader PROGRAM --clips DIR --work DIR --endure MINUTES [--kill-every SECONDS]

--gate leaves out servers that the gate does not install, and cases that take longer than 20 s. --only
runs the cases whose line contains all these words. The exit status is 1 if a case fails. The cases of a
server that is not installed are skipped, with a line that says so.
"""
import argparse
import concurrent.futures
import json
import os
import shutil
import signal
import socket
import subprocess
import sys
import threading
import time

HERE = os.path.dirname(os.path.abspath(__file__))
PEERS = os.path.join(HERE, '..', '..', 'tests', 'testing')
OWN, GSTREAMER, NODE, VLC = 'own peer', 'GStreamer', 'rtsp-streaming-server', 'VLC'
LOGIN = 'operator:secret@'
CANCEL = OVER = 200  # ms until a cancelled call has returned; and beyond a limit of SetTimeLimit()

missing = {}  # server -> why it is not there


class Missing(Exception):
    pass


class Process:
    """A child that ends with this object; its first line of output is `line`."""

    def __init__(self, command, **options):
        self.child = subprocess.Popen(command, stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                      stderr=subprocess.DEVNULL, start_new_session=True, **options)
        self.line = ''

    def read_line(self):
        self.line = self.child.stdout.readline().decode().strip()
        return self.line

    def kill(self):
        if self.child.poll() is None:
            os.killpg(self.child.pid, signal.SIGKILL)
        self.child.wait()
        self.child.stdin.close()
        self.child.stdout.close()


def free_port():
    with socket.create_server(('127.0.0.1', 0)) as probe:
        return probe.getsockname()[1]


def wait_for_port(port, seconds=15):
    end = time.monotonic() + seconds
    while time.monotonic() < end:
        try:
            socket.create_connection(('127.0.0.1', port), 1).close()
            return
        except OSError:
            time.sleep(0.05)
    raise RuntimeError('nothing listens on port %d' % port)


class Server:
    """One camera. `start` again after `kill` serves at the same port."""

    def __init__(self, context, kind, clip, options, relayed=False):
        self.context, self.kind, self.clip, self.options = context, kind, clip, options
        self.relayed = relayed
        self.port = self.publish_port = 0
        self.processes = []

    def start(self):
        {OWN: self.start_own, GSTREAMER: self.start_gstreamer, NODE: self.start_node,
         VLC: self.start_vlc}[self.kind]()
        if self.relayed and not self.via:
            self.relay = Process([os.path.join(HERE, 'relay.py'), str(self.port)])
            self.via = int(self.relay.read_line())

    relay, via = None, 0

    def add(self, command, **options):
        self.processes.append(Process(command, **options))
        return self.processes[-1]

    def start_own(self):
        command = [os.path.join(PEERS, 'rtsp_camera.py'), self.context.raw(self.clip),
                   '--port', str(self.port)]
        self.port = int(self.add(command + self.options).read_line())

    def start_gstreamer(self):
        command = [os.path.join(HERE, 'gstreamer.py'), self.context.movie(self.clip),
                   '--port', str(self.port)]
        process = self.add(command + self.options)
        if not process.read_line():
            raise Missing('python3-gi or gir1.2-gst-rtsp-server-1.0 is not installed')
        self.port = int(process.line)

    def start_node(self):
        folder = os.path.join(self.context.work, 'npm')
        if not os.path.exists(os.path.join(folder, 'node_modules', 'rtsp-streaming-server')):
            raise Missing('the npm package rtsp-streaming-server is not installed')
        self.port, self.publish_port = self.port or free_port(), self.publish_port or free_port()
        self.add(['node', os.path.join(HERE, 'node_server.js'), str(self.publish_port), str(self.port)], cwd=folder)
        wait_for_port(self.publish_port)
        wait_for_port(self.port)
        self.add(['ffmpeg', '-nostdin', '-v', 'error', '-re', '-i', self.context.movie(self.clip), '-c', 'copy',
                  '-f', 'rtsp', 'rtsp://127.0.0.1:%d/cam' % self.publish_port])
        time.sleep(2)  # until it has announced the stream

    def start_vlc(self):
        if not shutil.which('cvlc'):
            raise Missing('vlc-bin or vlc-plugin-base is not installed')
        self.port = self.port or free_port()
        user = {'user': 'nobody'} if os.getuid() == 0 else {}  # it does not run as root
        self.add(['cvlc', '-q', '--no-sout-audio', self.context.movie(self.clip), '--sout',
                  '#rtp{sdp=rtsp://127.0.0.1:%d/cam}' % self.port], env=dict(os.environ, HOME='/tmp'), **user)
        wait_for_port(self.port)
        time.sleep(1)

    def url(self):
        login = LOGIN if '--auth' in self.options else ''
        return 'rtsp://%s127.0.0.1:%d/cam' % (login, self.via or self.port)

    def kill(self):
        while self.processes:
            self.processes.pop().kill()

    def end(self):
        self.kill()
        if self.relay:
            self.relay.kill()


class Context:
    def __init__(self, args):
        self.reader, self.clips, self.work = (os.path.abspath(path) for path in (args.reader, args.clips, args.work))
        os.makedirs(self.work, exist_ok=True)
        self.making = threading.Lock()

    def raw(self, clip):
        if clip == 'long_gop.h264':
            return self.made(clip, ['-f', 'lavfi', '-i', 'testsrc2=size=320x240:rate=25', '-frames:v', '250', '-c:v',
                                    'libx264', '-preset', 'veryfast', '-g', '250', '-keyint_min', '250',
                                    '-sc_threshold', '0', '-bf', '0'])
        return os.path.join(self.clips, clip)

    def movie(self, clip):
        """The clip over and over for ten minutes, with times, for servers that keep its pace."""
        name = clip.split('.')[0]
        return self.made(name + '.mkv', ['-stream_loop', '-1', '-i', os.path.join(self.clips, name + '.mp4'),
                                         '-c', 'copy', '-t', '600'])

    def made(self, name, options):
        path = os.path.join(self.work, name)
        with self.making:
            if not os.path.exists(path):
                partial = os.path.join(self.work, 'new-%d-%s' % (os.getpid(), name))
                subprocess.run(['ffmpeg', '-nostdin', '-v', 'error', '-y'] + options + [partial], check=True)
                os.rename(partial, path)
        return path


class Case:
    """One line of the table.

    late, first_late  ms that a call may take beyond its bound, and the first packet beyond 1.05 of the bare
             loop's time: the machine does other things too

    seconds  what it takes about; three times that, and 20 s, end it
    time_outs  silences of 3 s
    call     ms that the longest call may take: the longest time between two pictures
    expect   'all': every picture; 'transport': a refusal by that name; 'restart': as 'all', read by
             ReconnectingDemuxer, with the server killed after 3 s and back 1.5 s later
    """

    late, first_late = 100, 0

    def __init__(self, server, name, clip='left.h264', options='', pictures=80, rate=25, call=40, limit=0,
                 cancel=0, open_limit=0, seconds=5, expect='all', relayed=False, loose=None,
                 time_outs=0):
        self.server, self.name, self.clip, self.options = server, name, clip, options.split()
        self.pictures, self.rate, self.call = pictures, rate, call
        self.time_outs = time_outs
        self.limit, self.open_limit, self.cancel = limit, open_limit, cancel
        self.seconds, self.expect, self.relayed = seconds, expect, relayed
        self.loose = server != OWN or '--described' in self.options if loose is None else loose

    def title(self):
        extra = [' limit %d ms' % self.limit] if self.limit else []
        extra += [' limit %d ms while opening' % self.open_limit] if self.open_limit else []
        extra += [' cancel and clear'] if self.cancel else []
        return self.name + ''.join(',' + word for word in extra)

    def run(self, context):
        server = Server(context, self.server, self.clip, self.options, self.relayed)
        try:
            server.start()
            return self.read(context, server)
        except Missing as reason:
            missing[self.server] = str(reason)
            return None
        finally:
            server.end()

    def read(self, context, server):
        bound = 3 * self.seconds + 20
        who = {'restart': 'reconnecting', 'transport': 'library'}.get(self.expect, 'both')
        command = [context.reader, 'read', who, server.url(), context.raw(self.clip), '--pictures', str(self.pictures),
                   '--rate', str(self.rate), '--seconds', str(bound), '--limit', str(self.limit),
                   '--open-limit', str(self.open_limit), '--cancel-every', str(self.cancel)] + (['--loose'] if self.loose else [])
        child = subprocess.Popen(command, stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        try:
            if self.expect == 'restart':
                time.sleep(3)
                server.kill()
                time.sleep(1.5)
                server.start()
            output, errors = child.communicate(timeout=bound + 20)
        finally:
            child.kill()
            child.wait()
        if child.returncode != 0:  # a sanitizer has something to say
            raise RuntimeError('%s: status %d\n%s' % (self.title(), child.returncode, errors.decode()))
        results = {line['who']: line for line in map(json.loads, output.decode().splitlines())}
        return results.get('library') or results.get('reconnecting'), results.get('bare')

    def wrong(self, read, bare):
        """What is not as it should be, in words, but for what came late."""
        if self.expect == 'transport':
            return [] if read['fault'] == 'unsupported transport' else ['named "%s"' % read['fault']]
        found = ['%s %d' % (word.replace('_', ' '), read[word])
                 for word in ('different', 'missing', 'wrong_keys', 'wrong_faults') if read[word]]
        if read['packets'] != self.pictures:
            found.append('not all packets')
        if read['gaps'] != (1 if self.expect == 'restart' else 0):
            found.append('%d gaps' % read['gaps'])
        # FFmpeg gives none to the first picture of a connection and to the first after a time-out.
        if read['without_time'] > 1 + read['gaps'] + self.time_outs:
            found.append('%d without a time' % read['without_time'])
        if self.server == OWN and read['worst_time_ms'] > 1:
            found.append('times off by %.0f ms' % read['worst_time_ms'])
        if bare and read['packets'] < bare['packets']:
            found.append('fewer than the bare loop')
        return found

    def late_things(self, read, bare):
        found = []
        if self.expect in ('restart', 'transport'):
            return found
        if read['longest_ms'] > self.call_bound(bare) + self.late:
            found.append('a call of %.0f ms' % read['longest_ms'])
        if self.cancel and (not read['cancels'] or read['cancel_ms'] > CANCEL + self.late):
            found.append('a cancel of %.0f ms' % read['cancel_ms'])
        if bare and read['first_ms'] > 1.05 * bare['first_ms'] + self.first_late:
            found.append('first packet late')
        return found

    def call_bound(self, bare):
        longest = max(self.call, bare['longest_ms'])  # pictures may have come late
        return min(longest, self.limit + OVER) if self.limit else longest


def all_cases():
    cases = []

    def add(*args, **more):
        cases.append(Case(*args, **more))
    add(OWN, 'H.264, sets in band', options='--undescribed')
    add(OWN, 'H.264, sets only described', options='--described')
    add(OWN, 'H.264 with audio', options='--audio')
    add(OWN, 'H.264 with sender reports', options='--audio --reports')
    add(OWN, 'H.265, sets in band', clip='hevc.h265', options='--undescribed')
    add(OWN, 'H.265, sets only described', clip='hevc.h265', options='--described')
    add(OWN, 'H.265 with audio', clip='hevc.h265', options='--audio')
    add(OWN, 'basic authentication', options='--auth basic')
    add(OWN, 'digest authentication', options='--auth digest')
    add(OWN, '1 picture a second', options='--fps 1', rate=1, pictures=45, call=1000, seconds=45)
    add(OWN, '1 picture a second', options='--fps 1', rate=1, pictures=35, call=1000, seconds=35, limit=150)
    add(OWN, '2 pictures a second', options='--fps 2', rate=2, pictures=40, call=500, seconds=20)
    add(OWN, '4 pictures a second', options='--fps 4', rate=4, pictures=60, call=250, seconds=15)
    add(OWN, '4 pictures a second', options='--fps 4', rate=4, pictures=60, call=250, seconds=15, limit=20)
    add(OWN, '4 pictures a second', options='--fps 4', rate=4, pictures=60, call=250, seconds=15, cancel=700)
    add(OWN, 'key picture every 10 s', clip='long_gop.h264', options='--start 100', pictures=200, seconds=8)
    for pause, name in ((3, '3 s'), (11, '11 s')):
        for audio in ('', '--audio'):
            add(OWN, 'video pauses for %s%s' % (name, ', audio continues' if audio else ''),
                options='--pause 60:%d %s' % (pause, audio), call=pause * 1000 + 40, seconds=4 + pause,
                time_outs=0 if audio else 1)
    add(OWN, 'video pauses for 3 s, audio continues', options='--pause 60:3 --audio', call=3040, seconds=7, limit=600)
    add(OWN, 'link of 60 kB/s', options='--bandwidth 60000', pictures=250, call=500, seconds=10)
    add(OWN, 'link of 4 kB/s', options='--bandwidth 4000', pictures=60, call=6000, seconds=45)
    for limit in (20, 150, 600):
        add(OWN, '25 pictures a second', limit=limit)
        add(OWN, 'link of 60 kB/s', options='--bandwidth 60000', pictures=250, call=500, seconds=10, limit=limit)
        add(OWN, 'link of 4 kB/s', options='--bandwidth 4000', pictures=40, call=6000, seconds=35, limit=limit)
    add(OWN, '25 pictures a second', cancel=60, pictures=150, seconds=7)
    add(OWN, 'link of 60 kB/s', options='--bandwidth 60000', pictures=250, call=500, seconds=10, cancel=300)
    add(OWN, '5 pictures a second', options='--fps 5', rate=5, pictures=40, call=200, seconds=8, open_limit=600)
    add(OWN, 'stalls for 2 s within a packet', options='--stall 40:2', call=2040, seconds=7, limit=150)
    add(OWN, 'killed and started again', expect='restart', pictures=200, seconds=12)
    add(GSTREAMER, 'H.264')
    add(GSTREAMER, 'H.264, sets only described', options='--described')
    add(GSTREAMER, 'H.264 with audio', options='--audio')
    add(GSTREAMER, 'H.265', clip='hevc.h265', call=180)
    add(GSTREAMER, 'H.265 with audio', clip='hevc.h265', options='--audio', call=180)
    add(GSTREAMER, 'basic authentication', options='--auth basic')
    add(GSTREAMER, 'digest authentication', options='--auth digest')
    for limit in (20, 150, 600):
        add(GSTREAMER, 'H.264', limit=limit)
    add(GSTREAMER, 'H.264', cancel=300, pictures=150, seconds=7)
    add(GSTREAMER, 'killed and started again', expect='restart', pictures=200, seconds=12)
    for server in (NODE, VLC):
        add(server, 'TCP is refused with status 461', expect='transport')
        add(server, 'H.264 through a relay', relayed=True, seconds=8)
        add(server, 'H.264 through a relay', relayed=True, seconds=8, limit=20)
        add(server, 'H.264 through a relay', relayed=True, seconds=8, cancel=300)
    add(NODE, 'H.265 through a relay', clip='hevc.h265', relayed=True, seconds=8)
    add(NODE, 'killed and started again, relay', expect='restart', relayed=True, pictures=200, seconds=12)
    return cases


ROW = '%-22s %-55s %8s %6s %7s %8s %8s | %6s %8s | %6s  %s'
HEAD = ('server', 'case', 'expected', 'read', 'differ', 'longest', 'first', 'bare', 'longest', 'first', '')


def row_of(case, read, bare, faults):
    verdict = '; '.join(faults) or 'ok'
    if case.expect == 'transport':
        return ROW % ((case.server, case.title()) + ('-',) * 8 + (verdict + ': ' + read['fault'],))
    ratio = '%.3f' % (read['first_ms'] / bare['first_ms']) if bare and bare['first_ms'] else '-'
    return ROW % (case.server, case.title(), case.pictures, read['packets'], read['different'] + read['missing'],
                  '%.0f ms' % read['longest_ms'], '%.0f ms' % read['first_ms'], bare['packets'] if bare else '-',
                  '%.0f ms' % bare['longest_ms'] if bare else '-', ratio, verdict)


def run_table(context, cases, jobs):
    print(ROW % HEAD, flush=True)
    bad = ran = 0
    ratios, again = [], []
    with concurrent.futures.ThreadPoolExecutor(jobs) as pool:
        # The longest begin, and the others fill the time.
        futures = {case: pool.submit(case.run, context) for case in sorted(cases, key=lambda case: -case.seconds)}
        for case in cases:
            result = futures[case].result()
            if result is None:
                continue
            wrong, late = case.wrong(*result), case.late_things(*result)
            print(row_of(case, *result, wrong + late), flush=True)
            ran += 1
            bad += bool(wrong)
            if late and not wrong:
                again.append(case)
            if result[1] and result[1]['first_ms']:
                ratios.append(result[0]['first_ms'] / result[1]['first_ms'])
    if again:
        print('once more, one after the other:')
    for case in again:
        result = case.run(context)
        faults = case.wrong(*result) + case.late_things(*result)
        print(row_of(case, *result, faults), flush=True)
        bad += bool(faults)
    for server, reason in missing.items():
        print('SKIPPED: the cases of %s: %s' % (server, reason))
    ratios.sort()
    print('%d cases, %d of them wrong; time to the first packet against the bare loop: median %.3f, most %.3f' % (
        ran, bad, ratios[len(ratios) // 2] if ratios else 0, ratios[-1] if ratios else 0))
    return bad == 0 and ran > 0


def endure(context, minutes, kill_every):
    """Two cameras, killed at the same time and back after 3 s."""
    servers = [Server(context, OWN, 'left.h264', ['--audio']), Server(context, GSTREAMER, 'left.h264', [])]
    for server in servers:
        server.start()
    reader = subprocess.Popen([context.reader, 'endure', str(minutes), context.raw('left.h264'), '25',
                               servers[0].url(), '--loose', servers[1].url()])
    end = time.monotonic() + 60 * minutes
    try:
        while time.monotonic() + kill_every < end:
            time.sleep(kill_every)
            for server in servers:
                server.kill()
            time.sleep(3)
            for server in servers:
                server.start()
        return reader.wait(timeout=kill_every + 60) == 0
    finally:
        reader.kill()
        reader.wait()
        for server in servers:
            server.end()


def main():
    parser = argparse.ArgumentParser()
    for name in ('--reader', '--clips', '--work'):
        parser.add_argument(name, required=True)
    parser.add_argument('--gate', action='store_true')
    parser.add_argument('--only', default='')
    parser.add_argument('--jobs', type=int, default=12)
    parser.add_argument('--endure', type=int, default=0, metavar='MINUTES')
    parser.add_argument('--kill-every', type=float, default=300, metavar='SECONDS')
    args = parser.parse_args()
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(1))
    context = Context(args)
    if args.endure:
        sys.exit(0 if endure(context, args.endure, args.kill_every) else 1)
    cases = [case for case in all_cases()
             if all(word in case.server + ' ' + case.title() for word in args.only.split())]
    if args.gate:
        Case.late = Case.first_late = 1000
        cases = [case for case in cases if case.server in (OWN, GSTREAMER) and case.seconds <= 20]
    sys.exit(0 if run_table(context, cases, args.jobs) else 1)


main()
