// Elements of the page. Text from the bus becomes a text node here and never markup:
// scripts/check_tree.sh holds all modules of the pages to that.

// element("td", {class: "number", click: f}, "text", child): attributes whose value is a function
// are listeners, null and false leave an attribute out.
export function element(tag, attributes = {}, ...children) {
    const made = document.createElement(tag);
    for (const [name, value] of Object.entries(attributes)) {
        if (value === null || value === false) continue;
        if (typeof value === "function") {
            made.addEventListener(name, value);
        } else {
            made.setAttribute(name, value === true ? "" : value);
        }
    }
    made.append(...children.filter((child) => child !== null));
    return made;
}

// Screen readers and layout both pay for a text node that is replaced by the same text.
export function setText(node, text) {
    if (node.textContent !== text) node.textContent = text;
}

export function setAttribute(node, name, value) {
    if (value === null) {
        node.removeAttribute(name);
    } else if (node.getAttribute(name) !== String(value)) {
        node.setAttribute(name, value);
    }
}
