// Two ends of one connection, both this process' own: TCP over the loopback interface, without
// delay (TCP_NODELAY), or a local stream pair where the system has no such interface or has it
// down.
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

// Has the network stopped to carry what is written? Loopback that is taken down keeps its
// connections, and bytes written to one never come. Takes no time but where something is amiss,
// and touches nothing but the system: for signal handlers too.
[[nodiscard]] bool loopbackPairIsStuck(const LoopbackPair& pair);

// Its step that tells our own end from others': anybody on this host may connect to the port that
// listens for a moment. The listener's end of the connection from that address, or -1; the others
// are closed, and each next one is awaited for a tenth of a second at most.
[[nodiscard]] int loopbackAcceptFrom(int listener, const sockaddr_in& own);

void loopbackPairClose(const LoopbackPair& pair);
