// Accounting of a queue for those who tune one: prints to the standard output stream what
// IPQ_ACCOUNTING asks for (lib/transport/ipq/ipq.h). Sizes are printed a hundred at a time, as one
// line of what was asked for and one of what was moved.
//
// Threads: no lock; the queue's serialises all calls.

#pragma once

#include <cstdint>

struct IpqStatistics;

inline constexpr uint32_t kAccountedSizes = 100;

enum IpqAccountingBit : uint32_t { kAccountSummary = 1, kAccountReads = 2, kAccountWrites = 4 };

struct SizeAccount {
    uint32_t count;
    uint32_t asked[kAccountedSizes];
    uint32_t moved[kAccountedSizes];
};

struct IpqAccounting {
    uint32_t bits;
    SizeAccount* reads;  // null unless wanted
    SizeAccount* writes;
};

// Reads the environment. Sizes that memory has no room for aren't accounted.
void accountingInit(IpqAccounting* accounting);
void accountingFree(IpqAccounting* accounting);

// Nothing happens for no account.
void accountSize(SizeAccount* account, uint32_t asked, uint32_t moved);

// The summary, if wanted.
void accountClose(const IpqAccounting* accounting,
                  const IpqStatistics& written,
                  const IpqStatistics& reads);
