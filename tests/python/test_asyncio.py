"""The bus with asyncio: its loop, its cancellation and its time limits."""
import asyncio
import gc
import time

import pelmo
import pytest
from conftest import PATIENCE, in_loop


@in_loop
async def test_the_three_calls_of_a_program(address):
    async with pelmo.connect(address) as bus:
        messages = bus.listen("PRICES.>", "TIME.NOW")

        async def serve():
            async for message in messages:
                if message.reply:
                    await bus.reply(message, ok=True, zone=message["zone"])
                else:
                    seen.append((message.subject, dict(message)))

        seen = []
        server = asyncio.create_task(serve())
        await bus.send("PRICES.GOLD", price=2050.5, unit="oz")
        answers = await asyncio.gather(*(bus.request("TIME.NOW", zone=str(n), timeout=PATIENCE) for n in range(50)))
        assert [answer["zone"] for answer in answers] == [str(n) for n in range(50)]
        assert seen == [("PRICES.GOLD", {"price": 2050.5, "unit": "oz"})]
        messages.close()
        await asyncio.wait_for(server, PATIENCE)
    with pytest.raises(pelmo.Closed):
        await bus.send("A")


@in_loop
async def test_limits_and_cancellation_leave_nothing():
    async with pelmo.in_process() as bus:
        async with bus.listen("A") as messages:
            with pytest.raises(pelmo.Timeout):
                await messages.get(0.01)
            with pytest.raises(TimeoutError):
                async with asyncio.timeout(0.01):
                    await messages.get()
            with pytest.raises(pelmo.Timeout):
                await bus.request("NO.ANSWER", timeout=0.01)
            waits = asyncio.create_task(bus.request("NO.ANSWER", timeout=None))
            await asyncio.sleep(0)
            waits.cancel()
            with pytest.raises(asyncio.CancelledError):
                await waits
            await bus.send("A", n=1)  # it goes to the one that waits now
            assert (await messages.get(PATIENCE))["n"] == 1
        gc.collect()
        assert not [s for s in bus._subscriptions if not s.closed]


@in_loop
async def test_an_endless_stream_lets_others_run():
    async with pelmo.in_process() as bus:
        turns = 0

        async def other():
            nonlocal turns
            while True:
                await asyncio.sleep(0)
                turns += 1

        task = asyncio.create_task(other())
        messages = bus.listen("A", limit=None)
        for number in range(10_000):
            await bus.send("A", n=number)
        assert turns > 30
        turns = 0
        for number in range(10_000):
            assert (await anext(messages))["n"] == number
        assert turns > 30
        for _ in range(300):
            await bus.send("A", n=1)
        sizes = []
        async for batch in messages.batches():
            sizes.append(len(batch))
            if sum(sizes) == 300:
                break
        assert max(sizes) > 1
        task.cancel()


@in_loop
async def test_a_waiting_program_sleeps(address):
    async with pelmo.connect(address) as bus:
        messages = bus.listen("A")
        waits = asyncio.create_task(messages.get())
        await asyncio.sleep(0.05)
        begin = time.process_time()
        await asyncio.sleep(0.5)
        assert time.process_time() - begin < 0.05
        await bus.send("A")
        await asyncio.wait_for(waits, PATIENCE)


@in_loop
async def test_a_subscription_that_is_forgotten_is_closed():
    async def first(bus):
        messages = bus.listen("A")
        await bus.send("A")
        async for message in messages:
            yield message

    async with pelmo.in_process() as bus:
        async for _ in first(bus):
            break
        for _ in range(3):
            gc.collect()
            await asyncio.sleep(0)
        assert not bus._subscriptions
