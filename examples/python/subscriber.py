#!/usr/bin/env python3
"""subscriber.py DAEMON SUBJECT...: prints each message until a signal ends it."""
import asyncio
import signal
import sys

import pelmo


async def main(daemon, *subjects):
    async with pelmo.connect(daemon) as bus:
        messages = bus.listen(*subjects)
        for number in (signal.SIGINT, signal.SIGTERM):
            asyncio.get_running_loop().add_signal_handler(number, messages.close)
        print("listening", flush=True)
        async for message in messages:
            print(message.subject, dict(message), flush=True)
    print("ended")


asyncio.run(main(*sys.argv[1:]))
