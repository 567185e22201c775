import { api, listAt, packagePath } from "../api";
import type { Card } from "../card";
import { arrange, cell, el, table } from "../dom";
import type { Lifetime } from "../lifetime";

/** A kind of record that a package's application keeps of its own life. */
export interface History {
    /** The last part of its route, and the list's name in the answer. */
    route: string;
    refreshMilliseconds: number;
    columns: string[];
    /** What stands below the columns; a click on the first text opens the details. */
    texts: (record: unknown) => string[];
    /** In seconds. */
    time: (record: unknown) => number;
    details: (record: unknown) => Node[];
}

interface Row {
    element: HTMLElement;
    opener: HTMLElement;
}

/** Keeps a history in a card, its newest record first. A click on a record opens its details below
 * it, where they stay while the list is refreshed. */
export function showHistory(card: Card, name: string, life: Lifetime, history: History): void {
    const list = new HistoryList(history);
    life.every(history.refreshMilliseconds, () =>
        card.fill(life, async () => {
            const records = listAt(await api("GET", packagePath(name, history.route)), history.route);
            if (records.length === 0) {
                card.empty("No data (is the package running and discovered?)");
                return;
            }
            card.update(records, () => {
                list.load(records);
                return [list.frame];
            });
        }),
    );
}

class HistoryList {
    readonly frame: HTMLElement;
    readonly #history: History;
    readonly #body: HTMLElement;
    #rows = new Map<string, Row>();
    #opened: { row: Row; details: HTMLElement } | undefined;

    constructor(history: History) {
        const { frame, body } = table(history.columns);
        this.#history = history;
        this.frame = frame;
        this.#body = body;
    }

    /** The records, the oldest first. A row that is there already stays what it is, and where it
     * is: it may have the focus. */
    load(records: unknown[]): void {
        const time = (entry: [string, unknown]) => this.#history.time(entry[1]);
        const newestFirst = withKeys(records).reverse().sort((a, b) => time(b) - time(a));
        const former = this.#rows;
        this.#rows = new Map(
            newestFirst.map(([key, record]) => [key, former.get(key) ?? this.#row(record)]),
        );
        this.#arrange();
    }

    #row(record: unknown): Row {
        const [first = "", ...others] = this.#history.texts(record);
        const opener = el("button", { type: "button", className: "link", "aria-expanded": "false" }, first);
        const cells = [opener, ...others].map((content, at) => cell(this.#history.columns[at] ?? "", content));
        const row = { element: el("tr", { className: "clickable" }, ...cells), opener };
        row.element.addEventListener("click", () => this.#toggle(row, record));
        return row;
    }

    #toggle(row: Row, record: unknown): void {
        const isOpen = this.#opened?.row === row;
        this.#opened?.row.opener.setAttribute("aria-expanded", "false");
        this.#opened = undefined;
        if (!isOpen) {
            const place = el("td", { colSpan: this.#history.columns.length }, ...this.#history.details(record));
            this.#opened = { row, details: el("tr", { className: "detail" }, place) };
            row.opener.setAttribute("aria-expanded", "true");
        }
        this.#arrange();
    }

    #arrange(): void {
        const opened = this.#opened;
        const withDetails = (row: Row) => (row === opened?.row ? [row.element, opened.details] : [row.element]);
        arrange(this.#body, [...this.#rows.values()].flatMap(withDetails));
    }
}

/** Each record with what tells it from all others of the list, also where two are alike. */
function withKeys(records: unknown[]): [key: string, record: unknown][] {
    const seen = new Map<string, number>();
    return records.map((record) => {
        const text = JSON.stringify(record);
        const count = (seen.get(text) ?? 0) + 1;
        seen.set(text, count);
        return [`${count} ${text}`, record];
    });
}
