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


class Pipe:
    def __init__(self, conn):
        self.conn = conn
        self.next_id = 1

    def send(self, kind, body):
        payload = record(kind, body)
        self.conn.send(HEADER.pack(MAGIC, REQUEST, 0, self.next_id, len(payload)) + payload)
        self.next_id += 1

    def receive(self):
        packet = self.conn.recv(HEADER.size + 65536)
        if not packet:
            return None, b""
        magic, kind, _flags, _ident, length = HEADER.unpack_from(packet)
        if magic != MAGIC or length != len(packet) - HEADER.size:
            sys.exit("bad frame")
        return kind, packet[HEADER.size:]


def owner(out_path):
    listener = socket.socket(fileno=int(os.environ["TUBIX_LISTEN_FD"]))
    conn, _ = listener.accept()
    pipe = Pipe(conn)
    kind, hello = pipe.receive()
    if kind != HELLO:
        sys.exit("no hello")
    pipe.send(BASESERVICE_STATE_REPORT, INIT_BODY)
    while True:
        kind, payload = pipe.receive()
        if kind is None:
            sys.exit("pipe ended early")
        if kind == REQUEST and struct.unpack_from("<I", payload)[0] == REPORT_APP_STATE and b"#STAVIK#" in payload:
            break
    pipe.send(BASESERVICE_STATE_REPORT, RUNNING_BODY)
    with open(out_path + ".tmp", "w") as out:
        out.write("hello=%s\nreport=STAVIK\n" % hello.decode())
    os.rename(out_path + ".tmp", out_path)
    while pipe.receive()[0] is not None:
        pass


def squat(path):
    listener = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)
    listener.bind(path)
    os.chmod(path, 0o666)
    listener.listen(8)
    while True:
        conn, _ = listener.accept()
        try:
            Pipe(conn).send(BASESERVICE_STATE_REPORT, RUNNING_BODY)
        except OSError:
            pass


if __name__ == "__main__":
    if len(sys.argv) == 3 and sys.argv[1] == "owner":
        owner(sys.argv[2])
    elif len(sys.argv) == 3 and sys.argv[1] == "squat":
        squat(sys.argv[2])
    else:
        sys.exit(__doc__)
