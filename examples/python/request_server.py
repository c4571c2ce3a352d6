#!/usr/bin/env python3
"""request_server.py DAEMON: answers requests on TIME.NOW with the time in the zone that they name."""
import asyncio
import signal
import sys
import zoneinfo
from datetime import datetime

import pelmo


async def serve(bus, requests):
    async for request in requests:
        try:
            zone = zoneinfo.ZoneInfo(request.get("zone", "UTC"))
            await bus.reply(request, now=datetime.now(zone), offset=datetime.now(zone).strftime("%z"))
        except (zoneinfo.ZoneInfoNotFoundError, ValueError, TypeError) as error:
            if request.reply:
                await bus.reply(request, error=str(error))


async def main(daemon):
    async with pelmo.connect(daemon, description="time server") as bus:
        requests = bus.listen("TIME.NOW")
        asyncio.get_running_loop().add_signal_handler(signal.SIGTERM, requests.close)
        print("serving", flush=True)
        await serve(bus, requests)


asyncio.run(main(sys.argv[1]))
