#include "python/native/message.h"

#include <memory>
#include <utility>

py::object messageMake(pelmoMsg* msg, int64_t takenAtNs) {
    OwnMessage own(msg);
    auto message = std::make_unique<Message>(msg, takenAtNs);
    own.release();
    return py::cast(std::move(message));
}

Message* messageOf(PyObject* object) {
    static PyTypeObject* const type =
        reinterpret_cast<PyTypeObject*>(py::type::of<Message>().inc_ref().ptr());
    if (!PyObject_TypeCheck(object, type)) return nullptr;
    return py::handle(object).cast<Message*>();
}
