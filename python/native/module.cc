// The compiled half of the package pelmo. What programs see of it is Message alone; the rest is for
// the package's own Python.

#include <poll.h>
#include <pybind11/stl.h>
#include <signal.h>

#include <algorithm>
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

// Keeps signals for the poll, which takes them in one step with its wait. One that came just before
// it would go unnoticed otherwise.
class SignalsLater {
  public:
    SignalsLater() {
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, &before_);
    }
    SignalsLater(const SignalsLater&) = delete;
    SignalsLater& operator=(const SignalsLater&) = delete;
    ~SignalsLater() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
    [[nodiscard]] const sigset_t* before() const { return &before_; }

  private:
    sigset_t before_;
};

enum class Wait { kReadable, kTimeout, kInterrupted };

Wait waitOnce(int fd, int64_t deadlineNs) {
    const SignalsLater later;
    if (PyErr_CheckSignals() != 0) raisePending();
    const int64_t rest = std::max<int64_t>(deadlineNs - clockNs(CLOCK_MONOTONIC), 0);
    const timespec limit{rest / 1'000'000'000, rest % 1'000'000'000};
    pollfd watched{fd, POLLIN, 0};
    PyThreadState* const thread = PyEval_SaveThread();
    const int ready =
        ppoll(&watched, 1, deadlineNs == INT64_MAX ? nullptr : &limit, later.before());
    const bool interrupted = ready < 0 && errno == EINTR;
    libraryEnterPython(thread);
    if (interrupted) return Wait::kInterrupted;
    return ready > 0 ? Wait::kReadable : Wait::kTimeout;
}

// Without the interpreter's lock. A signal's handler of Python's runs before the wait goes on, and
// ends it by an exception.
bool waitReadable(int fd, int64_t deadlineNs) {
    Wait wait = Wait::kInterrupted;
    while (wait == Wait::kInterrupted)
        wait = waitOnce(fd, deadlineNs);
    return wait == Wait::kReadable;
}

int64_t deadlineOf(double seconds) {
    if (std::isnan(seconds)) raise(PyExc_ValueError, "the time limit is no number");
    if (seconds > 1e9) return INT64_MAX;
    return clockNs(CLOCK_MONOTONIC) + static_cast<int64_t>(std::fmax(seconds, 0) * 1e9);
}

// Until there is something to take, or it is closed; False at the limit, of which None is none.
bool wait(const py::object& self, std::optional<double> seconds) {
    const auto& intake = self.cast<Intake&>();
    return waitReadable(intake.wakeFd, seconds.has_value() ? deadlineOf(*seconds) : INT64_MAX);
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
