"""What state the machine of a measurement is in, and whether it stayed so."""
import os
import statistics

MOST_CHANGE = 4 / 3  # of a bare loop within a run, from its best to its worst


def describe():
    """Cores, and how many tasks wanted one on average over the last minute and the last quarter of an
    hour."""
    one, _, fifteen = os.getloadavg()
    return "%d cores, load %.1f (%.1f over 15 minutes)" % (os.cpu_count(), one, fifteen)


class Steadiness:
    """The bare loop of a run, measured again and again beside what is compared."""

    def __init__(self):
        self.values = []

    def add(self, value):
        self.values.append(value)

    def holds(self):
        return not self.values or max(self.values) <= MOST_CHANGE * min(self.values)

    def ratio(self, text):
        """The ratio as it is to be printed; refused where the machine changed meanwhile."""
        return text if self.holds() else "no ratio: the machine changed"

    def describe(self, unit):
        if not self.values:
            return "no bare loop"
        return "bare loop: median %.1f %s, from %.1f to %.1f" % (
            statistics.median(self.values), unit, min(self.values), max(self.values))
