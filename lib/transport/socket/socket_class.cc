#include "lib/transport/socket/socket_class.h"

namespace {

constinit SocketClass classes[kSocketClasses] = {};

}  // namespace

uint32_t socketClassRegister(const SocketClass& record) {
    const uint32_t row = record.index;
    if (row == kPlainSocketClass || row >= kSocketClasses || classes[row].index == row) return 0;
    classes[row] = record;
    return 1;
}

const SocketClass* socketClassFind(uint32_t index) {
    if (index >= kSocketClasses || classes[index].index != index) return nullptr;
    return &classes[index];
}
