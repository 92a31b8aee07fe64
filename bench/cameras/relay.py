#!/usr/bin/python3
"""Relays between an RTSP client that wants media over the control connection (TCP) and a server that
sends them only over UDP.

usage: relay.py SERVER_PORT

Prints its port when it listens, and ends when its standard input ends. Passes requests and answers on,
except for the transport and the port in the addresses; both ports must have the same number of digits.
"""
import os
import re
import select
import socket
import struct
import sys
import threading

RECEIVE_BUFFER = 4 << 20


def udp_pair():
    """Two sockets on neighbouring ports, the first of them even."""
    while True:
        first = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        first.bind(('127.0.0.1', 0))
        port = first.getsockname()[1]
        second = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        try:
            if port % 2 == 0:
                second.bind(('127.0.0.1', port + 1))
                for pipe in (first, second):
                    pipe.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, RECEIVE_BUFFER)
                return first, second
        except OSError:
            pass
        first.close()
        second.close()


class Relay:
    def __init__(self, client, own_port, server_port):
        self.client, self.server = client, socket.create_connection(('127.0.0.1', server_port))
        self.own, self.other = (b'127.0.0.1:%d' % port for port in (own_port, server_port))
        self.channel = {}  # of each UDP socket
        self.pending = {self.client: b'', self.server: b''}
        self.interleaved = b'0-1'  # of the SETUP that is under way

    def from_client(self, message):
        """A request; or interleaved reports, which the server can do without."""
        wanted = re.search(rb'interleaved=(\d+)-(\d+)', message)
        if message.startswith(b'SETUP') and wanted:
            pair = udp_pair()
            for pipe, channel in zip(pair, wanted.groups()):
                self.channel[pipe] = int(channel)
            self.interleaved = b'-'.join(wanted.groups())
            message = re.sub(rb'\r\nTransport: [^\r]*', b'\r\nTransport: RTP/AVP;unicast;client_port=%d-%d' % tuple(
                pipe.getsockname()[1] for pipe in pair), message)
        self.server.sendall(message.replace(self.own, self.other))

    def from_server(self, message):
        message = re.sub(rb'\r\nTransport: [^\r]*',
                         b'\r\nTransport: RTP/AVP/TCP;unicast;interleaved=' + self.interleaved, message)
        self.client.sendall(message.replace(self.other, self.own))

    def take_message(self, source):
        """Returns the next whole message of `source`, or None."""
        data = self.pending[source]
        while data[:1] == b'$' and len(data) >= 4:
            end = 4 + struct.unpack('>H', data[2:4])[0]
            if len(data) < end:
                return None
            data = self.pending[source] = data[end:]
        head = data.find(b'\r\n\r\n')
        if data[:1] == b'$' or head < 0:
            return None
        length = re.search(rb'\r\ncontent-length: *(\d+)', data[:head].lower())
        end = head + 4 + (int(length.group(1)) if length else 0)
        if len(data) < end:
            return None
        self.pending[source] = data[end:]
        return data[:end]

    def run(self):
        handlers = {self.client: self.from_client, self.server: self.from_server}
        try:
            while True:
                for source in select.select([*handlers, *self.channel], [], [])[0]:
                    data = source.recv(65536)
                    if source in self.channel:
                        self.client.sendall(struct.pack('>cBH', b'$', self.channel[source], len(data)) + data)
                        continue
                    if not data:
                        return
                    self.pending[source] += data
                    while (message := self.take_message(source)) is not None:
                        handlers[source](message)
        except OSError:
            pass
        finally:
            for pipe in (self.client, self.server, *self.channel):
                pipe.close()


def main():
    server_port = int(sys.argv[1])
    listener = socket.create_server(('127.0.0.1', 0))
    own_port = listener.getsockname()[1]
    threading.Thread(target=lambda: (sys.stdin.read(), os._exit(0)), daemon=True).start()
    print(own_port, flush=True)
    while True:
        client, _ = listener.accept()
        try:
            relay = Relay(client, own_port, server_port)
        except OSError:  # nobody listens there
            client.close()
            continue
        threading.Thread(target=relay.run, daemon=True).start()


main()
