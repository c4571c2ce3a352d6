// The filter over tables: words, all of which have to fit a row.
//
//     PRICES.*.NY  ORDERS.>  >     a subject, with the bus's wildcards
//     10.0.0.1  10.0.0.  10.0.0.0/24   an address, the start of one, a network
//     :7500                        a port, a service port or an SCid
//     7500                         the same, or text
//     gold                         text of a subject or an address, in either case
//
// A row has `port`, and may have `servicePort`, `group`, `subject` and `hosts`, each with
// `address` and `scid`.

const addressPattern = /^(\d{1,3})(\.\d{1,3}){0,2}\.$|^\d{1,3}(\.\d{1,3}){3}(\/\d{1,2})?$/;

// The address as a number, to compare and to sort by; NaN for what is none.
export function addressNumber(address) {
    const parts = String(address).split(".").map(Number);
    if (parts.length !== 4 || parts.some((part) => !(part >= 0 && part <= 255))) return NaN;
    return parts.reduce((sum, part) => sum * 256 + part, 0);
}

// "*" is one element, ">" one or more, and only at the end.
function subjectTest(pattern) {
    const wanted = pattern.split(".");
    const takesRest = wanted.at(-1) === ">";
    if (takesRest) wanted.pop();
    return (subject) => {
        const elements = subject.split(".");
        if (takesRest ? elements.length <= wanted.length : elements.length !== wanted.length)
            return false;
        return wanted.every((element, i) => element === "*" || element === elements[i]);
    };
}

function addressTest(word) {
    if (word.endsWith(".")) return (address) => address.startsWith(word);
    const [base, bits] = word.split("/");
    if (bits === undefined) return (address) => address === word;
    const size = 2 ** (32 - Math.min(Number(bits), 32));
    const network = Math.floor(addressNumber(base) / size);
    return (address) => Math.floor(addressNumber(address) / size) === network;
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
    return anyAddress(row, (address) => address.includes(text));
}

function isSubjectPattern(word) {
    return word.split(".").some((part) => part === "*" || part === ">");
}

function wordTest(word) {
    if (isSubjectPattern(word)) {
        const fits = subjectTest(word);
        return (row) => row.subject !== undefined && fits(row.subject);
    }
    if (addressPattern.test(word)) {
        const fits = addressTest(word);
        return (row) => anyAddress(row, fits);
    }
    if (/^:\d+$/.test(word)) return (row) => hasPort(row, Number(word.slice(1)));
    const text = word.toLowerCase();
    if (/^\d+$/.test(word)) return (row) => hasPort(row, Number(word)) || hasText(row, text);
    return (row) => hasText(row, text);
}

// A function that tells whether a row fits, or null where all do.
export function makeFilter(text) {
    const tests = text
        .trim()
        .split(/\s+/)
        .filter((word) => word !== "")
        .map(wordTest);
    if (tests.length === 0) return null;
    return (row) => tests.every((test) => test(row));
}

export function filterNeedsSubjects(text) {
    return text.trim().split(/\s+/).some(isSubjectPattern);
}
