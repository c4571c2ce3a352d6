#include "python/native/link.h"

#include <pybind11/stl.h>

#include <optional>
#include <string>

#include "python/native/from_python.h"
#include "python/native/to_python.h"

namespace {

// The library lets senders wait above its limit, 16 MiB. What waits is looked at after every so
// many bytes, and above half of the limit at each send, which then goes another way: so a send that
// is made here never meets the limit, and a program's own loop is never held up.
constexpr uint64_t kMuchWaitingBytes = 8u << 20;
constexpr uint64_t kLookAfterBytes = 256u << 10;
constexpr uint32_t kEnvelopeBytes = 100;
// A loop of sends lets others run after so many.
constexpr uint32_t kRestAfterSends = 256;
constexpr uint32_t kInboxBytes = 100;

// A message that has to wait for room: send() waits, on a thread that may.
struct Waiting {
    Waiting(uint32_t on, pelmoMsg* msg) : transport(on), message(msg) {}

    uint32_t transport;
    OwnMessage message;
};

template <typename Call>
pelmoStatus withoutInterpreter(Call call) {
    PyThreadState* const thread = PyEval_SaveThread();
    const pelmoStatus status = call();
    libraryEnterPython(thread);
    return status;
}

using OptionalText = std::optional<std::string>;

const char* orNull(const OptionalText& text) {
    return text.has_value() ? text->c_str() : nullptr;
}

std::unique_ptr<Link> connect(const OptionalText& service,
                              const OptionalText& network,
                              const OptionalText& daemon) {
    libraryNeed();
    auto link = std::make_unique<Link>();
    link->isDirect = service.has_value() && service->find(':') != std::string::npos;
    uint32_t transport = kNoId;
    const pelmoStatus status = withoutInterpreter([&] {
        return pelmoTransport_CreateNetwork(&transport, orNull(service), orNull(network),
                                            orNull(daemon));
    });
    check(status, orNull(daemon) != nullptr ? orNull(daemon) : "the daemon of this host");
    link->transport = transport;
    return link;
}

std::unique_ptr<Link> inProcess() {
    libraryNeed();
    auto link = std::make_unique<Link>();
    link->transport = kIntraProcessTransportId;
    link->isNetwork = false;
    return link;
}

void need(const Link& link) {
    libraryNeed();
    if (link.isClosed) raiseStatus(kStatusInvalidTransport, "the bus is closed");
}

// The transport of this process belongs to all.
void closeLink(Link& link, std::optional<double> seconds) {
    if (link.isClosed || libraryIsLost()) return;
    link.isClosed = true;
    if (!link.isNetwork) return;
    const uint32_t transport = link.transport;
    check(withoutInterpreter([=] {
              return seconds.has_value() ? pelmoTransport_DestroyWithin(transport, *seconds)
                                         : pelmoTransport_Destroy(transport);
          }),
          "closing");
}

// A message to build in, empty. Nothing is built in it while another one is.
pelmoMsg* scratchOf(Link& link) {
    if (link.scratch == nullptr) check(pelmoMsg_Create(&link.scratch), "a new message");
    check(pelmoMsg_Reset(link.scratch), "a new message");
    return link.scratch;
}

void address(pelmoMsg* msg, const Text& subject, PyObject* reply) {
    check(pelmoMsg_SetSendSubject(msg, subject.get()), subject.get());
    if (reply == Py_None) return;
    const Text text(reply);
    check(pelmoMsg_SetReplySubject(msg, text.whole().get()), text.get());
}

// The scratch message is taken away while it is built: values may have code of their own, which may
// send.
OwnMessage build(
    Link& link, const Text& subject, PyObject* source, PyObject* more, PyObject* reply) {
    const Message* const whole = messageOf(source);
    if (whole != nullptr && PyDict_GET_SIZE(more) == 0) {
        pelmoMsg* copy = nullptr;
        check(pelmoMsg_CreateCopy(whole->msg, &copy), "a copy of the message");
        OwnMessage own(copy);
        address(copy, subject, reply);
        return OwnMessage(own.release());
    }
    OwnMessage own(scratchOf(link));
    link.scratch = nullptr;
    address(own.get(), subject, reply);
    fieldsAdd(own.get(), source);
    fieldsAdd(own.get(), more);
    return OwnMessage(own.release());
}

bool mustWait(Link& link, pelmoMsg* msg) {
    uint32_t sizeBytes = 0;
    if (pelmoMsg_GetByteSize(msg, &sizeBytes) != kStatusSuccess) return false;
    link.bytesSinceLook += sizeBytes + kEnvelopeBytes;
    if (!link.isNetwork || link.bytesSinceLook < kLookAfterBytes) return false;
    pelmoUnsent unsent;
    const bool isMuch = pelmoTransport_GetUnsent(link.transport, &unsent) == kStatusSuccess &&
                        unsent.waitingBytes > kMuchWaitingBytes;
    if (!isMuch) link.bytesSinceLook = 0;
    return isMuch;
}

pelmoStatus sendNow(const Link& link, pelmoMsg* msg) {
    const uint32_t transport = link.transport;
    if (!link.isDirect) return pelmoTransport_Send(transport, msg);
    return withoutInterpreter([=] { return pelmoTransport_Send(transport, msg); });
}

// None; True where it is time to let others run; or the message, where it has to wait for room.
py::object send(
    Link& link, py::handle subject, py::handle source, py::handle more, py::handle reply) {
    need(link);
    const Text text(subject.ptr());
    OwnMessage own = build(link, text.whole(), source.ptr(), more.ptr(), reply.ptr());
    if (mustWait(link, own.get()))
        return py::cast(std::make_unique<Waiting>(link.transport, own.release()));
    check(sendNow(link, own.get()), text.get());
    if (link.scratch == nullptr) link.scratch = own.release();
    if (++link.sendsSinceRest < kRestAfterSends) return py::none();
    link.sendsSinceRest = 0;
    return py::bool_(true);
}

std::string inbox(const Link& link) {
    need(link);
    char text[kInboxBytes];
    check(pelmoTransport_CreateInbox(link.transport, text, sizeof text), "an inbox");
    return text;
}

py::dict unsentOf(const Link& link) {
    need(link);
    pelmoUnsent unsent{};
    if (link.isNetwork) check(pelmoTransport_GetUnsent(link.transport, &unsent), "what is unsent");
    py::dict dict;
    dict["waiting_messages"] = unsent.waitingMessages;
    dict["waiting_bytes"] = unsent.waitingBytes;
    dict["lost_messages"] = unsent.lostMessages;
    dict["lost_bytes"] = unsent.lostBytes;
    return dict;
}

void listen(const Link& link, Intake& intake, py::handle subject) {
    need(link);
    if (intake.closed) raiseStatus(kStatusInvalidQueue, "the subscription is closed");
    const Text text(subject.ptr());
    check(intakeListen(&intake, link.transport, text.whole().get()), text.get());
}

void describe(const Link& link, const std::string& text) {
    need(link);
    if (link.isNetwork)
        check(pelmoTransport_SetDescription(link.transport, text.c_str()), "the description");
}

void setEcho(const Link& link, bool echo) {
    need(link);
    if (link.isNetwork) check(pelmoTransport_SetEcho(link.transport, echo), "the echo");
}

}  // namespace

Link::~Link() {
    if (libraryIsLost()) return;
    if (scratch != nullptr) pelmoMsg_Destroy(scratch);
    // A bus that was forgotten: what was sent last is usually gone within milliseconds.
    if (!isClosed && isNetwork && transport != kNoId) pelmoTransport_DestroyWithin(transport, 1);
}

void linkDefine(py::module_& module) {
    py::class_<Waiting>(module, "Waiting").def("send", [](const Waiting& self) {
        pelmoMsg* const msg = self.message.get();
        check(withoutInterpreter([&] { return pelmoTransport_Send(self.transport, msg); }),
              "sending");
    });
    py::class_<Link>(module, "Link")
        .def(py::init(&connect))
        .def_static("in_process", &inProcess)
        .def("close", &closeLink)
        .def("send", &send)
        .def("inbox", &inbox)
        .def("listen", &listen)
        .def("unsent", &unsentOf)
        .def("describe", &describe)
        .def("set_echo", &setEcho);
}
