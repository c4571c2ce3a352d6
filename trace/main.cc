#include "lib/base/huge_heap.h"
#include "trace/run/run.h"

int main(int argc, char** argv) {
    hugeHeapPrefer();
    return traceMain(argc, argv);
}
