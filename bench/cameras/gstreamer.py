#!/usr/bin/python3
"""GStreamer's RTSP server on the loopback interface: plays the video of an MKV file once, at its pace.

Every client gets the file from the start. Prints the port once it listens; ends with its standard
input; ends at once with status 77 where GStreamer's RTSP server is not installed.
"""
import argparse
import os
import sys
import threading

try:
    import gi
    gi.require_version('Gst', '1.0')
    gi.require_version('GstRtsp', '1.0')
    gi.require_version('GstRtspServer', '1.0')
    from gi.repository import GLib, Gst, GstRtsp, GstRtspServer
except (ImportError, ValueError):
    sys.exit(77)


def parse_arguments():
    parser = argparse.ArgumentParser(description=__doc__)
    add = parser.add_argument
    add('file')
    add('--port', default='0')
    add('--audio', action='store_true', help='a tone, as stream 0')
    add('--described', action='store_true', help='send parameter sets only in the session description')
    add('--auth', choices=('basic', 'digest'), help='for the user operator with the password secret')
    return parser.parse_args()


def pipeline(args):
    codec = 'h265' if 'hevc' in os.path.basename(args.file) else 'h264'
    video = ('filesrc location="%s" ! matroskademux ! queue ! %sparse ! rtp%spay config-interval=%d pt=96 name=pay%d'
             % (args.file, codec, codec, 0 if args.described else -1, args.audio))
    tone = ('audiotestsrc is-live=true ! audio/x-raw,rate=8000,channels=1 ! mulawenc ! rtppcmupay pt=0 name=pay0'
            if args.audio else '')
    return '( %s %s )' % (video, tone)


def ask_for_password(server, factory, how):
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


def main():
    args = parse_arguments()
    threading.Thread(target=lambda: (sys.stdin.read(), os._exit(0)), daemon=True).start()
    Gst.init(None)
    factory = GstRtspServer.RTSPMediaFactory()
    factory.set_launch(pipeline(args))
    server = GstRtspServer.RTSPServer()
    server.set_address('127.0.0.1')
    server.set_service(args.port)
    if args.auth:
        ask_for_password(server, factory, args.auth)
    server.get_mount_points().add_factory('/cam', factory)
    server.attach(None)
    print(server.get_bound_port(), flush=True)
    GLib.MainLoop().run()


main()
