// The other end of a connection under test, plain system sockets on the loopback; and a peer of
// reliable endpoints, whose packets are written and read by hand.

#pragma once

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>

#include "lib/base/bytes.h"
#include "tests/support/message_values.h"

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

struct DatagramWire {
    OwnHandle handle{socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)};
    sockaddr_in other = {};
    uint16_t port = 0;

    DatagramWire() {
        sockaddr_in own = {};
        own.sin_family = AF_INET;
        own.sin_addr.s_addr = kLoopbackHost;
        other = own;
        socklen_t size = sizeof own;
        EXPECT_EQ(bind(handle.number(), reinterpret_cast<sockaddr*>(&own), size), 0);
        EXPECT_EQ(getsockname(handle.number(), reinterpret_cast<sockaddr*>(&own), &size), 0);
        port = ntohs(own.sin_port);
    }

    struct Header {
        uint32_t source, dest;
        uint64_t seq, ack;
        uint8_t flags;
    };
    void write(const Header& header, const Bytes& payload = {}) const {
        Bytes bytes(32);
        storeBe32At(bytes.data(), header.source);
        storeBe32At(bytes.data() + 4, header.dest);
        storeBe64At(bytes.data() + 8, header.seq);
        storeBe64At(bytes.data() + 16, header.ack);
        bytes[24] = header.flags;
        storeBe16At(bytes.data() + 26, 32);
        storeBe16At(bytes.data() + 30, checksum(bytes));
        bytes = bytes + payload;
        EXPECT_EQ(sendto(handle.number(), bytes.data(), bytes.size(), 0,
                         reinterpret_cast<const sockaddr*>(&other), sizeof other),
                  static_cast<ssize_t>(bytes.size()));
    }

    // The next datagram's header, and the rest of it; an empty rest for none within ten seconds.
    Header read(Bytes* rest = nullptr) {
        Bytes bytes(2000);
        pollfd polled = {.fd = handle.number(), .events = POLLIN, .revents = 0};
        socklen_t size = sizeof other;
        const ssize_t got = poll(&polled, 1, 10'000) == 1
                                ? recvfrom(handle.number(), bytes.data(), bytes.size(), 0,
                                           reinterpret_cast<sockaddr*>(&other), &size)
                                : 0;
        EXPECT_GE(got, 32);
        bytes.resize(static_cast<size_t>(got));
        if (got < 32) return {};
        EXPECT_EQ(loadBe16At(bytes.data() + 26), 32) << "the window";
        EXPECT_TRUE(bytes[25] == 0 && bytes[28] == 0 && bytes[29] == 0);
        EXPECT_EQ(loadBe16At(bytes.data() + 30), checksum(bytes));
        if (rest != nullptr) rest->assign(bytes.begin() + 32, bytes.end());
        return {loadBe32At(bytes.data()), loadBe32At(bytes.data() + 4),
                loadBe64At(bytes.data() + 8), loadBe64At(bytes.data() + 16), bytes[24]};
    }

    // Answers the endpoint's SYN; its id.
    uint32_t accept() {
        const Header syn = read();
        EXPECT_TRUE(syn.dest == 0 && syn.seq == 1 && syn.ack == 0 && syn.flags == 2);
        write({kId, syn.source, 1, 2, 2});
        return syn.source;
    }

    static constexpr uint32_t kId = 0x1234;

  private:
    static uint16_t checksum(const Bytes& bytes) {
        uint32_t sum = 0;
        for (size_t i = 0; i < 16; ++i)
            sum += bytes[i];
        return static_cast<uint16_t>(~sum);
    }
};
