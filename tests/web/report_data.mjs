// A report's data of some snapshots (docs/pelmowatch-report.schema.json), as small as a test wants
// it: sums by row, and no bound on rows.

const kPlaces = ["port", "group", "subject", "sender", "host", "scid", "service_port"];

// Rows with the same values of `keys` become one, with the sums of all their numbers.
function sumBy(rows, keys) {
    const sums = new Map();
    for (const row of rows) {
        const key = keys.map((name) => row[name]).join(" ");
        const sum = sums.get(key) ?? Object.fromEntries(keys.map((name) => [name, row[name]]));
        for (const [name, value] of Object.entries(row)) {
            if (typeof value === "number" && !kPlaces.includes(name))
                sum[name] = (sum[name] ?? 0) + value;
        }
        sums.set(key, sum);
    }
    return [...sums.values()];
}

function table(rows, keys) {
    const summed = sumBy(rows, keys);
    const sums = sumBy(summed, [])[0] ?? {};
    return { row_count: summed.length, sums, rows: summed };
}

function faultsOf(snapshots) {
    const faults = {};
    for (const [key, fault] of snapshots.flatMap((snapshot) => Object.entries(snapshot.faults))) {
        const sum = (faults[key] ??= {
            packets: 0,
            words: `words of ${key}`,
            first_time: fault.first_time,
        });
        sum.packets += fault.packets;
        sum.last_time = fault.last_time;
    }
    return faults;
}

export function reportData(snapshots) {
    const rowsOf = (name) => snapshots.flatMap((snapshot) => snapshot[name]);
    const multicast = rowsOf("multicast");
    const subjects = rowsOf("subjects");
    const names = ["multicast", "retransmission", "point_to_point", "subjects"];
    const totals = Object.fromEntries(
        names.map((name) => [
            name,
            sumBy(
                snapshots.map((snapshot) => snapshot.totals[name]),
                [],
            )[0],
        ]),
    );
    const series = Object.fromEntries(
        names.map((name) => [
            name,
            Object.fromEntries(
                Object.keys(totals[name]).map((key) => [
                    key,
                    snapshots.map((snapshot) => snapshot.totals[name][key]),
                ]),
            ),
        ]),
    );
    series.faults = {
        packets: snapshots.map(({ faults }) =>
            Object.values(faults).reduce((sum, fault) => sum + fault.packets, 0),
        ),
    };
    const sum = (key) => snapshots.reduce((all, snapshot) => all + snapshot[key], 0);
    const first = snapshots[0];
    const last = snapshots.at(-1);
    return {
        program: "pelmowatch 0.9.0",
        capture: {
            files: ["samples/bus.pcap"],
            filter: null,
            begin_time: first.begin_time,
            end_time: last.time,
            elapsed_seconds: (Date.parse(last.time) - Date.parse(first.begin_time)) / 1000,
            frames: sum("frames"),
            packets: sum("packets"),
            bus_packets: sum("bus_packets"),
            read_bytes: last.read_bytes,
            file_bytes: last.file_bytes,
            is_whole: true,
            ports: sumBy(multicast, ["port"]).length,
            groups: sumBy(multicast, ["port", "group"]).length,
            senders: sumBy(multicast, ["sender", "scid"]).length,
            subjects: sumBy(subjects, ["port", "group", "subject"]).length,
        },
        totals,
        faults: faultsOf(snapshots),
        timeline: {
            interval_seconds: first.elapsed_seconds,
            times: snapshots.map((snapshot) => Date.parse(snapshot.time) / 1000),
            series,
        },
        tables: {
            subjects: table(subjects, ["port", "group", "subject"]),
            senders: table(multicast, ["sender", "scid"]),
            groups: table(multicast, ["port", "group"]),
            retransmission: table(rowsOf("retransmission"), [
                "port",
                "service_port",
                "host",
                "scid",
            ]),
            point_to_point: table(rowsOf("point_to_point"), ["port", "host", "scid"]),
        },
    };
}

// The page of the built frame and the data.
export function reportPage(frame, data) {
    return frame.replace("@REPORT_DATA@", () => JSON.stringify(data).replaceAll("<", "\\u003c"));
}
