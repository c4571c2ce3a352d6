#!/usr/bin/env bash
# Installs what is missing, builds the tool, and shows what it makes of a small capture of a bus.
set -euo pipefail
cd "$(dirname "$0")/.."

echo "== installs what is missing and builds the tool: 3 minutes the first time on two cores, then seconds"
scripts/build_programs.sh pelmoscope

echo "== pelmoscope -r samples/bus.pcap -u 1000: twelve seconds of a bus as one interval"
build/release/bin/pelmoscope -r samples/bus.pcap -u 1000 2>/dev/null
cat <<'END'
== what it shows
The first table has a row for each group of the bus: what was sent to it, and in Gaps what was lost on the way.
The second counts who asked on each port for lost packets again (Rreq), and who refused (Rrej).
The third says which subjects were in the packets, in how many messages and bytes.

== what to try next
build/release/bin/pelmoscope -r samples/bus.pcap -u 5 -addrinfo    every 5 seconds, with the senders
scripts/demo-bus.sh                                                a bus of your own, watched by the tool
scripts/build_programs.sh pelmowatch && build/release/bin/pelmowatch report -r samples/bus.pcap -o bus.html
                                                                   the capture as a page with charts
END
