#include "trace/run.h"

int main(int argc, char** argv) {
    return traceMain(argc, argv);
}
