"""A relay between a client and the daemon that does what networks do: it stalls, splits, delays, is slow, cuts.

One thread moves all bytes of one direction of a connection; `Line` holds what is done to them and may be
changed at any time by any thread.
"""
import socket
import struct
import threading
import time

PIECE = 1 << 16
RESET = struct.pack("ii", 1, 0)


class Line:
    """What happens to the bytes: at most `rate` a second, `piece` at once, each `delay` seconds late."""

    def __init__(self, rate=0, piece=PIECE, delay=0.0):
        self.rate, self.piece, self.delay = rate, piece, delay
        self.open = threading.Event()  # cleared: nothing moves
        self.holds = None  # bytes that clear it when they come
        self.open.set()


class Relay:
    def __init__(self, port, line=None):
        self.target, self.line = port, line or Line()
        self.pairs, self.lock, self.ends = set(), threading.Lock(), False
        self.moving = 0  # bytes that were read and not yet written
        self.listener = socket.create_server(("127.0.0.1", 0), backlog=64)
        self.port = self.listener.getsockname()[1]
        threading.Thread(target=self.accept, daemon=True).start()

    def accept(self):
        while True:
            try:
                near = self.listener.accept()[0]
            except OSError:
                return
            try:
                far = socket.create_connection(("127.0.0.1", self.target), timeout=5)
                far.settimeout(None)
            except OSError:
                near.close()
                continue
            pair = (near, far)
            with self.lock:
                if self.ends:
                    self.drop(pair)
                    return
                self.pairs.add(pair)
            for source, sink in (pair, pair[::-1]):
                source.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, PIECE)
                threading.Thread(target=self.move, args=(source, sink, pair), daemon=True).start()

    def move(self, source, sink, pair):
        line = self.line
        try:
            while data := source.recv(min(line.piece, PIECE)):
                with self.lock:
                    self.moving += len(data)
                try:
                    if line.holds and line.holds in data:
                        line.open.clear()
                    line.open.wait()
                    if line.rate or line.delay:
                        time.sleep(line.delay + (len(data) / line.rate if line.rate else 0))
                    sink.sendall(data)
                finally:
                    with self.lock:
                        self.moving -= len(data)
            sink.shutdown(socket.SHUT_WR)  # an orderly end stays one
        except OSError:
            self.drop(pair)

    def drop(self, pair):
        """Resets both ends."""
        self.pairs.discard(pair)
        for end in pair:
            try:
                end.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, RESET)
                end.shutdown(socket.SHUT_RDWR)
            except OSError:
                pass
            end.close()

    def cut(self):
        """Breaks the connections that there are. The next ones are relayed again. Answers how many."""
        with self.lock:
            pairs = list(self.pairs)
        for pair in pairs:
            self.drop(pair)
        return len(pairs)

    def is_idle(self):
        with self.lock:
            return self.moving == 0

    def close(self):
        with self.lock:
            self.ends = True
        self.line.open.set()
        self.line.rate, self.line.delay = 0, 0.0
        self.listener.close()
        self.cut()
