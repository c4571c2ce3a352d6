// The filter over tables, as docs/OPERATING.md describes it: words, all of which have to fit a row.
//
//     PRICES.*.NY  ORDERS.>  >       a subject, with the bus's wildcards, in either case
//     10.0.0.1  10.0  10.0.0.0/24    an address, the beginning of one, a network
//     :7500                          a port, a service port or an SCid
//     7500                           the same, or text
//     gaps>0  bytes>=2.5M            a number of the row as it is shown, by its column's heading
//     gold  "two words"              text of a subject or an address, in either case
//     !WORD                          what WORD doesn't fit
//
// A row has `port`, and may have `servicePort`, `group`, `subject`, `words` and `hosts`, each with
// `address` and `scid`.

const kAddressLike = /^\d+(\.\d*)+(\/\d*)?$/;
const kComparison = /^([a-z][a-z_]*)(>=|<=|!=|=|<|>)(\d+(?:\.\d+)?)([kmgt]?)$/i;
const kUnits = { "": 1, k: 1e3, m: 1e6, g: 1e9, t: 1e12 };
const kOperators = {
    ">": (a, b) => a > b,
    "<": (a, b) => a < b,
    ">=": (a, b) => a >= b,
    "<=": (a, b) => a <= b,
    "=": (a, b) => a === b,
    "!=": (a, b) => a !== b,
};

// The address as a number, to compare and to sort by; NaN for what is none.
export function addressNumber(address) {
    const parts = String(address).split(".").map(Number);
    if (parts.length !== 4 || parts.some((part) => !(part >= 0 && part <= 255))) return NaN;
    return parts.reduce((sum, part) => sum * 256 + part, 0);
}

// "*" is one element, ">" one or more, and only at the end.
function subjectTest(pattern) {
    const wanted = pattern.toLowerCase().split(".");
    const takesRest = wanted.at(-1) === ">";
    if (takesRest) wanted.pop();
    return (subject) => {
        const elements = subject.toLowerCase().split(".");
        if (takesRest ? elements.length <= wanted.length : elements.length !== wanted.length)
            return false;
        return wanted.every((element, i) => element === "*" || element === elements[i]);
    };
}

function isSubjectPattern(word) {
    return word.split(".").some((part) => part === "*" || part === ">");
}

function anyAddress(row, fits) {
    if (row.group !== undefined && fits(row.group)) return true;
    return (row.hosts ?? []).some((host) => fits(host.address));
}

function hasPort(row, port) {
    return (
        row.port === port ||
        row.servicePort === port ||
        (row.hosts ?? []).some((host) => host.scid === port)
    );
}

function hasText(row, text) {
    if (row.subject !== undefined && row.subject.toLowerCase().includes(text)) return true;
    if (row.words !== undefined && row.words.toLowerCase().includes(text)) return true;
    return anyAddress(row, (address) => address.includes(text));
}

// Each reading is {fits(row), words}, or {error} for a word that can fit nothing.

function readAddress(word) {
    const [base, bits] = word.split("/");
    const parts = base.split(".");
    const isSound =
        parts.length <= 4 &&
        parts.every((part, i) => (part === "" ? i === parts.length - 1 : Number(part) <= 255));
    if (!isSound) return { error: `${word} is no address` };
    if (bits !== undefined) {
        const isNetwork = parts.length === 4 && !Number.isNaN(addressNumber(base));
        if (!isNetwork || bits === "" || Number(bits) > 32)
            return { error: `${word} is no network` };
        const size = 2 ** (32 - Number(bits));
        const network = Math.floor(addressNumber(base) / size);
        const isInside = (address) => Math.floor(addressNumber(address) / size) === network;
        return { fits: (row) => anyAddress(row, isInside), words: `network ${word}` };
    }
    if (parts.length === 4 && parts[3] !== "")
        return {
            fits: (row) => anyAddress(row, (address) => address === word),
            words: `address ${word}`,
        };
    return {
        fits: (row) => anyAddress(row, (address) => address.startsWith(word)),
        words: `addresses ${word}…`,
    };
}

const columnName = (text) => text.toLowerCase().replaceAll(" ", "_");

function readComparison(match, { columns, scale }) {
    const [, name, operator, digits, unit] = match;
    const isNamed = ({ key, label, kind }) =>
        kind === "number" && [columnName(label), key].includes(name.toLowerCase());
    const column = columns.find(isNamed);
    if (column === undefined) return { error: `no column ${name} here` };
    const wanted = Number(digits) * kUnits[unit.toLowerCase()];
    const compare = kOperators[operator];
    const factor = column.isState ? 1 : scale;
    return {
        fits: (row) => compare((row[column.key] ?? NaN) * factor, wanted),
        words: `${column.label} ${operator} ${digits}${unit}`,
    };
}

function readText(text) {
    const wanted = text.toLowerCase();
    return { fits: (row) => hasText(row, wanted), words: `text “${text}”` };
}

function readPort(word) {
    const port = Number(word.replace(":", ""));
    const isPortOnly = word.startsWith(":");
    if (isPortOnly && port > 65535) return { error: `${word} is no port` };
    if (isPortOnly) return { fits: (row) => hasPort(row, port), words: `port ${port}` };
    return {
        fits: (row) => hasPort(row, port) || hasText(row, word),
        words: `port or text ${word}`,
    };
}

function readWord({ word, isQuoted }, context) {
    if (isQuoted) return readText(word);
    if (isSubjectPattern(word)) {
        const fits = subjectTest(word);
        return {
            fits: (row) => row.subject !== undefined && fits(row.subject),
            words: `subjects ${word}`,
            isPattern: true,
        };
    }
    if (kAddressLike.test(word)) return readAddress(word);
    if (/^:?\d+$/.test(word)) return readPort(word);
    const comparison = word.match(kComparison);
    return comparison === null ? readText(word) : readComparison(comparison, context);
}

// Quotes that aren't closed yet run to the end: the filter is read while it is typed.
function splitWords(text) {
    return [...text.matchAll(/(!?)(?:"([^"]*)"?|([^\s"]\S*))/g)]
        .map(([, not, quoted, plain]) => ({
            isNot: not === "!",
            isQuoted: quoted !== undefined,
            word: quoted ?? plain,
        }))
        .filter(({ word }) => word !== "");
}

// What the text asks for: `fits(row)`, null where all rows do; `words`, how it was understood; `error`,
// what can't be, or null; `needsSubjects`, whether it can fit rows with subjects only. Comparisons are
// with numbers of `columns` times `scale`.
export function readFilter(text, { columns = [], scale = 1 } = {}) {
    const readings = splitWords(text).map((part) => ({ ...part, ...readWord(part, { columns, scale }) }));
    const errors = readings.filter(({ error }) => error !== undefined).map(({ error }) => error);
    const tests = readings.map(({ fits = () => false, isNot, error }) =>
        isNot && error === undefined ? (row) => !fits(row) : fits,
    );
    return {
        fits: readings.length === 0 ? null : (row) => tests.every((test) => test(row)),
        words: readings
            .filter(({ error }) => error === undefined)
            .map(({ isNot, words }) => (isNot ? `not ${words}` : words))
            .join(" and "),
        error: errors.length === 0 ? null : errors.join(", "),
        needsSubjects: readings.some(({ isPattern, isNot }) => isPattern && !isNot),
    };
}
