// Keeps made-up traffic off real networks. Raw frames may go out only from where they can't leave:
// a network namespace in which every interface that is up is the loopback, or one end of a veth
// pair whose other end is in that namespace too. The one that the machine's first process is in is
// refused whatever it holds, as far as this process may look.

#pragma once

// Why frames mustn't be sent on that interface, or null where they may. What can't be found out is
// a reason.
[[nodiscard]] const char* wireRefusal(const char* interfaceName);
