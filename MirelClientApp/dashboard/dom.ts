// Elements. Text only ever enters the page as text: no markup is put together anywhere.

type Attributes = { [name: `aria-${string}` | `data-${string}`]: string; role?: string };
type Properties<Tag extends keyof HTMLElementTagNameMap> = Partial<
    Omit<HTMLElementTagNameMap[Tag], "role" | "children">
> &
    Attributes;

export function el<Tag extends keyof HTMLElementTagNameMap>(
    tag: Tag,
    properties: Properties<Tag> = {},
    ...children: (Node | string)[]
): HTMLElementTagNameMap[Tag] {
    const element = document.createElement(tag);
    for (const [name, value] of Object.entries(properties)) {
        if (name === "role" || name.startsWith("aria-") || name.startsWith("data-")) {
            element.setAttribute(name, String(value));
        } else {
            Object.assign(element, { [name]: value });
        }
    }
    element.append(...children);
    return element;
}

/** Leaves a text that is right already alone, so that a refresh disturbs no selection. */
export function setText(element: HTMLElement, text: string): void {
    if (element.textContent !== text) {
        element.textContent = text;
    }
}

/** A button whose task runs once at a time: it is disabled until the task has ended. The task
 * reports its own failures. */
export function button(label: string, task: () => Promise<void> | void, className = ""): HTMLButtonElement {
    const element = el("button", { type: "button", className }, label);
    element.addEventListener("click", (event) => {
        event.stopPropagation();
        void whileDisabled([element], task);
    });
    return element;
}

/** Runs a task; meanwhile the buttons are disabled. */
export async function whileDisabled(
    buttons: HTMLButtonElement[],
    task: () => Promise<void> | void,
): Promise<void> {
    const focused = buttons.find((button) => button === document.activeElement);
    for (const button of buttons) {
        button.disabled = true;
    }
    try {
        await task();
    } finally {
        for (const button of buttons) {
            button.disabled = false;
        }
        if (document.activeElement === document.body) {
            focused?.focus();
        }
    }
}

/** A table within a frame of its own, which scrolls where the window is too narrow. */
export interface Table {
    frame: HTMLElement;
    head: HTMLTableRowElement;
    body: HTMLTableSectionElement;
}

/** On a narrow window the rows of a `stacked` table become blocks, in which each cell's
 * `data-label` stands before it. */
export function table(columns: (string | Node)[], className = "stacked"): Table {
    const head = el("tr", {}, ...columns.map((column) => el("th", { scope: "col" }, column)));
    const body = el("tbody");
    const element = el("table", { className }, el("thead", {}, head), body);
    return { frame: el("div", { className: "frame" }, element), head, body };
}

export function cell(label: string, ...content: (Node | string)[]): HTMLTableCellElement {
    return el("td", { "data-label": label }, ...content);
}

/** Makes the element's children the given ones, moving and replacing as few as possible. */
export function arrange(parent: HTMLElement, children: Node[]): void {
    children.forEach((child, index) => {
        if (parent.childNodes[index] !== child) {
            parent.insertBefore(child, parent.childNodes[index] ?? null);
        }
    });
    while (parent.childNodes.length > children.length) {
        parent.lastChild?.remove();
    }
}
