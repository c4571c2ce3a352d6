// The compiled half of the package pelmo. What programs see of it is Message alone; the rest is for
// the package's own Python.

#include <poll.h>
#include <pybind11/stl.h>

#include <cerrno>
#include <cmath>
#include <ctime>
#include <memory>

#include "python/native/errors.h"
#include "python/native/intake.h"
#include "python/native/library.h"
#include "python/native/link.h"
#include "python/native/message.h"
#include "python/native/message_type.h"
#include "python/native/to_python.h"

namespace {

struct FreeIntake {
    void operator()(Intake* intake) const {
        intakeFree(intake, libraryIsLost());
        delete intake;
    }
};
using IntakeHolder = std::unique_ptr<Intake, FreeIntake>;

int64_t clockNs(clockid_t clock) {
    timespec now{};
    clock_gettime(clock, &now);
    return int64_t{now.tv_sec} * 1'000'000'000 + now.tv_nsec;
}

IntakeHolder makeIntake(uint32_t limit, bool dropOldest) {
    libraryNeed();
    IntakeHolder intake(new Intake);
    check(intakeOpen(intake.get(), limit, dropOldest), "a queue");
    return intake;
}

// The messages that wait, up to some hundreds; an empty list for none. Those that have been taken
// are destroyed if a list can't be had.
py::list take(Intake& intake) {
    if (intake.closed) return py::list();
    libraryNeed();
    TakenMessages messages;
    const uint32_t count = intakeTake(&intake, messages);
    const int64_t now = count != 0 ? clockNs(CLOCK_REALTIME) : 0;
    uint32_t done = 0;
    try {
        py::list list(count);
        while (done < count) {
            pelmoMsg* const msg = messages[done++];
            PyList_SET_ITEM(list.ptr(), done - 1, messageMake(msg, now).release().ptr());
        }
        return list;
    } catch (...) {
        while (done < count)
            pelmoMsg_Destroy(messages[done++]);
        throw;
    }
}

// Without the interpreter's lock. A signal's handler of Python's runs before the wait goes on, and
// ends it by an exception.
bool waitReadable(int fd, int64_t deadlineNs) {
    for (;;) {
        const int64_t left = deadlineNs - clockNs(CLOCK_MONOTONIC);
        const int64_t rest = left > 0 ? left : 0;
        const timespec limit{rest / 1'000'000'000, rest % 1'000'000'000};
        pollfd watched{fd, POLLIN, 0};
        PyThreadState* const thread = PyEval_SaveThread();
        const int ready = ppoll(&watched, 1, deadlineNs == INT64_MAX ? nullptr : &limit, nullptr);
        const bool interrupted = ready < 0 && errno == EINTR;
        libraryEnterPython(thread);
        if (interrupted && PyErr_CheckSignals() != 0) raisePending();
        if (!interrupted) return ready > 0;
    }
}

int64_t deadlineOf(double seconds) {
    if (std::isnan(seconds)) raise(PyExc_ValueError, "the time limit is no number");
    if (seconds > 1e9) return INT64_MAX;
    return clockNs(CLOCK_MONOTONIC) + static_cast<int64_t>(std::fmax(seconds, 0) * 1e9);
}

// None means no limit. An empty list at the limit, and once it is closed.
py::list wait(py::object self, std::optional<double> seconds) {
    auto& intake = self.cast<Intake&>();
    const int64_t deadlineNs = seconds.has_value() ? deadlineOf(*seconds) : INT64_MAX;
    for (;;) {
        py::list list = take(intake);
        if (!list.empty() || intake.closed) return list;
        if (!waitReadable(intake.wakeFd, deadlineNs)) return list;
    }
}

void closeIntake(Intake& intake) {
    if (!libraryIsLost()) intakeClose(&intake);
}

void use(const py::dict& classes) {
    errorsUse(classes["error"]);
    messageUse(classes["Field"], classes["Raw"]);
    valuesUse(classes["xml"], classes["IPv4Address"]);
}

}  // namespace

PYBIND11_MODULE(_native, module) {
    messageDefine(module);
    linkDefine(module);
    py::class_<Intake, IntakeHolder>(module, "Intake")
        .def(py::init(&makeIntake))
        .def("take", &take)
        .def("wait", &wait)
        .def("quiet", [](Intake& self) { intakeQuiet(&self); })
        .def("close", &closeIntake)
        .def_property_readonly("fd", [](const Intake& self) { return self.wakeFd; })
        .def_property_readonly("closed", [](const Intake& self) { return self.closed; })
        .def_property_readonly("dropped", [](Intake& self) { return intakeDropped(&self); });
    module.def("use", &use);
    module.def("end", &libraryEnd);
    module.def("forked", &libraryForked);
    module.def("version", [] { return pelmo_Version(); });
    module.def("status_text", [](uint32_t status) { return pelmoStatus_GetText(status); });
}
