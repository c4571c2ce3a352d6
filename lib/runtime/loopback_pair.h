// Two ends of one TCP connection over the loopback interface, both this process' own.
//
// Both ends are non-blocking, without delay (TCP_NODELAY), and closed on exec.

#pragma once

struct LoopbackPair {
    int readHandle;   // the accepted end
    int writeHandle;  // the connecting one
};

// False with nothing left open; *out is written only on success. Anybody on this host may connect
// to the port that listens for a moment: an end that isn't ours is closed, and the next one awaited
// for a second at most.
[[nodiscard]] bool loopbackPairMake(LoopbackPair* out);

void loopbackPairClose(const LoopbackPair& pair);
