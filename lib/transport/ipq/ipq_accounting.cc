#include "lib/transport/ipq/ipq_accounting.h"

#include <cstdio>
#include <cstdlib>

#include "lib/transport/ipq/ipq_statistics.h"

namespace {

void printSizes(const uint32_t* sizes, uint32_t count) {
    for (uint32_t i = 0; i < count; ++i)
        std::printf("%7d", static_cast<int>(sizes[i]));
    std::printf("\n");
}

SizeAccount* makeAccount(uint32_t bits, uint32_t bit) {
    if ((bits & bit) == 0) return nullptr;
    return static_cast<SizeAccount*>(std::calloc(1, sizeof(SizeAccount)));
}

double share(double part, uint32_t whole) {
    return whole != 0 ? part / whole : 0;
}

void printAttempts(const char* title, const IpqStatistics& counts) {
    const auto bytes = static_cast<double>(counts.bytes);
    const auto messages = static_cast<double>(counts.messages);
    std::printf("\nIPQ - %s:\n", title);
    std::printf("  Processed %llu messages totalling %.0f bytes\n",
                static_cast<unsigned long long>(counts.messages), bytes);
    std::printf("  Used %d attempts with %d failures and %d partials\n",
                static_cast<int>(counts.attempts), static_cast<int>(counts.failures),
                static_cast<int>(counts.partials));
    std::printf("  Averaged %.2f bytes and %.2f messages per attempt\n",
                share(bytes, counts.attempts), share(messages, counts.attempts));
    std::printf("  Averaged %.2f bytes per write\n",
                share(bytes, counts.attempts - counts.failures));
}

}  // namespace

void accountSize(SizeAccount* account, uint32_t asked, uint32_t moved) {
    if (account == nullptr) return;
    account->asked[account->count] = asked;
    account->moved[account->count] = moved;
    if (++account->count < kAccountedSizes) return;
    printSizes(account->asked, kAccountedSizes);
    printSizes(account->moved, kAccountedSizes);
    account->count = 0;
}

void accountingInit(IpqAccounting* accounting) {
    const char* text = std::getenv("IPQ_ACCOUNTING");
    const uint32_t bits =
        text != nullptr ? static_cast<uint32_t>(std::strtoul(text, nullptr, 10)) : 0;
    *accounting = {.bits = bits,
                   .reads = makeAccount(bits, kAccountReads),
                   .writes = makeAccount(bits, kAccountWrites)};
}

void accountingFree(IpqAccounting* accounting) {
    std::free(accounting->reads);
    std::free(accounting->writes);
    *accounting = {};
}

void accountClose(const IpqAccounting* accounting,
                  const IpqStatistics& written,
                  const IpqStatistics& reads) {
    if ((accounting->bits & kAccountSummary) == 0) return;
    printAttempts("WRITE", written);
    std::printf("  %.1f%% failure rate, %.1f%% partial rate\n",
                100 * share(written.failures, written.attempts),
                100 * share(written.partials, written.attempts));
    std::printf("  %d zero sends.\n", static_cast<int>(written.zeroSends));
    printAttempts("READ", reads);
    (void)std::fflush(stdout);
}
