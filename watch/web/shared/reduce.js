// What charts draw: points joined where a screen has fewer pixels than the history has points, and
// silence between intervals that don't follow each other.

// Joins the points that fall into the same slot of a chart: [{from, to, min, mean, max}], where `from`
// and `to` are the first and the last index. positions[i] is where point i lies, rising; a null value
// is no point.
export function joinPoints(positions, values, slotSize) {
    const joined = [];
    let slot = NaN;
    for (let i = 0; i < values.length; ++i) {
        const value = values[i];
        if (value === null || value === undefined || Number.isNaN(value)) continue;
        const at = Math.floor(positions[i] / slotSize);
        if (at !== slot) {
            slot = at;
            joined.push({ from: i, to: i, min: value, max: value, sum: value, count: 1 });
            continue;
        }
        const last = joined.at(-1);
        last.to = i;
        last.min = Math.min(last.min, value);
        last.max = Math.max(last.max, value);
        last.sum += value;
        ++last.count;
    }
    return joined.map(({ sum, count, ...rest }) => ({ ...rest, mean: sum / count }));
}

// A hole is a time that no interval covers: longer than a part of one, since clocks jitter.
const kHolePart = 0.5;

// Adds points of zeros at both ends of each hole. Times are the ends of intervals that took `elapsed`
// seconds.
export function fillHoles(times, elapsed, columns) {
    const isHole = (i) =>
        i > 0 && times[i] - elapsed[i] - times[i - 1] > kHolePart * Math.max(elapsed[i], 0.001);
    if (!times.some((time, i) => isHole(i))) return { times, columns };
    const filled = { times: [], columns: columns.map(() => []) };
    const push = (time, valueOf) => {
        filled.times.push(time);
        columns.forEach((values, c) => filled.columns[c].push(valueOf(values)));
    };
    times.forEach((time, i) => {
        if (isHole(i)) {
            const begin = time - elapsed[i];
            push(Math.min(times[i - 1] + elapsed[i], (times[i - 1] + begin) / 2), () => 0);
            push(begin, () => 0);
        }
        push(time, (values) => values[i]);
    });
    return filled;
}

// Counts of intervals as rates a second, each by its own length; none where a clock went back.
export function ratesOf(values, elapsed) {
    return values.map((value, i) => (elapsed[i] > 0 ? value / elapsed[i] : null));
}
