#!/usr/bin/python3
"""relay.py DESCRIPTOR HOST PORT: passes each connection to the listening socket DESCRIPTOR on to HOST:PORT.

The socket may belong to another network than the one this process connects in.
"""
import socket
import sys
import threading

PIECE_BYTES = 1 << 18


def pass_on(source, sink):
    """One direction, at the pace of the slower end, until the source has said all."""
    buffer = memoryview(bytearray(PIECE_BYTES))
    try:
        while count := source.recv_into(buffer):
            sink.sendall(buffer[:count])
        sink.shutdown(socket.SHUT_WR)
    except OSError:  # one end is gone, and then there is nobody for the other to talk to
        for end in (source, sink):
            try:
                end.shutdown(socket.SHUT_RDWR)
            except OSError:
                pass


def serve(client, address):
    with client:
        try:
            server = socket.create_connection(address)
        except OSError:
            return
        with server:
            for end in (client, server):
                if end.family != socket.AF_UNIX:
                    end.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
            back = threading.Thread(target=pass_on, args=(server, client), daemon=True)
            back.start()
            pass_on(client, server)
            back.join()


def main(descriptor, host, port):
    listener = socket.socket(fileno=int(descriptor))
    while True:
        client, _ = listener.accept()
        threading.Thread(target=serve, args=(client, (host, int(port))), daemon=True).start()


main(*sys.argv[1:])
