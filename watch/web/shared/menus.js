// Menus of a table: which columns it shows, and copies of what is in sight.

import { element, setText } from "./dom.js";
import { exportForms } from "./export.js";

// Other menus close, and a click elsewhere or Escape closes all.
function makeMenu(title, content) {
    const summary = element("summary", {}, title);
    const menu = element("details", { class: "menu" }, summary, content);
    document.addEventListener("click", (event) => {
        if (!menu.contains(event.target)) menu.open = false;
    });
    menu.addEventListener("keydown", (event) => {
        if (event.key !== "Escape" || !menu.open) return;
        menu.open = false;
        summary.focus();
        event.stopPropagation();
    });
    return { menu, summary };
}

const kKept = "pelmowatch.columns.";

// What was kept may come from another version of the page: a column of an unknown name does nothing. A
// page that was opened from a file, or with storage off, keeps nothing.
function keptChoices(name) {
    try {
        const kept = JSON.parse(localStorage.getItem(kKept + name) ?? "{}");
        return typeof kept === "object" && kept !== null ? kept : {};
    } catch {
        return {};
    }
}

function keepChoices(name, choices) {
    try {
        localStorage.setItem(kKept + name, JSON.stringify(choices));
    } catch {
        // They hold until the page is left.
    }
}

// A table takes over what was chosen for tables of its name.
export function applyChoices(name, table) {
    table.setChoices(keptChoices(name));
}

// current() is {name, table}; the table may be null.
export function makeColumnMenu(current) {
    const list = element("div", { role: "group", "aria-label": "Columns" });
    const { menu } = makeMenu("Columns", list);

    function fill() {
        const { name, table } = current();
        if (table === null) return list.replaceChildren();
        const choose = (choices) => {
            keepChoices(name, choices);
            table.setChoices(choices);
        };
        const boxes = table.columns.map(({ key, label, help }) => {
            const box = element("input", { type: "checkbox", checked: table.isShown(key) });
            box.addEventListener("change", () =>
                choose({ ...table.choices(), [key]: box.checked }),
            );
            return element("label", { title: help }, box, ` ${label}`);
        });
        const automatic = element(
            "button",
            { type: "button", click: () => (choose({}), fill()) },
            "As the width allows",
        );
        list.replaceChildren(...boxes, automatic);
    }

    menu.addEventListener("toggle", () => menu.open && fill());
    return menu;
}

// The clipboard of a page that isn't loaded from this machine or over TLS is reached by a selection only.
async function copy(text) {
    if (navigator.clipboard !== undefined) return navigator.clipboard.writeText(text);
    const area = element("textarea", { class: "offscreen", "aria-hidden": "true" });
    area.value = text;
    document.body.append(area);
    area.select();
    const isCopied = document.execCommand("copy");
    area.remove();
    if (!isCopied) throw new Error("not copied");
}

export function makeCopyMenu(current) {
    const list = element("div", {});
    const { menu, summary } = makeMenu("Copy", list);

    async function copyAs(form) {
        menu.open = false;
        const { table } = current();
        if (table === null) return;
        let words = "Copied";
        try {
            await copy(exportForms[form](table.content()));
        } catch {
            words = "Not copied";
        }
        setText(summary, words);
        setTimeout(() => setText(summary, "Copy"), 2000);
    }

    for (const form of Object.keys(exportForms)) {
        list.append(element("button", { type: "button", click: () => copyAs(form) }, `as ${form}`));
    }
    return menu;
}
