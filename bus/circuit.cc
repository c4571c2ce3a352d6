#include "bus/complain.h"
#include "bus/run_commands.h"

namespace {

ExitStatus refuse(const char* what) {
    complain(std::string(what) + ": this version of the library has no virtual circuits");
    return kExitFailed;
}

}  // namespace

ExitStatus runCircuitAccept(const BusSettings&) {
    return refuse("circuit accept");
}

ExitStatus runCircuitConnect(const BusSettings&) {
    return refuse("circuit connect");
}
