// Two ends of one TCP connection over the loopback interface, both this process' own.
//
// Both ends are non-blocking, without delay (TCP_NODELAY), and closed on exec.

#pragma once

#include <netinet/in.h>

struct LoopbackPair {
    int readHandle;   // the accepted end
    int writeHandle;  // the connecting one
};

// False with nothing left open; *out is written only on success.
[[nodiscard]] bool loopbackPairMake(LoopbackPair* out);

// Its step that tells our own end from others': anybody on this host may connect to the port that
// listens for a moment. The listener's end of the connection from that address, or -1; the others
// are closed, and each next one is awaited for a second at most.
[[nodiscard]] int loopbackAcceptFrom(int listener, const sockaddr_in& own);

void loopbackPairClose(const LoopbackPair& pair);
