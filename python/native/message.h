// A message of the library's that an object of Python's holds. message_type.h has what programs see
// of it.
//
// Threads: with the interpreter's lock, which is all that keeps two threads from one message.

#pragma once

#include <cstdint>

#include "python/native/errors.h"
#include "python/native/library.h"

struct Message {
    Message(pelmoMsg* message, int64_t takenAt) : msg(message), takenAtNs(takenAt) {}
    Message(const Message&) = delete;
    Message& operator=(const Message&) = delete;
    ~Message() {
        if (!libraryIsLost()) pelmoMsg_Destroy(msg);
    }

    pelmoMsg* msg;
    int64_t takenAtNs;  // since 1970; 0 for a message of this program's own
};

// A message that is being built, until it is given away.
class OwnMessage {
  public:
    OwnMessage() { check(pelmoMsg_Create(&msg_), "a new message"); }
    explicit OwnMessage(pelmoMsg* msg) : msg_(msg) {}
    OwnMessage(const OwnMessage&) = delete;
    OwnMessage& operator=(const OwnMessage&) = delete;
    ~OwnMessage() {
        if (msg_ != nullptr) pelmoMsg_Destroy(msg_);
    }
    [[nodiscard]] pelmoMsg* get() const { return msg_; }
    pelmoMsg* release() {
        pelmoMsg* const msg = msg_;
        msg_ = nullptr;
        return msg;
    }

  private:
    pelmoMsg* msg_ = nullptr;
};

// Takes the message over, on failure too.
[[nodiscard]] py::object messageMake(pelmoMsg* msg, int64_t takenAtNs);

// Null for any other object.
[[nodiscard]] Message* messageOf(PyObject* object);
