#!/usr/bin/env python3
"""Owner services written against the wire format alone, without the C++ library.

  frame_owner.py owner OUT   adopts the listening socket made for it before exec
                             ($TUBIX_LISTEN_FD), reports INIT, waits for the
                             daemon's own state report, reports RUNNING, writes
                             what it saw to OUT and serves on until the pipe ends
  frame_owner.py squat PATH  listens at PATH itself and reports RUNNING to whoever
                             connects, posing as the service of that name
"""
import os
import socket
import struct
import sys

MAGIC = 0x31584254
HELLO, REQUEST = 1, 2
HEADER = struct.Struct("<IHHII")
RECORD_DATA = 3964
BASESERVICE_STATE_REPORT, REPORT_APP_STATE = 3, 4
INIT_BODY, RUNNING_BODY = b"1#0#", b"1#2#"


def record(kind, body):
    # type, 4 bytes of padding, u64 size, the data, 4 bytes of padding: 3984 bytes
    return struct.pack("<I4xQ", kind, len(body)) + body.ljust(RECORD_DATA, b"\0") + bytes(4)


def send(conn, ident, kind, body):
    payload = record(kind, body)
    conn.send(HEADER.pack(MAGIC, REQUEST, 0, ident, len(payload)) + payload)


def receive(conn):
    packet = conn.recv(HEADER.size + 65536)
    if not packet:
        sys.exit("pipe ended early")
    magic, kind, _flags, _ident, length = HEADER.unpack_from(packet)
    if magic != MAGIC or length != len(packet) - HEADER.size:
        sys.exit("bad frame")
    return kind, packet[HEADER.size:]


def owner(out_path):
    conn, _ = socket.socket(fileno=int(os.environ["TUBIX_LISTEN_FD"])).accept()
    kind, hello = receive(conn)
    if kind != HELLO:
        sys.exit("no hello")
    send(conn, 1, BASESERVICE_STATE_REPORT, INIT_BODY)
    kind, payload = receive(conn)
    while not (kind == REQUEST and struct.unpack_from("<I", payload)[0] == REPORT_APP_STATE and b"#STAVIK#" in payload):
        kind, payload = receive(conn)
    send(conn, 2, BASESERVICE_STATE_REPORT, RUNNING_BODY)
    with open(out_path + ".tmp", "w") as out:
        out.write("hello=%s\nreport=STAVIK\n" % hello.decode())
    os.rename(out_path + ".tmp", out_path)
    while conn.recv(HEADER.size + 65536):
        pass


def squat(path):
    listener = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)
    listener.bind(path)
    os.chmod(path, 0o666)
    listener.listen(8)
    while True:
        conn, _ = listener.accept()
        try:
            send(conn, 1, BASESERVICE_STATE_REPORT, RUNNING_BODY)
        except OSError:
            pass


if __name__ == "__main__":
    if len(sys.argv) == 3 and sys.argv[1] == "owner":
        owner(sys.argv[2])
    elif len(sys.argv) == 3 and sys.argv[1] == "squat":
        squat(sys.argv[2])
    else:
        sys.exit(__doc__)
