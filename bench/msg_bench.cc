// What messages cost a program that sends and receives them, beside msgpack doing the same work
// where it is installed, and pool chunks beside the heap.
//
// Messages have ten integer fields with names of a dozen letters. Nothing is said about size: their
// wire image and msgpack's carry different things.

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

constexpr const char* kNames[] = {"price.bid", "price.ask",  "volume.total", "trade.count",
                                  "open.day",  "close.last", "high.day",     "low.day",
                                  "sequence",  "venue.code"};
constexpr const char* kWanted[] = {"price.ask", "trade.count", "venue.code"};

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

// Argument: chunks that are out at a time. A message object has about the size of these.
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

void addTen(pelmoMsg* msg) {
    int32_t value = 1000;
    for (const char* name : kNames) {
        check(pelmoMsg_AddI32(msg, name, value += 100003, 0));
    }
}

pelmoMsg* makeTen() {
    openPools();
    pelmoMsg* msg = nullptr;
    check(pelmoMsg_Create(&msg));
    addTen(msg);
    return msg;
}

// A message over the bytes as they came off the network, and three fields of it by name.
void receiveMessage(benchmark::State& state) {
    pelmoMsg* sent = makeTen();
    Buffer* received = msgFlushBuffer(sent);
    for (auto _ : state) {
        pelmoMsg* msg = nullptr;
        check(msgCreateOverBuffer(&msg, received, 0));
        for (const char* name : kWanted) {
            int32_t value = 0;
            check(pelmoMsg_GetI32(msg, name, &value, 0));
            benchmark::DoNotOptimize(value);
        }
        msgRelease(msg);
    }
    msgRelease(sent);
}
BENCHMARK(receiveMessage);

// One object, emptied for each message.
void buildMessage(benchmark::State& state) {
    pelmoMsg* msg = makeTen();
    for (auto _ : state) {
        check(pelmoMsg_Reset(msg));
        addTen(msg);
        const void* bytes = nullptr;
        check(pelmoMsg_GetAsBytes(msg, &bytes));
        benchmark::DoNotOptimize(bytes);
    }
    msgRelease(msg);
}
BENCHMARK(buildMessage);

// A new object for each message.
void buildNewMessage(benchmark::State& state) {
    openPools();
    for (auto _ : state) {
        pelmoMsg* msg = nullptr;
        check(pelmoMsg_CreateEx(&msg, 256));
        addTen(msg);
        const void* bytes = nullptr;
        check(pelmoMsg_GetAsBytes(msg, &bytes));
        benchmark::DoNotOptimize(bytes);
        msgRelease(msg);
    }
}
BENCHMARK(buildNewMessage);

void textOfMessage(benchmark::State& state) {
    pelmoMsg* msg = makeTen();
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

// A map of ten names to integers.
void packTen(msgpack_sbuffer& bytes) {
    msgpack_packer packer;
    msgpack_packer_init(&packer, &bytes, msgpack_sbuffer_write);
    msgpack_pack_map(&packer, std::size(kNames));
    int32_t value = 1000;
    for (const char* name : kNames) {
        const size_t length = std::strlen(name);
        msgpack_pack_str(&packer, length);
        msgpack_pack_str_body(&packer, name, length);
        msgpack_pack_int32(&packer, value += 100003);
    }
}

struct Packed {
    Packed() {
        msgpack_sbuffer_init(&bytes);
        packTen(bytes);
    }
    Packed(const Packed&) = delete;
    Packed& operator=(const Packed&) = delete;
    ~Packed() { msgpack_sbuffer_destroy(&bytes); }

    msgpack_sbuffer bytes;
};

int64_t packedInteger(const msgpack_object_map& map, const char* name) {
    const size_t length = std::strlen(name);
    for (uint32_t i = 0; i < map.size; ++i) {
        const msgpack_object_str& key = map.ptr[i].key.via.str;
        if (key.size == length && std::memcmp(key.ptr, name, length) == 0) {
            return map.ptr[i].val.via.i64;
        }
    }
    std::abort();
}

void receiveMsgpack(benchmark::State& state) {
    const Packed packed;
    for (auto _ : state) {
        msgpack_unpacked unpacked;
        msgpack_unpacked_init(&unpacked);
        size_t offset = 0;
        check(msgpack_unpack_next(&unpacked, packed.bytes.data, packed.bytes.size, &offset) ==
              MSGPACK_UNPACK_SUCCESS);
        for (const char* name : kWanted) {
            benchmark::DoNotOptimize(packedInteger(unpacked.data.via.map, name));
        }
        msgpack_unpacked_destroy(&unpacked);
    }
}
BENCHMARK(receiveMsgpack);

void buildMsgpack(benchmark::State& state) {
    Packed packed;
    for (auto _ : state) {
        msgpack_sbuffer_clear(&packed.bytes);
        packTen(packed.bytes);
        benchmark::DoNotOptimize(packed.bytes.data);
    }
}
BENCHMARK(buildMsgpack);

void buildNewMsgpack(benchmark::State& state) {
    for (auto _ : state) {
        const Packed packed;
        benchmark::DoNotOptimize(packed.bytes.data);
    }
}
BENCHMARK(buildNewMsgpack);

void textOfMsgpack(benchmark::State& state) {
    const Packed packed;
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
