"""What must hold of a life of the bus, as a function of the records of its programs: records in, words out.

A number is what a sender counts from 1. A gap is reported where a program that had to do with it says so on its
standard error stream, or ends with another status than 0.
"""
import collections
import re

# Lines that tell of something lost, or of a connection that was.
REPORTS = re.compile(r"lost the connection|[Nn]ot connected|DISCONNECTED|RECONNECTED|cut off|couldn't|dropp|lost|refused|"
                   r"didn't leave|Broken pipe|reset|no memory|out of memory|not sent|unsent|ended ahead|without|"
                   r"timed out|closed|Memory allocation|open: |DeliveryFailed|[Dd]elivery|Virtual circuit|connect ")
MESSAGE = re.compile(r'(\S+) (?:reply=\S+ )?\{.*?life="([^"]*)".*?\bseq=(\d+)')
SENT = re.compile(r"^sent (\d+)$", re.M)

# A program's record. `troubled`: it was killed, or asked to end early. `early`: a listener that was there before all
# senders and that outlived them.
Sender = collections.namedtuple("Sender", "name subject count status said troubled")
Listener = collections.namedtuple("Listener", "name subjects lines status said early")
Circuit = collections.namedtuple("Circuit", "name given got status said")  # status and said: of both ends
Asking = collections.namedtuple("Asking", "name count lines status said")


def numbers_of(lines):
    """(sender, subject) -> its numbers, in order of arrival."""
    found = collections.defaultdict(list)
    for line in lines:
        match = MESSAGE.match(line)
        if match:
            found[match[2], match[1]].append(int(match[3]))
    return found


def check_sender(sender):
    if sender.status == 0 and not sender.troubled:
        sent = SENT.search(sender.said)
        if not sent or int(sent[1]) != sender.count:
            yield "%s ended with 0 and says %r" % (sender.name, sender.said[-200:])
    if sender.status not in (0, 1, -9):
        yield "%s ended with %s: %s" % (sender.name, sender.status, sender.said[-300:])
    if sender.status == 1 and not REPORTS.search(sender.said):
        yield "%s ended with 1 and no word: %r" % (sender.name, sender.said[-300:])


def check_arrival(sender, listener, numbers, daemon_says, calm):
    what = "%s from %s on %s" % (listener.name, sender.name, sender.subject)
    for before, after in zip(numbers, numbers[1:]):
        if after <= before:
            yield "%s: %d comes after %d" % (what, after, before)
            break
    reported = REPORTS.search(sender.said) or REPORTS.search(listener.said) or daemon_says or sender.status != 0 or listener.status != 0
    taken = SENT.search(sender.said)
    if taken and numbers and numbers[-1] > int(taken[1]):
        yield "%s: %d came, and %s says %s" % (what, numbers[-1], sender.name, taken[0])
    if (reported and not calm) or not listener.early:
        return
    if numbers != list(range(1, sender.count + 1)):
        missing = sender.count - len(set(numbers))
        yield "%s: %d of %d missing, and nobody says so" % (what, missing, sender.count)


def check_circuit(circuit):
    if circuit.got != circuit.given[:len(circuit.got)]:
        yield "%s delivers what isn't a prefix: %r" % (circuit.name, circuit.got[-3:])
    if set(circuit.status) == {0} and len(circuit.got) != len(circuit.given):
        yield "%s: both ends end with 0, %d of %d lines arrived" % (
            circuit.name, len(circuit.got), len(circuit.given))
    for status, said in zip(circuit.status, circuit.said):
        if status not in (0, 1, 3, -9, -15):
            yield "%s ended with %s: %s" % (circuit.name, status, said[-300:])
        if status == 1 and not said.strip():
            yield "%s ended with 1 and no word" % circuit.name


def check_asking(asking):
    """Each answer is to the question that waits for it, and comes once."""
    found = numbers_of(asking.lines)
    if set(name for name, _ in found) - {asking.name}:
        yield "%s got answers to others: %r" % (asking.name, list(found))
    numbers = [number for one in found.values() for number in one]
    if any(after <= before for before, after in zip(numbers, numbers[1:])):
        yield "%s got answers twice or out of order: %r" % (asking.name, numbers)
    if asking.status == 0 and len(numbers) != asking.count:
        yield "%s ended with 0 and %d of %d answers" % (asking.name, len(numbers), asking.count)
    if asking.status not in (0, 1, 3, -9):
        yield "%s ended with %s: %s" % (asking.name, asking.status, asking.said[-300:])


def matches(pattern, subject):
    pattern, subject = pattern.split("."), subject.split(".")
    if pattern[-1] == ">":
        return len(subject) >= len(pattern) and matches(".".join(pattern[:-1] + ["*"]),
                                                        ".".join(subject[:len(pattern)]))
    return len(pattern) == len(subject) and all(p in ("*", s) for p, s in zip(pattern, subject))


def check(senders, listeners, circuits, askings, daemon_said, calm):
    """All that is wrong, in words. `calm`: nothing befell, so nothing excuses a gap or another status than 0."""
    faults = []
    if calm:
        faults += ["%s ended with %s although nothing befell: %s" % (one.name, one.status, str(one.said)[-200:])
                   for one in senders + listeners + circuits + askings if one.status not in (0, [0, 0])]
    daemon_says = bool(re.search(r"cut off|refused|memory", daemon_said))
    for sender in senders:
        faults += check_sender(sender)
    for listener in listeners:
        found = numbers_of(listener.lines)
        known = {(sender.name, sender.subject) for sender in senders}
        if set(found) - known:
            faults.append("%s got what nobody sent: %r" % (listener.name, set(found) - known))
        for sender in senders:
            if any(matches(pattern, sender.subject) for pattern in listener.subjects):
                faults += check_arrival(sender, listener, found[sender.name, sender.subject], daemon_says,
                                        calm)
    for circuit in circuits:
        faults += check_circuit(circuit)
    for asking in askings:
        faults += check_asking(asking)
    return faults
