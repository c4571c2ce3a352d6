// Sockets: one TCP connection or one listening port, with a small state machine, event-driven
// callbacks for reading and writing, and a peek buffer.
//
//     closed --open--> open --listen--> listening
//                       '----connect--> connecting --> connected
//                                            '-------> failed
//
// A socket is made open; an accepted one starts connecting or connected. Any state leaves to closed
// by socketClose.
//
// Ownership: the maker holds the first reference, and socketDestroy closes and gives it back. Each
// callback that can still run holds one more, so that a socket outlives its callbacks. The caller
// of any function holds a reference until it returns. Closures belong to the caller;
// socketCancelReadable and socketCancelWritable call `done` once the callback can't run any more.
//
// Failure: layer codes (layer_code.h), or a status where the call says so. A read or write in any
// state but connected returns kSocketDisconnected. Outputs are written only on success, except that
// a read or write in mode kSocketFullyBlocking that moved some bytes first sets `*out` to their
// number.
//
// Modes: a non-blocking call returns kSocketWouldBlock when nothing moves; a blocking one waits
// until something does; a fully blocking one until all bytes have moved. Waits hold no lock. They
// end at the deadline, if there is one, with kSocketWouldBlock, and at socketInterrupt and
// socketClose with kSocketDisconnected.
//
// Threads: any. The socket's lock (rank kSocket) guards the record and is released around every
// callback, so that a callback may call back into the socket.
//
// Units: addresses and ports in network byte order, seconds by the steady clock.
//
// Environment: PELMO_BINDADDR, a dotted address, binds each connect to it; with
// PELMO_DISABLE_SO_KEEPALIVE set the keep-alive of the system stays off.
//
// Debug lines: logSetSocketLines (lib/base/log.h).

#pragma once

#include <cstdint>

#include "lib/base/status.h"
#include "lib/transport/socket/gather_list.h"
#include "lib/transport/socket/layer_code.h"

struct Socket;

// Runs on the thread that dispatches the socket's queue.
using SocketCallback = void (*)(Socket* socket, void* closure);
using SocketDone = void (*)(void* closure);

enum class SocketMode : uint32_t { kNonBlocking, kBlocking, kFullyBlocking };

// Which readiness a callback waits for: usually its own; a secure class may need the other one.
enum class SocketCrossMode : uint32_t { kNormal, kWriteNeedsReadable, kReadNeedsWritable };

enum class SocketDirection : uint32_t { kRead, kWrite };

inline constexpr uint32_t kMostSendBytes = 0x20000;  // of one send
inline constexpr uint32_t kMostSendEntries = 1024;   // of one vector send

// Life. `isLocal` changes only the words of debug lines. kSocketWrongState for a class that isn't
// in use.
[[nodiscard]] SocketCode socketCreateClient(Socket** out,
                                            uint32_t classIndex,
                                            uint32_t queueId,
                                            bool isLocal);
[[nodiscard]] SocketCode socketCreateServer(Socket** out,
                                            uint32_t classIndex,
                                            uint32_t queueId,
                                            bool isLocal);
void socketRetain(Socket* socket);
void socketRelease(Socket* socket);

// Ends waits and callbacks, and closes the handle.
void socketClose(Socket* socket);

// Closes, and gives the caller's reference back.
void socketDestroy(Socket* socket);

// Servers. An address of 0 means any; with `anyPort` a port that is taken is replaced by a free
// one, and so is one whose last connections are still being forgotten.
[[nodiscard]] SocketCode socketBind(Socket* socket, uint32_t address, uint16_t port, bool anyPort);
[[nodiscard]] SocketCode socketListen(Socket* socket);
[[nodiscard]] SocketCode socketAccept(Socket* socket, Socket** out, uint32_t queueId);

// Clients. kSocketWouldBlock while the connect is under way; a blocking mode waits for its end.
[[nodiscard]] SocketCode socketConnect(Socket* socket, uint32_t address, uint16_t port);

// kStatusTimeout; kStatusEndOfFile for a connect that failed or was interrupted. A negative time
// has no limit.
[[nodiscard]] pelmoStatus socketWaitConnected(Socket* socket, double seconds);

// Bytes. One call moves at most kMostSendBytes to the system at a time; the vector send moves no
// more than that and kMostSendEntries entries in all, leaves the list as it was, and isn't for
// fully blocking sockets.
[[nodiscard]] SocketCode socketRead(Socket* socket, void* bytes, uint32_t size, uint32_t* out);
[[nodiscard]] SocketCode socketWrite(Socket* socket,
                                     const void* bytes,
                                     uint32_t size,
                                     uint32_t* out);
[[nodiscard]] SocketCode socketWriteVector(Socket* socket, const GatherList* list, uint32_t* out);

// A read takes peeked bytes first. Where it asks for more than those and more can't be read, it
// answers the code of that, and they stay.

// Reads without consuming: the bytes come again with the next read. They fire no event, since the
// system doesn't know of them.
[[nodiscard]] SocketCode socketPeek(Socket* socket, void* bytes, uint32_t size, uint32_t* out);

// Settings

void socketSetMode(Socket* socket, SocketMode mode);

// The statuses of pelmoEvent_CreateIO; a callback may then lack its event.
pelmoStatus socketSetCrossMode(Socket* socket, SocketCrossMode mode);

// When waits of blocking modes that begin from now on end, by clockSteadySeconds; 0 for never.
void socketSetDeadline(Socket* socket, double steadySeconds);

// Ends all waits on the connection, now and later, from any thread; the connection is lost. The
// caller holds a reference.
void socketInterrupt(Socket* socket);

// Moves the IO events to another queue.
[[nodiscard]] SocketCode socketSetQueue(Socket* socket, uint32_t queueId);

// Holds the read callback back until so many bytes can be read, or the stream has ended; 0 for at
// once. kStatusNoMemory.
[[nodiscard]] pelmoStatus socketSetMinRead(Socket* socket, uint32_t bytes);

// kStatusNotInitialized if the system refuses.
pelmoStatus socketSetKeepAlive(Socket* socket, bool on);

// How much may wait in the connection; the system no longer tunes it. kStatusNotInitialized if the
// system refuses.
pelmoStatus socketSetSendBuffer(Socket* socket, uint32_t bytes);

// Callbacks. Setting one replaces the one before. While the socket connects, they wait. When it is
// connected, the one for writing runs; when it failed, only one of them runs, and only once: the
// one for reading if it is set. One that is set after a failure runs once for it.
// kStatusInvalidCallback for null, kStatusInvalidIoSource in a state that can't have one, and the
// statuses of pelmoEvent_CreateIO.
[[nodiscard]] pelmoStatus socketOnReadable(Socket* socket, SocketCallback callback, void* closure);
[[nodiscard]] pelmoStatus socketOnWritable(Socket* socket, SocketCallback callback, void* closure);

// The callback doesn't start any more. `done`, if not null, is called with the callback's closure
// once it isn't running either, nor is one that it replaced: at once, or on the last one's own
// thread at its end. kStatusInvalidEvent if nothing is registered; `done` isn't called then.
pelmoStatus socketCancelReadable(Socket* socket, SocketDone done);
pelmoStatus socketCancelWritable(Socket* socket, SocketDone done);

// What is known of it

[[nodiscard]] uint32_t socketPeerAddress(Socket* socket);
[[nodiscard]] uint16_t socketPeerPort(Socket* socket);
[[nodiscard]] uint16_t socketBoundPort(Socket* socket);

// Bytes that were written and that the peer's system hasn't confirmed; also of a connection that is
// lost. 0 for a socket that is closed.
[[nodiscard]] uint32_t socketUnconfirmedBytes(Socket* socket);

// Has the peer ended its side in order, and broken nothing off?
[[nodiscard]] bool socketPeerHasEnded(Socket* socket);

// Does a connected socket's peer run on this machine?
[[nodiscard]] bool socketPeerIsHere(Socket* socket);

// The handle, for polls of one's own; valid while the socket isn't closed.
[[nodiscard]] int socketHandle(Socket* socket);

// Bytes a second over the last ten; the first call starts the count.
[[nodiscard]] double socketRate(Socket* socket, SocketDirection direction);
