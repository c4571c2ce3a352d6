#!/usr/bin/env python3
"""publisher.py DAEMON SUBJECT COUNT: sends messages that are numbered."""
import sys
from datetime import datetime, timezone

import pelmo

daemon, subject, count = sys.argv[1:]
with pelmo.connect(daemon) as bus:
    for number in range(int(count)):
        bus.send(subject, number=pelmo.u32(number), price=2050.5, at=datetime.now(timezone.utc))
