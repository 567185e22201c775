import { api, errorText, listAt, numberAt, textAt, textsAt, valueAt } from "../api";
import { Card } from "../card";
import { copyText } from "../clipboard";
import { button, el, setText, table } from "../dom";
import type { Lifetime } from "../lifetime";
import { toast } from "../toast";
import { DbRow } from "./db_row";

const PAGE_ROWS = 200;
/** A field's letters, and what it has around them. */
const LETTER_PIXELS = 7.6;
const FIELD_PIXELS = 22;
const MOST_LETTERS = 48;

/** A table's rows, a page of them at a time: read once and after every write. */
export class DbTable {
    readonly #card = new Card();
    readonly #path: string;
    readonly #life: Lifetime;
    readonly #count = el("span", { className: "hint" });
    readonly #previous = button("Previous", () => this.#turnTo(this.#first - PAGE_ROWS));
    readonly #next = button("Next", () => this.#turnTo(this.#first + PAGE_ROWS));
    readonly #all = el("input", { type: "checkbox", "aria-label": "Select all rows" });
    readonly #written: () => void;
    /** The number of the page's first row. */
    #first = 1;
    #rows: DbRow[] = [];
    readonly element: HTMLElement;

    /** `written` is called after every write, whatever became of it. */
    constructor(path: string, name: string, life: Lifetime, written: () => void) {
        this.#path = path;
        this.#life = life;
        this.#written = written;
        this.#previous.hidden = true;
        this.#next.hidden = true;
        this.#all.addEventListener("change", () => {
            this.#rows.forEach((row) => (row.selected = this.#all.checked));
        });
        this.element = el(
            "section",
            {},
            el("div", { className: "line heading" },
                el("h3", {}, name),
                this.#count,
                this.#previous,
                this.#next,
                button("Copy selected", () => this.#copySelected()),
                button("Clear table", () => this.#write("clear"), "danger"),
            ),
            this.#card.element,
        );
        void this.#load();
    }

    async #load(): Promise<void> {
        await this.#card.fill(this.#life, async () => {
            const page = await api("GET", `${this.#path}?from=${this.#first}&to=${this.#first + PAGE_ROWS - 1}`);
            if (valueAt(page, "ok") === false) {
                throw new Error(textAt(page, "error") || "the table could not be read");
            }
            if (this.#first > 1 && listAt(page, "rows").length === 0) {
                await this.#turnTo(this.#first - PAGE_ROWS); // the table has become shorter
                return;
            }
            this.#draw(page);
        });
    }

    async #turnTo(first: number): Promise<void> {
        this.#first = Math.max(1, first);
        await this.#load();
    }

    async #reload(): Promise<void> {
        await this.#load();
        this.#written();
    }

    #draw(page: unknown): void {
        const columns = textsAt(page, "column_names");
        const first = numberAt(page, "from_row");
        const edits = new Map(this.#rows.map((row) => [row.key, row.edits()]));
        this.#all.checked = false;
        this.#rows = listAt(page, "rows").map((cells, index) => {
            const texts = Array.isArray(cells) ? cells.map(String) : [];
            const row = new DbRow(first + index, columns, texts, {
                save: (changed) => this.#saveRow(changed),
                delete: (gone) => this.#write("delete-row", { row_index: gone.index }),
            });
            row.takeOver(edits.get(row.key));
            return row;
        });
        const total = numberAt(page, "total_rows");
        const last = first + this.#rows.length - 1;
        this.#previous.hidden = this.#first === 1;
        this.#next.hidden = last >= total;
        setText(this.#count, this.#rows.length > 0 ? `rows ${first}–${last} of ${total}` : `${total} rows`);
        if (this.#rows.length === 0) {
            this.#card.empty("The table is empty.");
            return;
        }
        const headings = columns.map((column, at) => heading(column, this.#rows.map((row) => row.cells[at] ?? "")));
        const list = table([this.#all, "#", ...headings, ""], "rows");
        list.body.append(...this.#rows.map((row) => row.element));
        this.#card.show(list.frame);
        this.#rows.forEach((row) => row.takeFocus(edits.get(row.key)));
    }

    /** All columns but the key, each on its own; the last failure is told. */
    async #saveRow(row: DbRow): Promise<void> {
        let failure = "";
        for (const [column, value] of row.values().entries()) {
            try {
                const result = await this.#post("cell", {
                    row_index: row.index,
                    column_index: column + 1,
                    value,
                });
                failure = result || failure;
            } catch (error) {
                failure = errorText(error);
            }
        }
        if (failure === "") {
            toast("Row saved");
        } else {
            toast(`Some cells failed to save: ${failure}`, "bad");
        }
        await this.#reload();
    }

    async #write(action: string, body?: object): Promise<void> {
        try {
            const failure = await this.#post(action, body);
            if (failure !== "") {
                throw new Error(failure);
            }
        } catch (error) {
            toast(errorText(error), "bad");
        }
        await this.#reload();
    }

    /** The error of a write that the machine passed on and the package refused. */
    async #post(action: string, body?: object): Promise<string> {
        const result = await api("POST", `${this.#path}/${action}`, body);
        return valueAt(result, "ok") === false ? textAt(result, "error") || "refused" : "";
    }

    async #copySelected(): Promise<void> {
        const selected = this.#rows.filter((row) => row.selected).sort((a, b) => a.index - b.index);
        try {
            await copyText(selected.map((row) => row.cells.join("\t")).join("\n"));
            toast(`${selected.length} rows copied`);
        } catch (error) {
            toast(errorText(error), "bad");
        }
    }
}

/** Above a column that is as wide as most of its cells, the window permitting. */
function heading(name: string, cells: string[]): HTMLElement {
    const letters = Math.min(MOST_LETTERS, Math.max(...cells.map((cell) => cell.length)));
    const element = el("span", {}, name);
    element.style.minWidth = `${Math.ceil(letters * LETTER_PIXELS) + FIELD_PIXELS}px`;
    return element;
}
