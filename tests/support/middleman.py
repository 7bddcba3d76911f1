#!/usr/bin/env python3
"""Stands between a host and its authentication proxy, on the host itself.

usage: middleman.py PROXY REPORT [die|hang CONNECTION BYTES] [--identity PEM]

Listens on 127.0.0.1:8447, prints "ready", and hands on what comes to the proxy and back until its
standard input ends. Of one connection, counted from 1, only so many bytes reach the host: then the
connection is reset, or nothing more comes of it. REPORT gets a line for every connection that is
over: how many bytes the host was given. With an identity, a PEM file of key and certificate, it
ends the host's TLS itself, trusts any proxy, and REPORT has the first line of what the host asked.
"""

import argparse
import socket
import ssl
import struct
import sys
import threading

PORT = 8447
PIECE = 4096

parser = argparse.ArgumentParser()
parser.add_argument("proxy")
parser.add_argument("report")
parser.add_argument("cut", nargs="*")
parser.add_argument("--identity")
arguments = parser.parse_args()
end_of_all = threading.Event()


def report(text):
    with open(arguments.report, "a") as out:
        out.write(text + "\n")


def reset(connection):
    connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
    connection.shutdown(socket.SHUT_RD)  # whoever waits for more holds it open
    connection.close()


def to_proxy(host, proxy):
    """Hands on what the host sends; what it has asked is told where it can be read."""
    first = True
    try:
        while piece := host.recv(PIECE):
            if arguments.identity and first:
                report(piece.split(b"\r\n")[0].decode())
                first = False
            proxy.sendall(piece)
        proxy.shutdown(socket.SHUT_WR)
    except OSError:
        pass


def to_host(host, proxy, most):
    """Hands on what the proxy sends, up to so many bytes; None: all. Returns how many there were."""
    given = 0
    try:
        while most is None or given < most:
            piece = proxy.recv(PIECE if most is None else min(PIECE, most - given))
            if not piece:
                break
            host.sendall(piece)
            given += len(piece)
    except OSError:
        pass
    return given


def serve(host, number):
    most, then = None, None
    if arguments.cut and number == int(arguments.cut[1]):
        most, then = int(arguments.cut[2]), arguments.cut[0]
    try:
        proxy = socket.create_connection((arguments.proxy, PORT))
        if arguments.identity:
            identity = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
            identity.load_cert_chain(arguments.identity)
            host = identity.wrap_socket(host, server_side=True)
            anybody = ssl.SSLContext(ssl.PROTOCOL_TLS_CLIENT)
            anybody.check_hostname = False
            anybody.verify_mode = ssl.CERT_NONE
            proxy = anybody.wrap_socket(proxy)
    except OSError as failure:
        report(f"no connection: {failure}")
        host.close()
        return
    threading.Thread(target=to_proxy, args=(host, proxy), daemon=True).start()
    given = to_host(host, proxy, most)
    report(str(given))
    if then == "hang" and given == most:
        end_of_all.wait()
    elif then == "die" and given == most:
        reset(host)
    else:
        try:
            host.shutdown(socket.SHUT_WR)
        except OSError:
            pass


def listen():
    door = socket.create_server(("127.0.0.1", PORT))
    print("ready", flush=True)
    number = 0
    while True:
        host, _ = door.accept()
        number += 1
        threading.Thread(target=serve, args=(host, number), daemon=True).start()


threading.Thread(target=listen, daemon=True).start()
sys.stdin.read()
