// Numbers and times as text. Numbers keep one form whatever the reader's language, so that what is
// copied from a page can be searched for in a log.

const whole = new Intl.NumberFormat("en-US", { maximumFractionDigits: 0 });
const tenths = new Intl.NumberFormat("en-US", {
    minimumFractionDigits: 1,
    maximumFractionDigits: 1,
});
const digits = new Intl.NumberFormat("en-US", { maximumSignificantDigits: 4 });
const threeDigits = new Intl.NumberFormat("en-US", { maximumSignificantDigits: 3 });

// A count in full: "1,234,567".
export function formatCount(count) {
    return whole.format(count);
}

// A count, or a rate, which has a fraction: "12.5". A small one that isn't 0 never shows as such.
export function formatNumber(number) {
    if (number === null || number === undefined || Number.isNaN(number)) return "–";
    if (Number.isInteger(number)) return whole.format(number);
    if (Math.abs(number) < 0.1) return digits.format(number);
    return Math.abs(number) < 1000 ? tenths.format(number) : whole.format(number);
}

const prefixes = ["", "k", "M", "G", "T", "P"];

// The number in thousands, millions and so on until it is below the limit.
function scaledBelow(limit, number) {
    let power = 0;
    let scaled = number;
    while (Math.abs(scaled) >= limit && power < prefixes.length - 1) {
        scaled /= 1000;
        ++power;
    }
    return { scaled, prefix: prefixes[power] };
}

// Four digits at most, for a place where the eye compares sizes: "12.35 M".
export function formatShort(number, unit = "") {
    const { scaled, prefix } = scaledBelow(9999.5, number);
    const text = digits.format(Math.abs(scaled) >= 1000 ? Math.round(scaled) : scaled);
    const suffix = prefix + unit;
    return suffix === "" ? text : `${text} ${suffix}`;
}

// For a narrow column, six characters at most: in full while that is short, else three digits.
export function formatNarrow(number) {
    if (!Number.isFinite(number)) return formatNumber(number);
    if (number > 0 && number < 0.001) return "<0.001";
    if (Math.abs(number) < 0.1) return String(Number(Number(number).toFixed(3)));
    if (Math.abs(number) < 99999.5) return formatNumber(number);
    const { scaled, prefix } = scaledBelow(999.5, number);
    return `${threeDigits.format(scaled)} ${prefix}`;
}

// Times are shown where the reader is, or in UTC.
let isUtc = false;

export function showUtc(utc) {
    isUtc = utc;
}

function pad(number) {
    return String(number).padStart(2, "0");
}

// The time moved so that its UTC fields are those to show. A zone's offset is that of the time itself.
function shifted(milliseconds) {
    const offset = isUtc ? 0 : new Date(milliseconds).getTimezoneOffset();
    return new Date(milliseconds - offset * 60000);
}

export function formatTime(milliseconds) {
    const time = shifted(milliseconds);
    return Number.isNaN(time.getTime()) ? "–" : time.toISOString().slice(11, 19);
}

export function formatDateTime(milliseconds) {
    const time = shifted(milliseconds);
    return Number.isNaN(time.getTime()) ? "–" : time.toISOString().slice(0, 19).replace("T", " ");
}

// "UTC", "UTC-5", "UTC+5:30": the reader's clock less UTC at the time.
export function formatZone(milliseconds) {
    const minutes = isUtc ? 0 : -new Date(milliseconds).getTimezoneOffset();
    if (!minutes) return "UTC";
    const size = Math.abs(minutes);
    const rest = size % 60 === 0 ? "" : `:${pad(size % 60)}`;
    return `UTC${minutes < 0 ? "-" : "+"}${Math.floor(size / 60)}${rest}`;
}

// For the ticks of a chart, by the fields of a local time.
export function chartDate(seconds) {
    const time = shifted(seconds * 1000);
    return new Date(
        time.getUTCFullYear(),
        time.getUTCMonth(),
        time.getUTCDate(),
        time.getUTCHours(),
        time.getUTCMinutes(),
        time.getUTCSeconds(),
        time.getUTCMilliseconds(),
    );
}

// A time span: "12.0 s", "3 min 20 s", "2 h 5 min", "3 d 4 h".
export function formatSpan(seconds) {
    if (seconds < 60) return `${tenths.format(seconds)} s`;
    const rounded = Math.round(seconds);
    const steps = [
        [86400, "d", 3600, "h"],
        [3600, "h", 60, "min"],
        [60, "min", 1, "s"],
    ];
    const [large, largeName, small, smallName] = steps.find(([size]) => rounded >= size);
    const rest = Math.floor((rounded % large) / small);
    return (
        `${Math.floor(rounded / large)} ${largeName}` + (rest === 0 ? "" : ` ${rest} ${smallName}`)
    );
}

const upperCase = { udp: "UDP", ip: "IP", ethernet: "Ethernet" };

// The key of a fault as words: "udp_checksum_invalid" is "UDP checksum invalid".
export function formatKey(key) {
    const words = key
        .split("_")
        .map((word) => upperCase[word] ?? word)
        .join(" ");
    return words.charAt(0).toUpperCase() + words.slice(1);
}
