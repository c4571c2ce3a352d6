#include "lib/base/huge_heap.h"
#include "watch/core/watch.h"
#include "watch/forms.h"

int main(int argc, char** argv) {
    hugeHeapPrefer();
    return watchMain(argc, argv, formsAll());
}
