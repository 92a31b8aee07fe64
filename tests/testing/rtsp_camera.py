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
import hashlib
import os
import random
import re
import socket
import struct
import sys
import threading
import time

USER, PASSWORD, REALM, NONCE = 'operator', 'secret', 'camera', '5ca1ab1e'
AUDIO_INTERVAL = 0.02
MTU = 1400
NTP_EPOCH = 2208988800  # seconds from 1900 to 1970
FIRST_TICK = 2**32 - 90000  # the ticks wrap around after a second


def parse_arguments():
    parser = argparse.ArgumentParser(description=__doc__)
    add = parser.add_argument
    add('file')
    add('--port', type=int, default=0)
    add('--fps', type=float, default=25)
    add('--start', type=int, default=0, help='picture of the file to begin with')
    add('--audio', action='store_true', help='a packet of silence every 20 ms, as stream 0')
    add('--described', action='store_true',
        help='parameter sets stand in the session description alone')
    add('--undescribed', action='store_true', help='parameter sets stand in band alone')
    add('--pause', help='N:SECONDS, before picture N')
    add('--stall', help='N:SECONDS, in the middle of the last packet of picture N')
    add('--bandwidth', type=int, default=0, help='bytes a second, in pieces of 100')
    add('--auth', choices=('basic', 'digest'), help='for the user operator with the password secret')
    add('--single', action='store_true', help='serves one client at a time, and refuses others')
    add('--close-after', type=int, default=0, help='closes the connection after that many pictures')
    add('--stop-after', type=int, default=0, help='sends no picture after that many')
    add('--reports', action='store_true', help='sender reports with the wall clock')
    add('--fault', default=':', help='STAGE:ACTION')
    return parser.parse_args()


class Clip:
    """The pictures of a raw file, each a list of NAL units, and what describes them."""

    def __init__(self, path):
        with open(path, 'rb') as file:
            units = [unit.rstrip(b'\0') for unit in re.split(b'\0\0\1', file.read())]
        units = [unit for unit in units if unit]
        self.h264 = any(unit[0] & 31 == 7 for unit in units[:4])
        self.sets, self.pictures = [], [[]]
        for unit in units:
            if self.is_set(unit) and unit not in self.sets:
                self.sets.append(unit)
            if self.slice_begun() and self.begins_picture(unit):
                self.pictures.append([])
            self.pictures[-1].append(unit)

    def type_of(self, unit):
        return unit[0] & 31 if self.h264 else unit[0] >> 1 & 63

    def is_set(self, unit):
        return self.type_of(unit) in ((7, 8) if self.h264 else (32, 33, 34))

    def is_slice(self, unit):
        return 1 <= self.type_of(unit) <= 5 if self.h264 else self.type_of(unit) < 32

    def slice_begun(self):
        return any(self.is_slice(unit) for unit in self.pictures[-1])

    def begins_picture(self, unit):
        if self.is_slice(unit):  # first_mb_in_slice is 0; first_slice_segment_in_pic_flag is 1
            return unit[1 if self.h264 else 2] & 0x80 != 0
        return self.type_of(unit) in ((6, 7, 8, 9) if self.h264 else (32, 33, 34, 35, 39))

    def description(self, args):
        kinds = {7: 'sprop-sps', 8: 'sprop-pps', 32: 'sprop-vps', 33: 'sprop-sps', 34: 'sprop-pps'}
        coded = [base64.b64encode(unit).decode() for unit in self.sets]
        if self.h264:
            parameters = 'packetization-mode=1;sprop-parameter-sets=' + ','.join(coded)
        else:
            parameters = ';'.join('%s=%s' % (kinds[self.type_of(unit)], text)
                                  for unit, text in zip(self.sets, coded))
        if args.undescribed:
            parameters = 'packetization-mode=1'
        lines = ['v=0', 'o=- 1 1 IN IP4 127.0.0.1', 's=camera', 'c=IN IP4 0.0.0.0', 't=0 0', 'a=control:*']
        if args.audio:
            lines += ['m=audio 0 RTP/AVP 0', 'a=control:audio']
        lines += ['m=video 0 RTP/AVP 96', 'a=rtpmap:96 %s/90000' % ('H264' if self.h264 else 'H265'),
                  'a=fmtp:96 ' + parameters, 'a=control:video']
        return '\r\n'.join(lines) + '\r\n'

    def payloads(self, unit):
        """The RTP payloads of one NAL unit: itself, or fragments (RFC 6184, 5.8; RFC 7798, 4.4.3)."""
        if self.h264:
            head, kind, body = bytes([unit[0] & 0xE0 | 28]), unit[0] & 31, unit[1:]
        else:
            head, kind, body = bytes([unit[0] & 0x81 | 49 << 1, unit[1]]), unit[0] >> 1 & 63, unit[2:]
        if len(body) <= MTU:
            return [unit]
        parts = [body[i:i + MTU] for i in range(0, len(body), MTU)]
        ends = {0: 0x80, len(parts) - 1: 0x40}
        return [head + bytes([ends.get(i, 0) | kind]) + part for i, part in enumerate(parts)]


class Client:
    """One connection: answers requests, and sends the media once PLAY has come."""

    def __init__(self, peer, clip, args):
        self.peer, self.clip, self.args = peer, clip, args
        self.sending = threading.Lock()
        self.done = threading.Event()
        self.video = 2 if args.audio else 0  # channel of the pictures
        self.sequence = {}
        self.stall_at, self.stall = (float(part) for part in (args.stall or '-1:0').split(':'))
        self.stalls = False
        self.fault_stage, self.fault = args.fault.split(':')

    def send(self, data):
        with self.sending:
            if self.stalls:
                self.peer.sendall(data[:len(data) // 2])
                data = data[len(data) // 2:]
                time.sleep(self.stall)
            if not self.args.bandwidth:
                return self.peer.sendall(data)
            for i in range(0, len(data), 100):
                self.peer.sendall(data[i:i + 100])
                time.sleep(min(100, len(data) - i) / self.args.bandwidth)

    def send_interleaved(self, channel, data):
        self.send(b'$' + bytes([channel]) + struct.pack('>H', len(data)) + data)

    def send_rtp(self, channel, kind, ticks, payload):
        number = self.sequence[channel] = self.sequence.get(channel, 0) + 1
        self.send_interleaved(channel, struct.pack('>BBHII', 0x80, kind, number & 0xFFFF,
                                                   ticks & 0xFFFFFFFF, 1 + channel) + payload)

    def send_report(self, ticks):
        now = time.time() + NTP_EPOCH
        self.send_interleaved(self.video + 1, struct.pack(
            '>BBHIIIIII', 0x80, 200, 6, 1 + self.video, int(now), int(now % 1 * 2**32), ticks & 0xFFFFFFFF, 0, 0))

    def send_picture(self, number):
        pictures = self.clip.pictures
        ticks = FIRST_TICK + round(number * 90000 / self.args.fps)
        if self.args.reports and number % round(5 * self.args.fps) == 0:
            self.send_report(ticks)
        units = pictures[(self.args.start + number) % len(pictures)]
        if self.args.described:
            units = [unit for unit in units if not self.clip.is_set(unit)]
        payloads = [payload for unit in units for payload in self.clip.payloads(unit)]
        for i, payload in enumerate(payloads):
            self.stalls = number == self.stall_at and i + 1 == len(payloads)
            self.send_rtp(self.video, 96 | (0x80 if i + 1 == len(payloads) else 0), ticks, payload)

    def play_video(self):
        pause_at, pause = (float(part) for part in (self.args.pause or '-1:0').split(':'))
        begin = time.monotonic()
        number = 0
        while not self.done.is_set():
            if number == pause_at:
                begin += pause
            if self.done.wait(max(0, begin + number / self.args.fps - time.monotonic())):
                return
            if self.args.stop_after and number >= self.args.stop_after:
                return
            if self.args.close_after and number >= self.args.close_after:
                return self.peer.shutdown(socket.SHUT_RDWR)
            self.send_picture(number)
            number += 1

    def play_audio(self):
        number = 0
        while not self.done.wait(AUDIO_INTERVAL):
            self.send_rtp(0, 0, number * 160, b'\xFF' * 160)
            number += 1

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
            return given == 'Basic ' + base64.b64encode(('%s:%s' % (USER, PASSWORD)).encode()).decode()
        if self.args.auth == 'digest':
            uri = re.search(r'uri="([^"]*)"', given)
            ha1, ha2 = (hashlib.md5(text.encode()).hexdigest() for text in (
                '%s:%s:%s' % (USER, REALM, PASSWORD), '%s:%s' % (method, uri.group(1) if uri else '')))
            proof = hashlib.md5(('%s:%s:%s' % (ha1, NONCE, ha2)).encode()).hexdigest()
            return 'response="%s"' % proof in given
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
            scheme = {'basic': 'Basic realm="%s"' % REALM,
                      'digest': 'Digest realm="%s", nonce="%s"' % (REALM, NONCE)}[self.args.auth]
            status, extra = '401 Unauthorized', ['WWW-Authenticate: ' + scheme]
        elif method == 'OPTIONS':
            extra.append('Public: OPTIONS, DESCRIBE, SETUP, PLAY, GET_PARAMETER, TEARDOWN')
        elif method == 'DESCRIBE':
            body = 'no session\r\n' if fault else self.clip.description(self.args)
            extra += ['Content-Type: application/sdp', 'Content-Length: %d' % len(body)]
        elif method == 'SETUP':
            channels = re.search(r'interleaved=\d+-\d+', headers.get('transport', ''))
            if channels:
                extra.append('Transport: RTP/AVP/TCP;unicast;' + channels.group())
            else:
                status = '461 Unsupported Transport'
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

    def converse(self):
        """Answers until the client goes. What it sends of its own media is passed over."""
        if self.fault_stage == 'accept':
            self.misbehave('1')
        pending = b''
        while not self.done.is_set():
            data = self.peer.recv(4096)
            if not data:
                return
            pending += data
            while pending:
                if pending[:1] == b'$':
                    end = 4 + struct.unpack('>H', pending[2:4])[0] if len(pending) >= 4 else 4
                    if len(pending) < end:
                        break
                    pending = pending[end:]
                elif b'\r\n\r\n' in pending:
                    request, pending = pending.split(b'\r\n\r\n', 1)
                    self.answer(request)
                else:
                    break

    def run(self):
        try:
            self.converse()
        except OSError:
            pass
        finally:
            self.done.set()
            self.peer.close()


def main():
    args = parse_arguments()
    clip = Clip(args.file)
    listener = socket.create_server(('127.0.0.1', args.port), backlog=64)
    threading.Thread(target=lambda: (sys.stdin.read(), os._exit(0)), daemon=True).start()
    print(listener.getsockname()[1], flush=True)
    present = threading.Semaphore(1)
    while True:
        peer, _ = listener.accept()
        if args.single and not present.acquire(blocking=False):
            peer.sendall(b'RTSP/1.0 453 Not Enough Bandwidth\r\nCSeq: 1\r\n\r\n')
            peer.close()
            continue

        def serve(client=Client(peer, clip, args)):
            client.run()
            if args.single:
                present.release()
        threading.Thread(target=serve, daemon=True).start()


main()
