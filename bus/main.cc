#include "bus/bus.h"

int main(int argc, char** argv) {
    return busMain(argc, argv);
}
