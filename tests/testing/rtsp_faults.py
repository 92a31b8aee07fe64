#!/usr/bin/python3
"""A scripted RTSP peer on the loopback interface: answers the requests before STAGE, and then does ACTION.

usage: rtsp_faults.py STAGE ACTION

STAGE:  accept options describe setup play stream (after PLAY was answered)
ACTION: silent     says nothing and keeps the connection
        close      closes the connection
        error      answers 404
        refused    answers 461: another transport, please
        trickle    sends a byte of an answer every half second
        garbage    sends pseudo-random bytes without end, and without the end of a line: a blank one
                   would end an answer sooner or later, depending on how fast the bytes are read
        huge       announces a body of 2 GB and sends it slowly
        badsdp     answers with a session description that is none, and goes on
Prints the port once it listens. Ends with its standard input.
"""
import os
import random
import socket
import sys
import threading
import time

# Parameter sets of a 320x240 picture, so that a client knows the stream before any packet.
SDP = ('v=0\r\no=- 1 1 IN IP4 127.0.0.1\r\ns=peer\r\nc=IN IP4 0.0.0.0\r\nt=0 0\r\na=control:*\r\n'
       'm=video 0 RTP/AVP 96\r\na=rtpmap:96 H264/90000\r\na=fmtp:96 packetization-mode=1;'
       'sprop-parameter-sets=Z0LADdoFB+hAAAADAEAAAA8jxQqo,aM48gA==\r\na=control:video\r\n')


def answer(cseq, body='', extra='', status='200 OK'):
    length = '' if not body else 'Content-Type: application/sdp\r\nContent-Length: %d\r\n' % len(body)
    return ('RTSP/1.0 %s\r\nCSeq: %s\r\n%s%s\r\n%s' % (status, cseq, extra, length, body)).encode()


def normal(method, cseq):
    if method == 'describe':
        return answer(cseq, SDP)
    if method == 'setup':
        return answer(cseq, extra='Session: 1;timeout=60\r\n'
                                  'Transport: RTP/AVP/TCP;unicast;interleaved=0-1\r\n')
    return answer(cseq, extra='Session: 1\r\nPublic: OPTIONS, DESCRIBE, SETUP, PLAY, TEARDOWN\r\n')


def slowly(peer, data):
    for byte in data:
        peer.sendall(bytes([byte]))
        time.sleep(0.5)


def misbehave(peer, action, method, cseq):
    if action == 'silent':
        time.sleep(60)
    elif action in ('error', 'refused'):
        peer.sendall(answer(cseq, status='404 Not Found' if action == 'error' else
                            '461 Unsupported Transport'))
        time.sleep(60)
    elif action == 'trickle':
        slowly(peer, normal(method, cseq))
    elif action == 'garbage':
        noise = random.Random(1)
        while True:
            peer.sendall(bytes(noise.getrandbits(8) for _ in range(4096)).replace(b'\n', b''))
    elif action == 'huge':
        peer.sendall(('RTSP/1.0 200 OK\r\nCSeq: %s\r\nContent-Length: 2147483647\r\n\r\n' % cseq).encode())
        slowly(peer, bytes(100))


def converse(peer, stage, action):
    try:
        if stage == 'accept':
            return misbehave(peer, action, 'options', '1')
        pending = b''
        while True:
            data = peer.recv(4096)
            if not data:
                return
            pending += data
            while b'\r\n\r\n' in pending:
                request, pending = pending.split(b'\r\n\r\n', 1)
                lines = request.decode().split('\r\n')
                method = lines[0].split(' ')[0].lower()
                cseq = [line[5:].strip() for line in lines if line.lower().startswith('cseq:')][0]
                if action == 'badsdp' and method == stage:
                    peer.sendall(answer(cseq, 'nothing that describes a session\r\n'))
                    continue
                if method == stage:
                    return misbehave(peer, action, method, cseq)
                peer.sendall(normal(method, cseq))
                if method == 'play' and stage == 'stream':
                    return misbehave(peer, action, method, cseq)
    except OSError:
        pass
    finally:
        peer.close()


def fault(stage, action):
    listener = socket.create_server(('127.0.0.1', 0))
    print(listener.getsockname()[1], flush=True)
    while True:
        peer, _ = listener.accept()
        threading.Thread(target=converse, args=(peer, stage, action), daemon=True).start()


def main():
    threading.Thread(target=lambda: (sys.stdin.read(), os._exit(0)), daemon=True).start()
    fault(sys.argv[1], sys.argv[2])


main()
