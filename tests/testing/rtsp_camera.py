#!/usr/bin/python3
"""An RTSP camera on the loopback interface that sends a raw H.264 or H.265 file at a chosen pace.

Every client gets the file from the start, over and over, through its control connection. Picture n
has the presentation time n / FPS. Prints the port once it listens; ends with its standard input.

With --fault STAGE:ACTION it misbehaves instead of answering a request.
STAGE:  accept options describe setup play, or stream (after PLAY was answered)
ACTION: silent     says nothing and keeps the connection
        close      closes the connection
        error      answers 404
        refused    answers 461: another transport, please
        trickle    sends a byte of an answer every half second
        garbage    sends pseudo-random bytes without end, and without the end of a line: a blank one
                   would end an answer sooner or later, depending on how fast the bytes are read
        huge       announces a body of 2 GB and sends it slowly
        badsdp     answers with a session description that is none, and continues
"""
import argparse
import base64
import collections
import contextlib
import hashlib
import itertools
import os
import pathlib
import random
import re
import socket
import struct
import sys
import threading
import time

MTU = 1400
NTP_EPOCH = 2208988800  # seconds from 1900 to 1970
FIRST_TICK = 2**32 - 90000  # the ticks wrap around after a second


def moment(text):
    return [float(part) for part in text.split(':')]


def parse_arguments():
    parser = argparse.ArgumentParser(description=__doc__)
    add = parser.add_argument
    add('file')
    add('--port', type=int, default=0)
    add('--fps', type=float, default=25)
    add('--start', type=int, default=0, help='picture of the file to begin with')
    add('--audio', action='store_true', help='a packet of silence every 20 ms, as stream 0')
    add('--described', action='store_true', help='parameter sets stand in the session description alone')
    add('--undescribed', action='store_true', help='parameter sets stand in band alone')
    add('--pause', type=moment, default='-1:0', help='N:SECONDS, before picture N')
    add('--stall', type=moment, default='-1:0', help='N:SECONDS, in the middle of the last packet of picture N')
    add('--bandwidth', type=int, default=0, help='bytes a second, in pieces of 100')
    add('--auth', choices=('basic', 'digest'), help='for the user operator with the password secret')
    add('--single', action='store_true', help='serves one client at a time; others wait')
    add('--close-after', type=int, help='closes the connection after that many pictures')
    add('--stop-after', type=int, help='sends no picture after that many')
    add('--reports', action='store_true', help='sender reports with the wall clock')
    add('--fault', default=':', help='STAGE:ACTION')
    return parser.parse_args()


def md5(text):
    return hashlib.md5(text.encode()).hexdigest()


class Clip:
    """The pictures of a raw file, each a list of NAL units, and what describes them."""

    def __init__(self, path):
        units = [unit.rstrip(b'\0') for unit in pathlib.Path(path).read_bytes().split(b'\0\0\1')]
        units = [unit for unit in units if unit]
        self.h264 = any(unit[0] & 31 == 7 for unit in units[:4])
        self.sets, self.pictures = [], [[]]
        for unit in units:
            if self.is_set(unit) and unit not in self.sets:
                self.sets.append(unit)
            if any(map(self.is_slice, self.pictures[-1])) and self.begins_picture(unit):
                self.pictures.append([])
            self.pictures[-1].append(unit)

    def type_of(self, unit):
        return unit[0] & 31 if self.h264 else unit[0] >> 1 & 63

    def is_set(self, unit):
        return self.type_of(unit) in ((7, 8) if self.h264 else (32, 33, 34))

    def is_slice(self, unit):
        return 1 <= self.type_of(unit) <= 5 if self.h264 else self.type_of(unit) < 32

    def begins_picture(self, unit):
        if self.is_slice(unit):  # first_mb_in_slice is 0; first_slice_segment_in_pic_flag is 1
            return unit[1 if self.h264 else 2] & 0x80 != 0
        return self.type_of(unit) in ((6, 7, 8, 9) if self.h264 else (32, 33, 34, 35, 39))

    def description(self, args):
        kinds = {32: 'sprop-vps=', 33: 'sprop-sps=', 34: 'sprop-pps='}
        coded = [kinds.get(self.type_of(unit), '') + base64.b64encode(unit).decode() for unit in self.sets]
        parameters = 'sprop-parameter-sets=' + ','.join(coded) if self.h264 else ';'.join(coded)
        lines = ['v=0', 'o=- 1 1 IN IP4 127.0.0.1', 's=camera', 'c=IN IP4 0.0.0.0', 't=0 0', 'a=control:*']
        if args.audio:
            lines += ['m=audio 0 RTP/AVP 0', 'a=control:audio']
        lines += ['m=video 0 RTP/AVP 96', 'a=rtpmap:96 %s/90000' % ('H264' if self.h264 else 'H265'),
                  'a=fmtp:96 packetization-mode=1;' + ('' if args.undescribed else parameters), 'a=control:video', '']
        return '\r\n'.join(lines)

    def payloads(self, unit):
        """The RTP payloads of one NAL unit: itself, or fragments (RFC 6184, 5.8; RFC 7798, 4.4.3)."""
        head = bytes([unit[0] & 0xE0 | 28]) if self.h264 else bytes([unit[0] & 0x81 | 49 << 1, unit[1]])
        if len(unit) - len(head) <= MTU:  # a single fragment would be first and last at once
            return [unit]
        parts = [unit[i:i + MTU] for i in range(len(head), len(unit), MTU)]
        ends = {0: 0x80, len(parts) - 1: 0x40}
        return [head + bytes([ends.get(i, 0) | self.type_of(unit)]) + part for i, part in enumerate(parts)]


class Client:
    """One connection: answers requests, and sends the media once PLAY has come."""

    def __init__(self, peer, clip, args):
        self.peer, self.clip, self.args = peer, clip, args
        self.sending = threading.Lock()
        self.done = threading.Event()
        self.video = 2 if args.audio else 0  # channel of the pictures
        self.sequence = collections.Counter()
        self.stalls = False
        self.fault_stage, self.fault = args.fault.split(':')

    def send(self, data):
        with self.sending:
            if self.stalls:
                self.peer.sendall(data[:len(data) // 2])
                data = data[len(data) // 2:]
                time.sleep(self.args.stall[1])
            if not self.args.bandwidth:
                return self.peer.sendall(data)
            for i in range(0, len(data), 100):
                self.peer.sendall(data[i:i + 100])
                time.sleep(min(100, len(data) - i) / self.args.bandwidth)

    def send_interleaved(self, channel, data):
        self.send(b'$' + bytes([channel]) + struct.pack('>H', len(data)) + data)

    def send_rtp(self, channel, kind, ticks, payload):
        self.sequence[channel] += 1
        self.send_interleaved(channel, struct.pack('>BBHII', 0x80, kind, self.sequence[channel] & 0xFFFF,
                                                   ticks & 0xFFFFFFFF, 1 + channel) + payload)

    def send_picture(self, number):
        ticks = FIRST_TICK + round(number * 90000 / self.args.fps)
        if self.args.reports and number % round(5 * self.args.fps) == 0:
            now = time.time() + NTP_EPOCH
            self.send_interleaved(self.video + 1, struct.pack(
                '>BBHIIIIII', 0x80, 200, 6, 1 + self.video, int(now), int(now % 1 * 2**32), ticks & 0xFFFFFFFF, 0, 0))
        units = self.clip.pictures[(self.args.start + number) % len(self.clip.pictures)]
        payloads = [payload for unit in units for payload in self.clip.payloads(unit)
                    if not (self.args.described and self.clip.is_set(unit))]
        for i, payload in enumerate(payloads):
            self.stalls = number == self.args.stall[0] and i + 1 == len(payloads)
            self.send_rtp(self.video, 96 | (0x80 if i + 1 == len(payloads) else 0), ticks, payload)

    def play_video(self):
        begin = time.monotonic()
        for number in itertools.count():
            if number == self.args.pause[0]:
                begin += self.args.pause[1]
            due = begin + number / self.args.fps
            if self.done.wait(max(0, due - time.monotonic())) or number == self.args.stop_after:
                return
            if number == self.args.close_after:
                return self.peer.shutdown(socket.SHUT_RDWR)
            self.send_picture(number)

    def play_audio(self):
        for number in itertools.count():
            if self.done.wait(0.02):
                return
            self.send_rtp(0, 0, number * 160, b'\xFF' * 160)

    def start(self, play):
        def run():
            try:
                play()
            except OSError:
                self.done.set()
        threading.Thread(target=run, daemon=True).start()

    def authorised(self, method, headers):
        given = headers.get('authorization', '')
        if self.args.auth == 'basic':
            return given == 'Basic ' + base64.b64encode(b'operator:secret').decode()
        if self.args.auth == 'digest':
            uri = re.search(r'uri="([^"]*)"|$', given)[1]
            user, call = md5('operator:camera:secret'), md5('%s:%s' % (method, uri))
            return 'response="%s"' % md5('%s:5ca1ab1e:%s' % (user, call)) in given
        return True

    def misbehave(self, cseq):
        head = ['RTSP/1.0 200 OK', 'CSeq: ' + cseq]
        if self.fault == 'close':
            raise OSError
        if self.fault == 'trickle':
            self.send_slowly('\r\n'.join(head + ['Session: 1', '', '']).encode())
        if self.fault == 'huge':
            self.send('\r\n'.join(head + ['Content-Length: 2147483647', '', '']).encode())
            self.send_slowly(bytes(100))
        noise = random.Random(1)
        while self.fault == 'garbage':
            self.send(bytes(noise.getrandbits(8) for _ in range(4096)).replace(b'\n', b''))
        time.sleep(60)

    def send_slowly(self, data):
        for i in range(len(data)):
            self.send(data[i:i + 1])
            time.sleep(0.5)

    def answer(self, request):
        lines = request.decode(errors='replace').split('\r\n')
        method = lines[0].split(' ')[0]
        headers = {key.strip().lower(): value.strip() for key, _, value in
                   (line.partition(':') for line in lines[1:])}
        status, extra, body = '200 OK', ['Session: 1;timeout=60'], ''
        fault = self.fault if method.lower() == self.fault_stage else ''
        if fault and fault not in ('error', 'refused', 'badsdp'):
            return self.misbehave(headers['cseq'])
        if fault in ('error', 'refused'):
            status = '404 Not Found' if fault == 'error' else '461 Unsupported Transport'
        elif not self.authorised(method, headers):
            status = '401 Unauthorized'
            extra = ['WWW-Authenticate: %s realm="camera", nonce="5ca1ab1e"' % self.args.auth.title()]
        elif method == 'OPTIONS':
            extra.append('Public: OPTIONS, DESCRIBE, SETUP, PLAY, GET_PARAMETER, TEARDOWN')
        elif method == 'DESCRIBE':
            body = 'no session\r\n' if fault else self.clip.description(self.args)
            extra += ['Content-Type: application/sdp', 'Content-Length: %d' % len(body)]
        elif method == 'SETUP':
            channels = re.search(r'interleaved=\d+-\d+', headers.get('transport', ''))
            status = status if channels else '461 Unsupported Transport'
            extra.append('Transport: RTP/AVP/TCP;unicast;%s' % (channels and channels[0]))
        elif method == 'TEARDOWN':
            self.done.set()
        self.send('\r\n'.join(['RTSP/1.0 ' + status, 'CSeq: ' + headers.get('cseq', '0')] + extra +
                              ['', body]).encode())
        if method == 'PLAY' and status == '200 OK':
            if self.fault_stage == 'stream':
                return self.misbehave('1')
            self.start(self.play_video)
            if self.args.audio:
                self.start(self.play_audio)

    def converse(self, received):
        """Answers until the client goes. What it sends of its own media is passed over."""
        if self.fault_stage == 'accept':
            self.misbehave('1')
        request = b''
        while not self.done.is_set():
            start = received.read(1)
            if start == b'$':
                _, size = struct.unpack('>BH', received.read(3))
                received.read(size)
                continue
            request += start + received.readline()
            if request.endswith(b'\r\n\r\n'):
                self.answer(request)
                request = b''
            elif not start:
                return

    def run(self):
        with contextlib.suppress(OSError, struct.error), self.peer, self.peer.makefile('rb') as received:
            self.converse(received)
        self.done.set()


def main():
    args = parse_arguments()
    clip = Clip(args.file)
    listener = socket.create_server(('127.0.0.1', args.port), backlog=64)
    threading.Thread(target=lambda: (sys.stdin.read(), os._exit(0)), daemon=True).start()
    print(listener.getsockname()[1], flush=True)
    while True:
        client = Client(listener.accept()[0], clip, args)
        serving = threading.Thread(target=client.run, daemon=True)
        serving.start()
        if args.single:
            serving.join()


main()
