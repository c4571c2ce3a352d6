// What messages cost a program that sends and receives them, beside msgpack doing the same work
// where it is installed, and pool chunks beside the heap.
//
// There are two kinds of message: ten integers, three of which are read, and five fields of as many
// types, all of which are read. msgpack's is a map with the same names. Sizes aren't compared,
// since the two wire images carry different things.

#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "lib/msg/buffer.h"
#include "lib/msg/message_internal.h"
#include "lib/msg/message_typed.h"
#include "lib/msg/pool.h"
#include "lib/msg/text.h"
#ifdef PELMO_BENCH_MSGPACK
#include <msgpack.h>
#endif

namespace {

void check(bool good) {
    if (!good) std::abort();
}

void check(pelmoStatus status) {
    check(status == kStatusSuccess);
}

// The pools as the library opens them, for the life of the process.
void openPools() {
    static const bool open = [] {
        check(poolManagerOpen(1));
        check(bufferPoolCreate());
        check(msgPoolCreate());
        return true;
    }();
    benchmark::DoNotOptimize(open);
    poolThreadEnter();
}

// Argument: chunks in use at a time. They have about the size of a message object.
constexpr size_t kChunkBytes = 432;
constexpr int64_t kMostChunks = 64;

template <typename Take, typename Give>
void takeAndGive(benchmark::State& state, Take take, Give give) {
    void* chunks[kMostChunks];
    const int64_t count = state.range(0);
    for (auto _ : state) {
        for (int64_t i = 0; i < count; ++i) {
            chunks[i] = take();
            *static_cast<int64_t*>(chunks[i]) = i;
        }
        benchmark::DoNotOptimize(chunks);
        for (int64_t i = 0; i < count; ++i) {
            give(chunks[i]);
        }
    }
    state.SetItemsProcessed(state.iterations() * count);
}

void chunkFromPool(benchmark::State& state) {
    openPools();
    static ChunkPool* const pool = poolCreate(1000, kChunkBytes, kChunkBytes - 8, nullptr, nullptr,
                                              1, 100, __FILE__, __LINE__);
    takeAndGive(
        state, [] { return poolTake(pool, __FILE__, __LINE__); },
        [](void* chunk) { poolGive(pool, chunk, __FILE__, __LINE__); });
    poolThreadLeave();
}
BENCHMARK(chunkFromPool)->Arg(1)->Arg(kMostChunks)->Threads(1)->Threads(2);

void chunkFromHeap(benchmark::State& state) {
    takeAndGive(
        state, [] { return std::malloc(kChunkBytes); }, [](void* chunk) { std::free(chunk); });
}
BENCHMARK(chunkFromHeap)->Arg(1)->Arg(kMostChunks)->Threads(1)->Threads(2);

// Each kind of message says how its fields are added and read here, and packed and found below.

struct Integers {
    static constexpr const char* kNames[] = {
        "price.bid",  "price.ask", "volume.total", "trade.count", "open.day",
        "close.last", "high.day",  "low.day",      "sequence",    "venue.code"};
    static constexpr const char* kWanted[] = {"price.ask", "trade.count", "venue.code"};

    static void add(pelmoMsg* msg) {
        int32_t value = 1000;
        for (const char* name : kNames) {
            check(pelmoMsg_AddI32(msg, name, value += 100003, 0));
        }
    }

    static void read(pelmoMsg* msg) {
        for (const char* name : kWanted) {
            int32_t value = 0;
            check(pelmoMsg_GetI32(msg, name, &value, 0));
            benchmark::DoNotOptimize(value);
        }
    }
};

// The values of five mixed fields.
struct Quote {
    const char* symbol = "NYSE.ACME.COMMON";
    int32_t volume = 1200345;
    double price = 101.0625;
    pelmoMsgDateTime time{1700000000, 123456000};
    uint8_t signature[32] = {7, 8, 9};
};

struct Mixed {
    static void add(pelmoMsg* msg) {
        Quote quote;
        benchmark::DoNotOptimize(quote);
        check(pelmoMsg_AddString(msg, "symbol", quote.symbol, 0));
        check(pelmoMsg_AddI32(msg, "volume", quote.volume, 0));
        check(pelmoMsg_AddF64(msg, "price.last", quote.price, 0));
        check(pelmoMsg_AddDateTime(msg, "trade.time", &quote.time, 0));
        check(pelmoMsg_AddOpaque(msg, "signature", quote.signature, sizeof quote.signature, 0));
    }

    static void read(pelmoMsg* msg) {
        Quote quote;
        const void* signature = nullptr;
        uint32_t signatureBytes = 0;
        check(pelmoMsg_GetString(msg, "symbol", &quote.symbol, 0));
        check(pelmoMsg_GetI32(msg, "volume", &quote.volume, 0));
        check(pelmoMsg_GetF64(msg, "price.last", &quote.price, 0));
        check(pelmoMsg_GetDateTime(msg, "trade.time", &quote.time, 0));
        check(pelmoMsg_GetOpaque(msg, "signature", &signature, &signatureBytes, 0));
        check(signatureBytes == sizeof quote.signature);
        benchmark::DoNotOptimize(quote);
        benchmark::DoNotOptimize(signature);
    }
};

template <typename Kind>
pelmoMsg* makeMessage() {
    openPools();
    pelmoMsg* msg = nullptr;
    check(pelmoMsg_Create(&msg));
    Kind::add(msg);
    return msg;
}

// Makes a message over received bytes and reads fields of it by name.
template <typename Kind>
void receiveMessage(benchmark::State& state) {
    pelmoMsg* sent = makeMessage<Kind>();
    Buffer* received = msgFlushBuffer(sent);
    for (auto _ : state) {
        pelmoMsg* msg = nullptr;
        check(msgCreateOverBuffer(&msg, received, 0));
        Kind::read(msg);
        msgRelease(msg);
    }
    msgRelease(sent);
}
BENCHMARK(receiveMessage<Integers>);
BENCHMARK(receiveMessage<Mixed>);

// One object, emptied for each message.
template <typename Kind>
void buildMessage(benchmark::State& state) {
    pelmoMsg* msg = makeMessage<Kind>();
    for (auto _ : state) {
        check(pelmoMsg_Reset(msg));
        Kind::add(msg);
        const void* bytes = nullptr;
        check(pelmoMsg_GetAsBytes(msg, &bytes));
        benchmark::DoNotOptimize(bytes);
    }
    msgRelease(msg);
}
BENCHMARK(buildMessage<Integers>);
BENCHMARK(buildMessage<Mixed>);

// A new object for each message.
template <typename Kind>
void buildNewMessage(benchmark::State& state) {
    openPools();
    for (auto _ : state) {
        pelmoMsg* msg = nullptr;
        check(pelmoMsg_Create(&msg));
        Kind::add(msg);
        const void* bytes = nullptr;
        check(pelmoMsg_GetAsBytes(msg, &bytes));
        benchmark::DoNotOptimize(bytes);
        msgRelease(msg);
    }
}
BENCHMARK(buildNewMessage<Integers>);
BENCHMARK(buildNewMessage<Mixed>);

void textOfMessage(benchmark::State& state) {
    pelmoMsg* msg = makeMessage<Integers>();
    for (auto _ : state) {
        const char* text = nullptr;
        check(pelmoMsg_MarkReferences(msg));
        check(pelmoMsg_ConvertToString(msg, &text));
        benchmark::DoNotOptimize(text);
        pelmoMsg_ClearReferences(msg);
    }
    msgRelease(msg);
}
BENCHMARK(textOfMessage);

#ifdef PELMO_BENCH_MSGPACK

void packText(msgpack_packer& packer, const char* text) {
    const size_t length = std::strlen(text);
    msgpack_pack_str(&packer, length);
    msgpack_pack_str_body(&packer, text, length);
}

const msgpack_object& packedValue(const msgpack_object_map& map, const char* name) {
    const size_t length = std::strlen(name);
    for (uint32_t i = 0; i < map.size; ++i) {
        const msgpack_object_str& key = map.ptr[i].key.via.str;
        if (key.size == length && std::memcmp(key.ptr, name, length) == 0) return map.ptr[i].val;
    }
    std::abort();
}

int32_t packedInteger(const msgpack_object& value) {
    check(value.type == MSGPACK_OBJECT_POSITIVE_INTEGER && value.via.u64 <= INT32_MAX);
    return static_cast<int32_t>(value.via.u64);
}

struct PackedIntegers {
    static void pack(msgpack_packer& packer) {
        msgpack_pack_map(&packer, std::size(Integers::kNames));
        int32_t value = 1000;
        for (const char* name : Integers::kNames) {
            packText(packer, name);
            msgpack_pack_int32(&packer, value += 100003);
        }
    }

    static void read(const msgpack_object_map& map) {
        for (const char* name : Integers::kWanted) {
            benchmark::DoNotOptimize(packedInteger(packedValue(map, name)));
        }
    }
};

struct PackedMixed {
    static void pack(msgpack_packer& packer) {
        Quote quote;
        benchmark::DoNotOptimize(quote);
        msgpack_pack_map(&packer, 5);
        packText(packer, "symbol");
        packText(packer, quote.symbol);
        packText(packer, "volume");
        msgpack_pack_int32(&packer, quote.volume);
        packText(packer, "price.last");
        msgpack_pack_double(&packer, quote.price);
        packText(packer, "trade.time");
        const msgpack_timestamp time{quote.time.seconds, quote.time.nanoseconds};
        msgpack_pack_timestamp(&packer, &time);
        packText(packer, "signature");
        msgpack_pack_bin_with_body(&packer, quote.signature, sizeof quote.signature);
    }

    static void read(const msgpack_object_map& map) {
        Quote quote;
        // A msgpack text has no NUL.
        const msgpack_object& symbol = packedValue(map, "symbol");
        check(symbol.type == MSGPACK_OBJECT_STR);
        quote.symbol = symbol.via.str.ptr;
        quote.volume = packedInteger(packedValue(map, "volume"));
        const msgpack_object& price = packedValue(map, "price.last");
        check(price.type == MSGPACK_OBJECT_FLOAT64);
        quote.price = price.via.f64;
        msgpack_timestamp time;
        check(msgpack_object_to_timestamp(&packedValue(map, "trade.time"), &time));
        quote.time = {time.tv_sec, time.tv_nsec};
        const msgpack_object& signature = packedValue(map, "signature");
        check(signature.type == MSGPACK_OBJECT_BIN &&
              signature.via.bin.size == sizeof quote.signature);
        benchmark::DoNotOptimize(quote);
        benchmark::DoNotOptimize(signature.via.bin.ptr);
    }
};

// msgpack is made of calls, as the compiler leaves them where a program packs in many places. In a
// program that packs in one place alone it may fold a whole message into its caller: a lower bound.
template <typename Kind>
struct Folded : Kind {
    static constexpr bool kIsFolded = true;
};

template <typename Kind>
struct Packed {
    Packed() {
        msgpack_sbuffer_init(&bytes);
        pack();
    }
    Packed(const Packed&) = delete;
    Packed& operator=(const Packed&) = delete;
    ~Packed() { msgpack_sbuffer_destroy(&bytes); }

    void pack() {
        if constexpr (requires { Kind::kIsFolded; }) {
            packFolded();
        } else {
            packByCalls();
        }
    }

    [[gnu::flatten]] void packFolded() { packByCalls(); }

    void packByCalls() {
        msgpack_packer packer;
        msgpack_packer_init(&packer, &bytes, msgpack_sbuffer_write);
        Kind::pack(packer);
    }

    msgpack_sbuffer bytes;
};

template <typename Kind>
void receiveMsgpack(benchmark::State& state) {
    const Packed<Kind> packed;
    for (auto _ : state) {
        msgpack_unpacked unpacked;
        msgpack_unpacked_init(&unpacked);
        size_t offset = 0;
        check(msgpack_unpack_next(&unpacked, packed.bytes.data, packed.bytes.size, &offset) ==
              MSGPACK_UNPACK_SUCCESS);
        Kind::read(unpacked.data.via.map);
        msgpack_unpacked_destroy(&unpacked);
    }
}
BENCHMARK(receiveMsgpack<PackedIntegers>);
BENCHMARK(receiveMsgpack<PackedMixed>);

template <typename Kind>
void buildMsgpack(benchmark::State& state) {
    Packed<Kind> packed;
    for (auto _ : state) {
        msgpack_sbuffer_clear(&packed.bytes);
        packed.pack();
        benchmark::DoNotOptimize(packed.bytes.data);
    }
}
BENCHMARK(buildMsgpack<PackedIntegers>);
BENCHMARK(buildMsgpack<PackedMixed>);
BENCHMARK(buildMsgpack<Folded<PackedIntegers>>);
BENCHMARK(buildMsgpack<Folded<PackedMixed>>);

template <typename Kind>
void buildNewMsgpack(benchmark::State& state) {
    for (auto _ : state) {
        const Packed<Kind> packed;
        benchmark::DoNotOptimize(packed.bytes.data);
    }
}
BENCHMARK(buildNewMsgpack<PackedIntegers>);
BENCHMARK(buildNewMsgpack<PackedMixed>);
BENCHMARK(buildNewMsgpack<Folded<PackedIntegers>>);
BENCHMARK(buildNewMsgpack<Folded<PackedMixed>>);

void textOfMsgpack(benchmark::State& state) {
    const Packed<PackedIntegers> packed;
    msgpack_unpacked unpacked;
    msgpack_unpacked_init(&unpacked);
    size_t offset = 0;
    check(msgpack_unpack_next(&unpacked, packed.bytes.data, packed.bytes.size, &offset) ==
          MSGPACK_UNPACK_SUCCESS);
    char text[1024];
    for (auto _ : state) {
        check(msgpack_object_print_buffer(text, sizeof text, unpacked.data) > 0);
        benchmark::DoNotOptimize(text);
    }
    msgpack_unpacked_destroy(&unpacked);
}
BENCHMARK(textOfMsgpack);

#endif

}  // namespace
