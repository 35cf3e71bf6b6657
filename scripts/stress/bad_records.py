#!/usr/bin/env python3
"""Seeded bad records for each endpoint of the daemon, for the stress scripts.

  bad_records.py owner SEED COUNT OUT STARTUP   an owner service started by the daemon
      (reporting): reports RUNNING, loads STARTUP, sends COUNT mutated records
      on its pipe, terminates the names of STARTUP, writes its figures to OUT
      and then idles
  bad_records.py upload SEED COUNT PID          COUNT upload requests to $TUBIX_DIR/STAVIK
  bad_records.py sysop SEED COUNT PID           COUNT ioctls to the system operator resource;
      every pid and thread id in them is PID, so that nothing else is touched
  bad_records.py heartbeat SEED COUNT           COUNT datagrams to the heart-beat checker
  bad_records.py loads INDEX STARTUP LOG OUT    an owner service started by the daemon
      (reporting, STARTUP its start-up file): for each manifest of INDEX (from
      mutate_manifest.py) copies it over STARTUP, sends a load (a reload every
      second time), awaits the answer and looks in the daemon's LOG for a line
      naming STARTUP where INDEX says the file is a fault; then starts and
      terminates one application of a valid file; writes its figures to OUT

Records are mutated valid ones (the fuzz corpus of the owner records, a valid
announcement, ioctl records, beats) or random bytes; about one in six frames is
broken itself (magic, kind, length). Each mode prints one line of figures.
"""
import os
import random
import socket
import struct
import sys
import threading
import time

MAGIC = 0x31584254
HELLO, REQUEST, RESPONSE = 1, 2, 3
HEADER = struct.Struct("<IHHII")
RECORD_DATA = 3964
UPLOAD_DATA = 3960
TOKENS = [b"-1", b"0", b"1", b"2", b"3", b"1024", b"1025", b"1999", b"2000", b"102399", b"102400",
          b"4294967295", b"18446744073709551616", b"", b"zulmgr", b"%s%n", b"../..", b"${x}", b"\xff\xfe"]
CORPUS = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "tests", "fuzz", "corpus")
RECONNECT_EVERY = 200


def mutate(rng, data, cap):
    data = bytearray(data)
    for _ in range(rng.randint(1, 4)):
        op = rng.randrange(7)
        at = rng.randrange(len(data) + 1)
        if op == 0 and data:
            data[min(at, len(data) - 1)] = rng.randrange(256)
        elif op == 1:
            data[at:at] = rng.randbytes(rng.randint(1, 16))
        elif op == 2:
            del data[at:at + rng.randint(1, 32)]
        elif op == 3:
            data[at:at] = bytes(data[at:at + rng.randint(1, 16)]) * rng.randint(2, 300)
        elif op == 4:
            fields = bytes(data).split(b"#")
            fields[rng.randrange(len(fields))] = rng.choice(TOKENS)
            data = bytearray(b"#".join(fields))
        elif op == 5:
            del data[at:]
        else:
            data[at:at] = b"A" * rng.randint(min(256, cap), cap)
    return bytes(data[:cap])


def frame(rng, kind, ident, payload, broken):
    """One packet; a broken one has a wrong magic, kind or length, or is cut short."""
    if not broken:
        return HEADER.pack(MAGIC, kind, 0, ident, len(payload)) + payload
    fault = rng.randrange(5)
    if fault == 0:
        return HEADER.pack(rng.getrandbits(32) | 1, kind, 0, ident, len(payload)) + payload
    if fault == 1:
        return HEADER.pack(MAGIC, rng.choice([0, 4, 7, 65535]), 0, ident, len(payload)) + payload
    if fault == 2:
        return HEADER.pack(MAGIC, kind, 0, ident, len(payload) + rng.choice([-1, 1, 4096])) + payload
    if fault == 3:
        return rng.randbytes(rng.randint(1, HEADER.size - 1))
    # A transport message of the wrong size for the record it should carry.
    body = rng.randbytes(rng.choice([0, 1, 8, len(payload) - 1, len(payload) + 1, 65536]))
    return HEADER.pack(MAGIC, kind, 0, ident, len(body)) + body


class Peer:
    """A connection whose incoming packets a thread reads and counts."""

    def __init__(self, conn):
        self.conn = conn
        self.next_id = 1
        self.received = 0
        self.closed = False
        self.answers = {}
        self.states = []
        threading.Thread(target=self._drain, daemon=True).start()

    def _drain(self):
        while True:
            try:
                packet = self.conn.recv(HEADER.size + 65536 + 4096)
            except OSError:
                packet = b""
            if not packet:
                self.closed = True
                return
            self.received += 1
            if len(packet) >= HEADER.size:
                magic, kind, _flags, ident, _length = HEADER.unpack_from(packet)
                if magic == MAGIC and kind == RESPONSE:
                    self.answers[ident] = packet[HEADER.size:]
                elif magic == MAGIC and kind == REQUEST and len(packet) >= HEADER.size + 16:
                    self.states.extend(app_states(packet[HEADER.size:]))

    def send(self, rng, payload, broken=False, kind=REQUEST):
        ident = self.next_id
        self.next_id += 1
        self.conn.sendall(frame(rng, kind, ident, payload, broken))
        return ident

    def await_answer(self, ident, timeout_s=10):
        deadline = time.monotonic() + timeout_s
        while ident not in self.answers and time.monotonic() < deadline and not self.closed:
            time.sleep(0.01)
        return self.answers.get(ident)


def connect(path, name):
    conn = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)
    deadline = time.monotonic() + 10
    while True:
        try:
            conn.connect(path)
            break
        except OSError:
            if time.monotonic() > deadline:
                raise
            time.sleep(0.05)
    conn.sendall(HEADER.pack(MAGIC, HELLO, 0, 0, len(name)) + name)
    return Peer(conn)


def app_states(record):
    """(name, state) of each entry of a REPORT_APP_STATE record: count#name#pid#gid#state#reason#..."""
    kind, size = struct.unpack_from("<I4xQ", record)
    if kind != 4:
        return []
    fields = record[16:16 + min(size, RECORD_DATA)].split(b"#")
    try:
        return [(fields[1 + 5 * i], int(fields[4 + 5 * i])) for i in range(int(fields[0]))]
    except (ValueError, IndexError):
        return []


def await_state(peer, name, state, timeout_s=30):
    deadline = time.monotonic() + timeout_s
    while (name, state) not in peer.states and time.monotonic() < deadline:
        time.sleep(0.01)
    return (name, state) in peer.states


def loads_mode(index, startup, log, out):
    rng = random.Random(0)
    listener = socket.socket(fileno=int(os.environ["TUBIX_LISTEN_FD"]))
    conn, _ = listener.accept()
    peer = Peer(conn)
    peer.send(rng, owner_record(3, b"1#2#"))
    answered = unanswered = unnamed = 0
    with open(index) as lines:
        for number, line in enumerate(lines):
            path, kind, must = line.rstrip("\n").split("\t")
            with open(path, "rb") as mutation, open(startup, "wb") as target:
                target.write(mutation.read())
            log_at = os.path.getsize(log)
            body = b"1#" + startup.encode() + b"#0#"
            if peer.await_answer(peer.send(rng, owner_record(6 + number % 2, body)), 15) is None:
                unanswered += 1
                print("load: no answer for %s (%s)" % (path, kind), file=sys.stderr)
                continue
            answered += 1
            with open(log, "rb") as text:
                text.seek(log_at)
                named = b"manifest " + startup.encode() in text.read()
            if must == "fault" and not named:
                unnamed += 1
                print("load: no line names the fault of %s (%s)" % (path, kind), file=sys.stderr)
    with open(startup, "w") as target:
        target.write("apps:\n  - name: loader_a0\n    bin_path: /bin/sleep\n    args: ['600']\n")
    peer.await_answer(peer.send(rng, owner_record(6, b"1#" + startup.encode() + b"#0#")), 15)
    peer.send(rng, owner_record(0, b"1#loader_a0#0#0#"))
    started = await_state(peer, b"loader_a0", 0)
    peer.send(rng, owner_record(2, b"1#loader_a0#"))
    served = started and await_state(peer, b"loader_a0", 3)
    with open(out, "w") as figures:
        figures.write("answered=%d\nunanswered=%d\nunnamed=%d\nserved=%d\ndone=1\n"
                      % (answered, unanswered, unnamed, served))
    while True:
        time.sleep(3600)


def owner_record(kind, body, size=None):
    body = body[:RECORD_DATA]
    return struct.pack("<I4xQ", kind, len(body) if size is None else size) + body.ljust(RECORD_DATA, b"\0") + bytes(4)


def corpus_records():
    """(type, body) of every owner-record seed: flags byte, type, [size,] data."""
    seeds = []
    for folder in sorted(os.listdir(CORPUS)):
        for name in sorted(os.listdir(os.path.join(CORPUS, folder))):
            with open(os.path.join(CORPUS, folder, name), "rb") as seed:
                raw = seed.read()
            if len(raw) < 5 or folder.startswith("client") or folder.startswith("report"):
                continue
            kind = struct.unpack_from("<I", raw, 1)[0]
            seeds.append((kind, raw[13:] if raw[0] & 2 else raw[5:]))
    return seeds


def owner_mode(rng, count, out, startup):
    listener = socket.socket(fileno=int(os.environ["TUBIX_LISTEN_FD"]))
    conn, _ = listener.accept()
    peer = Peer(conn)
    while peer.received == 0 and not peer.closed:  # the daemon's hello
        time.sleep(0.01)
    peer.send(rng, owner_record(3, b"1#2#"))
    load = peer.send(rng, owner_record(6, b"1#" + startup.encode() + b"#0#"))
    loaded = peer.await_answer(load)
    seeds = corpus_records()
    sent = broken = 0
    for _ in range(count):
        kind, body = rng.choice(seeds)
        pick = rng.random()
        if pick < 0.1:
            kind = rng.choice([rng.randrange(12), rng.getrandbits(32)])
        if pick < 0.05:
            record = rng.randbytes(len(owner_record(0, b"")))
        else:
            size = rng.choice([None] * 9 + [rng.getrandbits(64), RECORD_DATA + 1])
            record = owner_record(kind, mutate(rng, body, RECORD_DATA), size)
        is_broken = rng.random() < 0.15
        try:
            peer.send(rng, record, is_broken)
        except OSError:
            break
        sent += 1
        broken += is_broken
    names = [b"appA", b"appB", b"a", b"b", b"x", b"n", b"dp"]
    term = b"%d#" % len(names) + b"".join(name + b"#" for name in names)
    peer.send(rng, owner_record(2, term))
    with open(out, "w") as figures:
        figures.write("loaded=%s\nsent=%d\nbroken=%d\nreceived=%d\npipe_closed=%d\ndone=1\n"
                      % ((loaded or b"none").decode(errors="replace"), sent, broken, peer.received, peer.closed))
    while True:
        time.sleep(3600)


def send_records(rng, path, name, count, make_payload, mode, paced=False):
    """Sends count (payload, torn) pairs of make_payload(), over a fresh
    connection every RECONNECT_EVERY records; prints what came back. Paced:
    every 50th waits for its answer, so that the answers keep the service's pace."""
    sent = broken = answered = 0
    peer = None
    for i in range(count):
        if i % RECONNECT_EVERY == 0:
            if peer:
                answered += len(peer.answers)
                peer.conn.close()
            peer = connect(path, name)
        payload, is_broken = make_payload()
        peer.send(rng, payload, is_broken)
        sent += 1
        broken += is_broken
        if paced and i % 50 == 0:
            peer.await_answer(peer.next_id - 1, 5)
    time.sleep(0.5)
    answered += len(peer.answers)
    print("%s: sent=%d broken=%d answered=%d" % (mode, sent, broken, answered))


def upload_mode(rng, count, pid):
    seed = b"up_stress#/bin/sleep#%d#0#1#all#1#DEFAULT_MEM_GROUP#0#0#" % pid

    def payload():
        body = mutate(rng, seed, UPLOAD_DATA) if rng.random() < 0.9 else rng.randbytes(rng.randint(0, UPLOAD_DATA))
        size = rng.choice([None] * 9 + [rng.getrandbits(64), UPLOAD_DATA + 1])
        record = struct.pack("<Q", len(body) if size is None else size) + body.ljust(UPLOAD_DATA, b"\0")
        return record, rng.random() < 0.15

    send_records(rng, os.path.join(os.environ["TUBIX_DIR"], "STAVIK"), b"stress_upload", count, payload, "upload")


def sysop_record(rng, cmd, pid):
    """A mutated record of cmd whose pid and thread ids are all pid."""
    sizes = {0: 528, 1: 176, 2: 44, 3: 36920, 4: 392}
    size = sizes.get(cmd, rng.choice(list(sizes.values())))
    if rng.random() < 0.1:
        size = rng.choice([0, 1, size - 1, size + 1, 4096])
    record = bytearray(rng.randbytes(size) if rng.random() < 0.5 else bytes(size))
    if cmd == 0 and size >= 528:
        struct.pack_into("<I", record, 0, pid)
        struct.pack_into("<I", record, 516, rng.choice([0, 1, 2, 127, 128, rng.getrandbits(32)]))
        struct.pack_into("<I", record, 524, pid)
    elif cmd in (1, 2) and size >= 44:
        record[0:32] = mutate(rng, b"STRESS_GRP", 32).ljust(32, b"\0")[:32]
        if cmd == 2:
            struct.pack_into("<i", record, 32, pid)
    elif cmd == 3 and size >= 48:
        struct.pack_into("<i", record, 0, rng.choice([0, 1, 2, -1]))
        struct.pack_into("<I", record, 40, rng.choice([0, 10, 36, 37, rng.getrandbits(32)]))
    elif cmd == 4 and size >= 392:
        for entry in range(32):
            struct.pack_into("<i", record, entry * 12, pid)
            # Only SCHED_OTHER or SCHED_IDLE with priority 0: nothing real-time on a shared machine.
            struct.pack_into("<ii", record, entry * 12 + 4, rng.choice([0, 5]), 0)
        struct.pack_into("<I", record, 384, rng.choice([0, 1, 31, 32, rng.getrandbits(32)]))
    return bytes(record)


def sysop_mode(rng, count, pid):
    def payload():
        cmd = rng.choice([0, 1, 2, 3, 4, 0, 1, 2, 3, 4, 5, rng.getrandbits(32)])
        record = struct.pack("<II", cmd, 0 if rng.random() < 0.9 else rng.getrandbits(32)) + sysop_record(rng, cmd, pid)
        if rng.random() < 0.05:
            record = record[:rng.randrange(8)]
        return record, rng.random() < 0.15

    path = os.path.join(os.environ["TUBIX_DIR"], "res", "res", "stavik", "sys_server")
    send_records(rng, path, b"stress_sysop", count, payload, "sysop", paced=True)


def heartbeat_mode(rng, count):
    path = os.path.join(os.environ["TUBIX_DIR"], ".heart_beat")
    sock = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
    sent = 0
    for _ in range(count):
        name = mutate(rng, b"stress_beat", 300) if rng.random() < 0.9 else b"x" * rng.choice([0, 255, 256, 4000])
        beat = struct.pack("<IiII", 0x31544248, rng.choice([os.getpid(), 0, -1, rng.getrandbits(31)]),
                           rng.choice([0, 1, 1000, 0xFFFFFFFF]), rng.choice([0, 3, 0xFFFFFFFF])) + name
        if rng.random() < 0.3:
            beat = mutate(rng, beat, 65000)
        for _attempt in range(100):
            try:
                sock.sendto(beat, path)
                sent += 1
                break
            except (BlockingIOError, ConnectionRefusedError, OSError):
                time.sleep(0.01)
    print("heartbeat: sent=%d" % sent)


def main():
    mode = sys.argv[1]
    if mode == "loads":
        loads_mode(sys.argv[2], sys.argv[3], sys.argv[4], sys.argv[5])
        return
    seed, count = int(sys.argv[2]), int(sys.argv[3])
    rng = random.Random(seed)
    if mode == "owner":
        owner_mode(rng, count, sys.argv[4], sys.argv[5])
    elif mode == "upload":
        upload_mode(rng, count, int(sys.argv[4]))
    elif mode == "sysop":
        sysop_mode(rng, count, int(sys.argv[4]))
    elif mode == "heartbeat":
        heartbeat_mode(rng, count)
    else:
        sys.exit(__doc__)


if __name__ == "__main__":
    main()
