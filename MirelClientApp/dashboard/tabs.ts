import { el } from "./dom";

/** A row of tabs; arrow keys move along it. Whoever makes it fills what the tabs stand for. */
export class Tabs {
    readonly element: HTMLElement;
    readonly #buttons = new Map<string, HTMLButtonElement>();
    readonly #select: (name: string) => void;

    constructor(label: string, names: string[], select: (name: string) => void) {
        this.#select = select;
        for (const name of names) {
            const tab = el("button", { type: "button", role: "tab" }, name);
            tab.addEventListener("click", () => this.open(name));
            this.#buttons.set(name, tab);
        }
        this.element = el(
            "div",
            { className: "tabs", role: "tablist", "aria-label": label },
            ...this.#buttons.values(),
        );
        this.element.addEventListener("keydown", (event) => this.#move(event));
    }

    open(name: string): void {
        for (const [other, tab] of this.#buttons) {
            const open = other === name;
            tab.setAttribute("aria-selected", String(open));
            tab.tabIndex = open ? 0 : -1;
        }
        this.#select(name);
    }

    #move(event: KeyboardEvent): void {
        const step = { ArrowLeft: -1, ArrowRight: 1 }[event.key];
        const tabs = [...this.#buttons.values()];
        const at = tabs.findIndex((tab) => tab === document.activeElement);
        if (step !== undefined && at >= 0) {
            const next = tabs[(at + step + tabs.length) % tabs.length];
            next?.focus();
            next?.click();
            event.preventDefault();
        }
    }
}
