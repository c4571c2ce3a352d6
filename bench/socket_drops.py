#!/usr/bin/env python3
"""socket_drops.py PID: how many packets the kernel delivered to a process's capture socket, and how
many it dropped there, since the last call: "DELIVERED DROPPED".

It duplicates the socket of the process, which doesn't read these counts itself. Needs root.
"""
import ctypes
import os
import re
import socket
import struct
import sys

SYS_PIDFD_GETFD = 438
SOL_PACKET = 263
PACKET_STATISTICS = 6
STATISTICS = struct.Struct("III")


def capture_socket(pid):
    with open("/proc/%d/net/packet" % pid, encoding="ascii") as table:
        inodes = {line.split()[-1] for line in table}
    folder = "/proc/%d/fd" % pid
    for name in os.listdir(folder):
        target = re.fullmatch(r"socket:\[(\d+)\]", os.readlink(os.path.join(folder, name)))
        if target and target.group(1) in inodes:
            return int(name)
    sys.exit("process %d has no capture socket" % pid)


def main():
    pid = int(sys.argv[1])
    process = os.pidfd_open(pid)
    number = ctypes.CDLL(None, use_errno=True).syscall(SYS_PIDFD_GETFD, process,
                                                       capture_socket(pid), 0)
    if number < 0:
        sys.exit(os.strerror(ctypes.get_errno()))
    borrowed = socket.socket(fileno=number)
    seen, dropped, _ = STATISTICS.unpack(
        borrowed.getsockopt(SOL_PACKET, PACKET_STATISTICS, STATISTICS.size))
    print(seen - dropped, dropped)


if __name__ == "__main__":
    main()
