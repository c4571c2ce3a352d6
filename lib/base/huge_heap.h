// Huge pages for the heap. The statistics of a large bus are tens of megabytes that each packet
// touches at random: with 4 KiB pages, finding the page costs more than fetching the record.
//
// The heap grows in large steps and its unused rest is offered to the kernel for transparent huge
// pages (madvise(2), MADV_HUGEPAGE), where the system allows it to those who ask. Only what is
// touched becomes resident. Without huge pages nothing changes but the speed.
//
// Under a limit of addresses (RLIMIT_AS, RLIMIT_DATA, strict overcommit) the steps are a sixteenth
// of what is left at most, so that as little of it stays out of reach.
//
// Threads: ahead of all others, once, from `main`.

#pragma once

void hugeHeapPrefer();
