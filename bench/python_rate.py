#!/usr/bin/env python3
"""python_rate.py BIN [SECONDS]: messages a second that a process of Python sends and receives through pmd, with
the package pelmo of BIN's build, and with paho-mqtt through mosquitto where both are installed.

Each message has a price and a unit; receivers read both. A rate is of processes that run at the same time,
a daemon, one sender and one receiver, so on two cores each has less than a core of its own; "alone" has one
side in Python and the other in C++ (pelmobus). CPU is of the process in Python, in microseconds a message.
"""
import asyncio
import atexit
import json
import pathlib
import resource
import subprocess
import sys
import time

ROOT = pathlib.Path(__file__).resolve().parents[1]
BIN = pathlib.Path(sys.argv[1]).resolve()
SECONDS = float(sys.argv[2]) if len(sys.argv) > 2 else 5.0
SHARE = 0.7  # of the time that senders send, over which receivers count: messages must not run out
sys.path[:0] = [str(ROOT / "tests" / "e2e"), str(BIN.parent / "python")]


def rate(count, begin, cpu):
    now, used = time.monotonic(), resource.getrusage(resource.RUSAGE_SELF)
    print("%.0f messages/s, %.2f us CPU" % (count / (now - begin),
                                            1e6 * (used.ru_utime + used.ru_stime - cpu) / max(count, 1)), flush=True)


def start():
    used = resource.getrusage(resource.RUSAGE_SELF)
    return time.monotonic(), used.ru_utime + used.ru_stime


async def receive(address):
    import pelmo
    async with pelmo.connect(address) as bus:
        messages = bus.listen("PRICES.>", limit=None)
        print("ready", flush=True)
        await messages.get()
        (begin, cpu), count = start(), 0
        async for message in messages:
            message["price"], message["unit"]
            count += 1
            if not count % 1000 and time.monotonic() - begin > SECONDS * SHARE:
                return rate(count, begin, cpu)


async def send(address):
    import pelmo
    async with pelmo.connect(address) as bus:
        (begin, cpu), count = start(), 0
        while time.monotonic() - begin < SECONDS:
            for _ in range(1000):
                await bus.send("PRICES.GOLD", price=2050.5, unit="oz")
            count += 1000
        rate(count, begin, cpu)


async def send_threads(address):
    import pelmo
    with pelmo.connect(address) as bus:
        (begin, cpu), count = start(), 0
        while time.monotonic() - begin < SECONDS:
            for _ in range(1000):
                bus.send("PRICES.GOLD", price=2050.5, unit="oz")
            count += 1000
        rate(count, begin, cpu)


async def paho_receive(address):
    import paho.mqtt.client as mqtt
    client, state = mqtt.Client(), {"count": 0}

    def on_message(_client, _data, message):
        if not state["count"]:
            state["begin"] = start()
        fields = json.loads(message.payload)
        fields["price"], fields["unit"]
        state["count"] += 1
        if not state["count"] % 1000 and time.monotonic() - state["begin"][0] > SECONDS * SHARE:
            client.disconnect()

    client.on_message = on_message
    client.on_subscribe = lambda *_: print("ready", flush=True)
    client.connect("127.0.0.1", int(address))
    client.subscribe("PRICES/#")
    client.loop_forever()
    rate(state["count"], *state["begin"])


async def paho_send(address):
    import paho.mqtt.client as mqtt
    client = mqtt.Client()
    client.max_queued_messages_set(10000)
    client.connect("127.0.0.1", int(address))
    client.loop_start()
    (begin, cpu), count, last = start(), 0, None
    while time.monotonic() - begin < SECONDS:
        for _ in range(1000):
            last = client.publish("PRICES/GOLD", json.dumps({"price": 2050.5, "unit": "oz"}))
        last.wait_for_publish()
        count += 1000
    rate(count, begin, cpu)


def child(role, address):
    """It doesn't outlive the bench, however that ends."""
    started = subprocess.Popen([sys.executable, __file__, str(BIN), str(SECONDS), role, address], text=True,
                               stdout=subprocess.PIPE)
    atexit.register(started.kill)
    return started


def pair(name, receiver, sender, address):
    hears = child(receiver, address)
    assert hears.stdout.readline() == "ready\n"
    sends = child(sender, address)
    print("%s: sends %s; receives %s" % (name, sends.communicate()[0].strip(), hears.communicate(timeout=60)[0].strip()))


def alone(address):
    print("pelmo alone: sends " + child("send", address).communicate()[0].strip())
    print("pelmo threads alone: sends " + child("send_threads", address).communicate()[0].strip())
    hears = child("receive", address)
    assert hears.stdout.readline() == "ready\n"
    sends = subprocess.Popen([str(BIN / "pelmobus"), "--daemon", address, "send", "PRICES.GOLD", "price:f64=2050.5",
                              "unit=oz", "--count", "100000000"], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    print("pelmo alone: receives " + hears.communicate(timeout=60)[0].strip())
    sends.kill()
    sends.wait()


def main():
    from bus_client import Daemon, free_port
    daemon = Daemon(BIN / "pmd")
    address = "127.0.0.1:%d" % daemon.port
    alone(address)
    pair("pelmo", "receive", "send", address)
    daemon.close()
    if pathlib.Path("/usr/sbin/mosquitto").exists():
        port = free_port()
        broker = subprocess.Popen(["/usr/sbin/mosquitto", "-p", str(port)], stderr=subprocess.DEVNULL)
        time.sleep(1)
        pair("paho-mqtt", "paho_receive", "paho_send", str(port))
        broker.kill()
        broker.wait()


if len(sys.argv) > 3:
    asyncio.run(globals()[sys.argv[3]](sys.argv[4]))
else:
    main()
