#!/usr/bin/python3
"""RTSP peers on the loopback interface for the tests.

  rtsp_server.py serve FILE [--audio] [--described] [--port N] [--auth basic|digest]
                                        a real server: plays a raw H.264 file over and over, as fast
                                        as it is read, or the video of an MKV file once, at its own
                                        pace; --audio offers a tone as stream 0; --described keeps
                                        the parameter sets of an MKV file out of the stream; --auth
                                        asks for the user operator with the password secret
  rtsp_server.py fault STAGE ACTION     a scripted peer that answers the requests before STAGE and
                                        does ACTION there

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
Prints the port once it listens. Ends with its standard input; ends at once with status 77 where
GStreamer's RTSP server is not installed.
"""
import argparse
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


def video_source(path, number, described):
    """The elements that make RTP payloads of `path`, as stream `number`."""
    interval = 0 if described else -1
    if not path.endswith('.mkv'):
        return ('multifilesrc location="%s" loop=true ! h264parse ! rtph264pay config-interval=-1 pt=96 name=pay%d'
                % (path, number))
    codec = 'h265' if 'hevc' in os.path.basename(path) else 'h264'
    return ('filesrc location="%s" ! matroskademux ! queue ! %sparse ! rtp%spay config-interval=%d pt=96 name=pay%d'
            % (path, codec, codec, interval, number))


def ask_for_password(server, factory, how, GstRtsp, GstRtspServer):
    auth = GstRtspServer.RTSPAuth()
    auth.set_supported_methods(GstRtsp.RTSPAuthMethod.BASIC if how == 'basic' else GstRtsp.RTSPAuthMethod.DIGEST)
    token = GstRtspServer.RTSPToken()
    token.set_string('media.factory.role', 'operator')
    if how == 'basic':
        auth.add_basic(GstRtspServer.RTSPAuth.make_basic('operator', 'secret'), token)
    else:
        auth.add_digest('operator', 'secret', token)
    server.set_auth(auth)
    permissions = GstRtspServer.RTSPPermissions()
    for name in ('media.factory.access', 'media.factory.construct'):
        permissions.add_permission_for_role('operator', name, True)
    factory.set_permissions(permissions)


def serve(args):
    try:
        import gi
        gi.require_version('Gst', '1.0')
        gi.require_version('GstRtsp', '1.0')
        gi.require_version('GstRtspServer', '1.0')
    except (ImportError, ValueError):
        sys.exit(77)
    from gi.repository import GLib, Gst, GstRtsp, GstRtspServer
    Gst.init(None)
    tone = ('audiotestsrc is-live=true ! audio/x-raw,rate=8000,channels=1 ! mulawenc ! rtppcmupay pt=0 name=pay0'
            if args.audio else '')
    factory = GstRtspServer.RTSPMediaFactory()
    factory.set_launch('( %s %s )' % (video_source(args.file, args.audio, args.described), tone))
    server = GstRtspServer.RTSPServer()
    server.set_address('127.0.0.1')
    server.set_service(args.port)
    if args.auth:
        ask_for_password(server, factory, args.auth, GstRtsp, GstRtspServer)
    server.get_mount_points().add_factory('/cam', factory)
    server.attach(None)
    print(server.get_bound_port(), flush=True)
    GLib.MainLoop().run()


def serve_arguments():
    parser = argparse.ArgumentParser()
    parser.add_argument('file')
    parser.add_argument('--audio', action='store_true')
    parser.add_argument('--described', action='store_true')
    parser.add_argument('--port', default='0')
    parser.add_argument('--auth', choices=('basic', 'digest'))
    return parser.parse_args(sys.argv[2:])


def main():
    threading.Thread(target=lambda: (sys.stdin.read(), os._exit(0)), daemon=True).start()
    if sys.argv[1] == 'serve':
        serve(serve_arguments())
    else:
        fault(sys.argv[2], sys.argv[3])


main()
