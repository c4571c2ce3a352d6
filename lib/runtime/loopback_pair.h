// A connection whose two ends both belong to this process: TCP over the loopback interface, without
// delay (TCP_NODELAY), or a local stream pair when the system has no such interface or it is down.
//
// Both ends are non-blocking, and closed on exec.

#pragma once

#include <netinet/in.h>

struct LoopbackPair {
    int readHandle;  // of TCP, the accepted end
    int writeHandle;
};

// False with nothing left open; *out is written only on success.
[[nodiscard]] bool loopbackPairMake(LoopbackPair* out);

// Has the connection stopped delivering what is written? When loopback is taken down, its
// connections stay, but bytes written to them never arrive. The call takes no time unless bytes are
// missing, and makes only system calls, so signal handlers may use it.
[[nodiscard]] bool loopbackPairIsStuck(const LoopbackPair& pair);

// Accepts our own connection and no other, since any process on this host may connect to the port
// while it listens. Returns the listener's end of the connection from that address, or -1; other
// connections are closed. Each connection is awaited for at most a tenth of a second.
[[nodiscard]] int loopbackAcceptFrom(int listener, const sockaddr_in& own);

void loopbackPairClose(const LoopbackPair& pair);
