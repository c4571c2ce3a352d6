#include "tests/support/test_daemon.h"

#include <netinet/tcp.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <utility>

#include "lib/base/bytes.h"
#include "lib/containers/subject.h"
#include "lib/containers/sublist.h"
#include "lib/msg/envelope_internal.h"
#include "lib/msg/message_typed.h"
#include "lib/msg/text.h"
#include "lib/transport/ipq/hello.h"
#include "tests/support/local_bus.h"

namespace {

constexpr auto kPatience = std::chrono::seconds(30);
constexpr size_t kHeadBytes = 8;

bool readAll(int socket, void* to, size_t size) {
    return recv(socket, to, size, MSG_WAITALL) == static_cast<ssize_t>(size);
}

bool writeAll(int socket, const void* from, size_t size) {
    const auto* at = static_cast<const uint8_t*>(from);
    while (size > 0) {
        const ssize_t moved = ::send(socket, at, size, MSG_NOSIGNAL);
        if (moved <= 0) return false;
        at += moved;
        size -= static_cast<size_t>(moved);
    }
    return true;
}

bool writeMessage(int socket, pelmoMsg* message) {
    (void)msgCloseEnvelope(message);
    const void* image = nullptr;
    uint32_t size = 0;
    return pelmoMsg_GetAsBytes(message, &image) == kStatusSuccess &&
           pelmoMsg_GetByteSize(message, &size) == kStatusSuccess && writeAll(socket, image, size);
}

// Reads no byte beyond those that are left to it.
struct Stream {
    int socket;
    int32_t left;  // negative: any number

    bool read(void* to, size_t size) {
        const bool ends = left >= 0 && size > static_cast<size_t>(left);
        const size_t wanted = ends ? static_cast<size_t>(left) : size;
        if (left >= 0) left -= static_cast<int32_t>(wanted);
        return readAll(socket, to, wanted) && !ends;
    }

    // Null at the end of the stream and for a close notice. Keep-alives are skipped.
    Message next() {
        Bytes image(kHeadBytes);
        do {
            if (!read(image.data(), kHeadBytes)) return nullptr;
        } while (loadBe32At(image.data()) == kHeadBytes);
        const uint32_t size = loadBe32At(image.data());
        if (size < kHeadBytes) return nullptr;
        image.resize(size);
        return read(image.data() + kHeadBytes, size - kHeadBytes) ? messageFrom(image) : nullptr;
    }
};

std::string fieldOf(pelmoMsg* message, const char* name) {
    const char* text = nullptr;
    return pelmoMsg_GetString(message, name, &text, 0) == kStatusSuccess ? text : "";
}

}  // namespace

struct TestDaemon::Client {
    int socket = -1;
    bool isOpen = true;
    bool isCutOff = false;
    SubjectList* interest = sublistCreate();
    std::mutex writing;
    std::thread thread;

    explicit Client(int accepted) : socket(accepted) {}
    ~Client() {
        if (thread.joinable()) thread.join();
        ::close(socket);
        sublistDestroy(interest);
    }
};

TestDaemon::TestDaemon(uint16_t port) : listener_(SOMAXCONN, port) {
    acceptor_ = std::thread([this] { accept(); });
}

TestDaemon::~TestDaemon() {
    shutdown(listener_.handle.number(), SHUT_RDWR);
    acceptor_.join();
    breakConnections();
    clients_.clear();
}

void TestDaemon::behave(const std::function<void(Manners&)>& change) {
    const std::lock_guard guard(mutex_);
    manners_ = {};
    change(manners_);
}

void TestDaemon::send(const char* subject, const char* text) {
    const Message message = messageOn(subject, text);
    passOn(message.get());
}

void TestDaemon::breakConnections() {
    const std::lock_guard guard(mutex_);
    for (Client& client : clients_) {
        client.isCutOff = true;
        shutdown(client.socket, SHUT_RDWR);
    }
    changed_.notify_all();
}

std::vector<std::string> TestDaemon::taken() {
    const std::lock_guard guard(mutex_);
    return std::exchange(told_, {});
}

std::vector<std::string> TestDaemon::await(size_t count) {
    std::unique_lock lock(mutex_);
    EXPECT_TRUE(changed_.wait_for(lock, kPatience, [&] { return told_.size() >= count; }));
    return std::exchange(told_, {});
}

std::vector<std::string> TestDaemon::await(const std::string& text) {
    std::unique_lock lock(mutex_);
    EXPECT_TRUE(changed_.wait_for(lock, kPatience, [&] {
        return std::find(told_.begin(), told_.end(), text) != told_.end();
    })) << text;
    return std::exchange(told_, {});
}

void TestDaemon::awaitAccepted(size_t count) {
    std::unique_lock lock(mutex_);
    EXPECT_TRUE(changed_.wait_for(lock, kPatience, [&] { return acceptedCount_ >= count; }));
}

void TestDaemon::awaitOpen(size_t count) {
    std::unique_lock lock(mutex_);
    EXPECT_TRUE(changed_.wait_for(lock, kPatience, [&] { return openCount_ == count; }));
}

void TestDaemon::accept() {
    for (;;) {
        const int accepted = listener_.take().take();
        if (accepted < 0) return;
        const int on = 1;
        setsockopt(accepted, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        const std::lock_guard guard(mutex_);
        // Ends the threads of those that are gone.
        clients_.remove_if([](const Client& gone) { return !gone.isOpen; });
        Client& client = clients_.emplace_back(accepted);
        ++openCount_;
        ++acceptedCount_;
        client.thread = std::thread([this, &client] { serve(&client); });
        changed_.notify_all();
    }
}

void TestDaemon::serve(Client* client) {
    Manners manners;
    {
        const std::lock_guard guard(mutex_);
        manners = manners_;
    }
    if (open(client, manners)) {
        Stream stream = {.socket = client->socket, .left = manners.bytesUntilBreak};
        for (int32_t count = 0; count != manners.messagesUntilDeaf; ++count) {
            const Message message = stream.next();
            if (message == nullptr) break;
            take(client, message.get(), manners);
            if (count + 1 != manners.messagesUntilDeaf) continue;
            std::unique_lock lock(mutex_);
            changed_.wait(lock, [&] { return client->isCutOff; });
        }
    }
    shutdown(client->socket, SHUT_RDWR);
    const std::lock_guard guard(mutex_);
    --openCount_;
    changed_.notify_all();
    client->isOpen = false;
}

bool TestDaemon::open(Client* client, const Manners& manners) {
    uint8_t words[12] = {};
    storeBe32At(words + 4, manners.greeting);
    if (manners.hangsUp) return false;
    HelloFrame frame = {};
    ipqHelloInit(&frame);
    if (!writeAll(client->socket, words, sizeof words) ||
        !readAll(client->socket, words, sizeof words) ||
        !writeAll(client->socket, frame.bytes, kHelloBytes)) {
        return false;
    }
    while (readAll(client->socket, frame.bytes, kHelloBytes)) {
        ipqHelloNegotiate(&frame);
        if (!writeAll(client->socket, frame.bytes, kHelloBytes)) return false;
        if (helloRead(frame).type == kHelloAgreed) return true;
    }
    return false;
}

bool TestDaemon::reply(Client* client, const Manners& manners) {
    const Message answer = newMessage(), data = newMessage();
    const DaemonVersion& version = manners.version;
    bool made = pelmoMsg_AddIPAddr32(data.get(), "ipaddr", htonl(INADDR_LOOPBACK), 0) == 0 &&
                pelmoMsg_AddIPPort16(data.get(), "ipport", listener_.port, 0) == 0 &&
                pelmoMsg_AddU16(data.get(), "cid", 0x2a, 0) == 0 &&
                pelmoMsg_AddI32(data.get(), "vmaj", static_cast<int32_t>(version.major), 0) == 0 &&
                pelmoMsg_AddI32(data.get(), "vmin", static_cast<int32_t>(version.minor), 0) == 0 &&
                pelmoMsg_AddI32(data.get(), "vupd", static_cast<int32_t>(version.update), 0) == 0 &&
                pelmoMsg_AddString(data.get(), "gob", manners.gob.c_str(), 0) == 0;
    made = made && pelmoMsg_AddString(answer.get(), "mtype", "R", 0) == 0 &&
           pelmoMsg_AddMsg(answer.get(), "data", data.get(), 0) == 0;
    const std::lock_guard guard(client->writing);
    return made && writeMessage(client->socket, answer.get());
}

void TestDaemon::take(Client* client, pelmoMsg* message, const Manners& manners) {
    const std::string kind = fieldOf(message, "mtype");
    const uint8_t* subject = nullptr;
    std::string words;
    if (pelmoMsg_GetSubject(message, "sub", &subject, 0) == kStatusSuccess) {
        char text[kSubjectTextBytes];
        words = subjectToText(text, sizeof text, subject);
    }
    if (kind == "I") {
        (void)reply(client, manners);
        const char* text = nullptr;
        (void)pelmoMsg_ConvertToString(message, &text);
        words = "start " + fieldOf(message, "session") + " " + std::strstr(text, "rc=");
    } else if (kind == "L" || kind == "C") {
        const std::lock_guard guard(mutex_);
        if (kind == "L") (void)sublistAdd(client->interest, subject, client, nullptr);
        if (kind == "C") (void)sublistRemove(client->interest, subject, nullptr, nullptr);
        words = kind + " " + words;
    } else {
        passOn(message);
        if (!words.empty()) (void)msgOpenEnvelope(message);
        const char* text = nullptr;
        (void)pelmoMsg_ConvertToString(message, &text);
        words += (words.empty() ? "" : " ") + std::string(text);
    }
    const std::lock_guard guard(mutex_);
    told_.push_back(words);
    changed_.notify_all();
}

void TestDaemon::passOn(pelmoMsg* message) {
    (void)msgCloseEnvelope(message);
    const uint8_t* subject = nullptr;
    if (pelmoMsg_GetSubject(message, "sub", &subject, 0) != kStatusSuccess) return;
    const std::lock_guard guard(mutex_);
    for (Client& client : clients_) {
        if (!client.isOpen || sublistMatch(client.interest, subject) == nullptr) continue;
        const std::lock_guard writing(client.writing);
        (void)writeMessage(client.socket, message);
    }
}
