// Socket classes: how a socket moves its bytes. Class 0 is plain TCP by the system's own calls;
// rows 1 to 4 of the table may be filled by others, row 3 being kept for a secure class.
//
// A class's functions are called with the socket's lock held and answer in layer codes. Each may be
// null, which means the plain call, or that the step isn't needed.
//
// Failure: a row takes a record once, and only one whose index is its own; socketClassRegister
// answers 0 otherwise.
//
// Threads: rows are filled before sockets of their class are made.

#pragma once

#include <cstdint>

#include "lib/transport/socket/gather_list.h"
#include "lib/transport/socket/layer_code.h"

struct Socket;

inline constexpr uint32_t kSocketClasses = 5;
inline constexpr uint32_t kPlainSocketClass = 0;
inline constexpr uint32_t kSecureSocketClass = 3;

struct SocketClass {
    uint32_t index = 0;  // its row, while that is in use

    // TCP is connected: begin what comes before the first byte. kSocketDone: the socket is
    // connected; kSocketWouldBlock: it is still connecting and is asked again when there is
    // something to read, or, in cross mode kReadNeedsWritable, when there is room to write.
    // Anything else fails the connect.
    SocketCode (*connected)(Socket* socket) = nullptr;
    SocketCode (*accepted)(Socket* socket) = nullptr;

    void (*closing)(Socket* socket) = nullptr;

    // `*out`: how many bytes moved, written only on success. A receive of 0 bytes with a
    // size above 0 means that the peer has closed.
    SocketCode (*send)(Socket* socket, const void* bytes, uint32_t size, uint32_t* out) = nullptr;
    SocketCode (*sendVector)(Socket* socket, const GatherList* list, uint32_t* out) = nullptr;
    SocketCode (*receive)(Socket* socket, void* bytes, uint32_t size, uint32_t* out) = nullptr;
};

// Rows 1 to 4; 1 on success.
uint32_t socketClassRegister(const SocketClass& record);

// One word of the socket for its class.
[[nodiscard]] void* socketUserData(Socket* socket);
void socketSetUserData(Socket* socket, void* userData);

// Null for a class that isn't in use.
[[nodiscard]] const SocketClass* socketClassFind(uint32_t index);
