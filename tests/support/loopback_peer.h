// The other end of a connection under test: plain system sockets on the loopback.

#pragma once

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>

inline const uint32_t kLoopbackHost = htonl(INADDR_LOOPBACK);

// A descriptor, closed at the end of the scope; -1 for none.
class OwnHandle {
  public:
    explicit OwnHandle(int number = -1) : handle(number) {}
    OwnHandle(OwnHandle&& other) noexcept : handle(other.take()) {}
    OwnHandle& operator=(OwnHandle&& other) noexcept {
        shut();
        handle = other.take();
        return *this;
    }
    ~OwnHandle() { shut(); }

    [[nodiscard]] int number() const { return handle; }
    [[nodiscard]] int take() {
        const int taken = handle;
        handle = -1;
        return taken;
    }
    void shut() {
        if (handle >= 0) close(take());
    }

  private:
    int handle;
};

// A port that listens.
struct LoopbackListener {
    // `wanted` 0: any port that is free.
    explicit LoopbackListener(int backlog = 16, uint16_t wanted = 0)
        : handle(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in own = {};
        own.sin_family = AF_INET;
        own.sin_addr.s_addr = kLoopbackHost;
        own.sin_port = htons(wanted);
        const int on = 1;
        setsockopt(handle.number(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
        socklen_t size = sizeof(own);
        EXPECT_EQ(bind(handle.number(), reinterpret_cast<sockaddr*>(&own), size), 0);
        EXPECT_EQ(listen(handle.number(), backlog), 0);
        EXPECT_EQ(getsockname(handle.number(), reinterpret_cast<sockaddr*>(&own), &size), 0);
        port = own.sin_port;
    }

    [[nodiscard]] OwnHandle take() const {
        return OwnHandle(accept4(handle.number(), nullptr, nullptr, SOCK_CLOEXEC));
    }

    OwnHandle handle;
    uint16_t port = 0;  // in network order
};

inline void sendText(int handle, const std::string& text) {
    EXPECT_EQ(send(handle, text.data(), text.size(), MSG_NOSIGNAL),
              static_cast<ssize_t>(text.size()));
}

// Waits for so many bytes, or the end of the stream.
inline std::string receiveText(int handle, size_t size) {
    std::string text(size, '\0');
    const ssize_t got = recv(handle, text.data(), size, MSG_WAITALL);
    text.resize(got > 0 ? static_cast<size_t>(got) : 0);
    return text;
}
