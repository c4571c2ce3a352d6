// Huge pages for the heap. The statistics of a large bus are tens of megabytes that each packet
// touches at random: with 4 KiB pages, finding the page costs more than fetching the record.
//
// The heap grows in large steps and its unused rest is offered to the kernel for transparent huge
// pages (madvise(2), MADV_HUGEPAGE), where the system allows it on request. Only what is touched
// becomes resident. Without huge pages only the speed changes.
//
// Under a limit of addresses (RLIMIT_AS, RLIMIT_DATA, strict overcommit) the steps are a sixteenth
// of what is left at most, so that at most that much stays unusable.
//
// Threads: hugeHeapPrefer is called once from `main`, before any other thread starts; hugeHeapTrim
// by any thread.

#pragma once

void hugeHeapPrefer();

// Gives free memory back to the system, which the heap keeps otherwise, and offers the rest for
// huge pages again. Takes milliseconds, in which other threads may wait for memory.
void hugeHeapTrim();
