// The tabs above the tables, by the keyboard pattern of tabs: one stop, arrows choose.

import { element, setAttribute, setText } from "./dom.js";

// names: {key, title} in their order. onChoose(key).
export function makeTabs(names, panelId, onChoose) {
    let chosen = names[0].key;
    const tabs = new Map(names.map(({ key, title }) => [key, makeTab(key, title)]));
    const list = element(
        "div",
        { class: "tabs", role: "tablist", "aria-label": "Tables", keydown: onKey },
        ...[...tabs.values()].map((tab) => tab.element),
    );

    function makeTab(key, title) {
        const count = element("span", { class: "count" });
        const button = element(
            "button",
            {
                type: "button",
                role: "tab",
                id: `tab-${key}`,
                "aria-controls": panelId,
                click: () => choose(key),
            },
            title,
            " ",
            count,
        );
        return { element: button, count };
    }

    function choose(key) {
        chosen = key;
        mark();
        onChoose(key);
    }

    function mark() {
        for (const [key, tab] of tabs) {
            setAttribute(tab.element, "aria-selected", String(key === chosen));
            setAttribute(tab.element, "tabindex", key === chosen ? "0" : "-1");
        }
    }

    function onKey(event) {
        const steps = { ArrowLeft: -1, ArrowRight: 1 };
        if (!(event.key in steps)) return;
        const keys = [...tabs.keys()];
        const next = (keys.indexOf(chosen) + steps[event.key] + keys.length) % keys.length;
        choose(keys[next]);
        tabs.get(chosen).element.focus();
        event.preventDefault();
    }

    mark();
    return {
        element: list,
        choose,
        setCount: (key, text, isAlert = false) => {
            const { count } = tabs.get(key);
            setText(count, text);
            count.classList.toggle("error", isAlert);
        },
    };
}
