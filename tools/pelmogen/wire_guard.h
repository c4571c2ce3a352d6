// Keeps generated traffic off real networks. Raw frames may be sent only in a network namespace
// that they can't leave: one in which every interface that is up is the loopback, or one end of a
// veth pair whose other end is in that namespace too. The namespace of the machine's first process
// is always refused, as far as this process has the right to see it.

#pragma once

// The reason why frames must not be sent on that interface, or null when they may. A fact that
// can't be found out is a reason too.
[[nodiscard]] const char* wireRefusal(const char* interfaceName);
