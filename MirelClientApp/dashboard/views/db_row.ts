import { button, el } from "../dom";
import { ValueField } from "../value_field";

/** What was typed into a row and not saved, by column, and the column being typed into. */
export interface Edits {
    texts: Map<number, string>;
    focused: number | undefined;
}

const BAR_HINT = "A cell holds a “|”, which cells are parted by: which is which cannot be told any more.";

/** One row of a table: its key in the first column, and a field for every other one. A row that has
 * not come apart into its cells has no fields: what is typed would be saved into the wrong ones. */
export class DbRow {
    readonly element = el("tr");
    readonly #selection: HTMLInputElement;
    readonly #fields: ValueField[];

    constructor(
        readonly index: number,
        columns: string[],
        readonly cells: string[],
        actions: { save: (row: DbRow) => Promise<void>; delete: (row: DbRow) => Promise<void> },
    ) {
        const save = button("Save", () => actions.save(this));
        const remove = button("Delete", () => actions.delete(this), "danger");
        this.#selection = el("input", { type: "checkbox", "aria-label": `Select row ${index}` });
        const isWhole = cells.length === columns.length;
        this.#fields = (isWhole ? cells.slice(1) : []).map((value, at) => {
            const label = `${columns[at + 1] ?? at + 1} of row ${index}`;
            return new ValueField(label, value, () => save.click());
        });
        const others = isWhole
            ? this.#fields.map((field) => el("td", {}, field.element))
            : [el("td", { colSpan: Math.max(1, columns.length - 1), title: BAR_HINT }, cells.slice(1).join("|"))];
        save.disabled = !isWhole;
        save.title = isWhole ? "" : BAR_HINT;
        this.element.append(
            el("td", {}, this.#selection),
            el("td", { className: "number" }, String(index)),
            el("td", { className: "key" }, this.key),
            ...others,
            el("td", { className: "actions" }, save, remove),
        );
    }

    get key(): string {
        return this.cells[0] ?? "";
    }

    get selected(): boolean {
        return this.#selection.checked;
    }

    set selected(selected: boolean) {
        this.#selection.checked = selected;
    }

    /** Of all columns but the key. */
    values(): string[] {
        return this.#fields.map((field) => field.value);
    }

    edits(): Edits {
        const texts = new Map<number, string>();
        this.#fields.forEach((field, at) => {
            if (field.edited) {
                texts.set(at, field.element.value);
            }
        });
        const focused = this.#fields.findIndex((field) => field.element === document.activeElement);
        return { texts, focused: focused < 0 ? undefined : focused };
    }

    /** Goes on with what was typed before the rows were read anew. */
    takeOver(edits: Edits | undefined): void {
        edits?.texts.forEach((text, at) => this.#fields[at]?.edit(text));
    }

    takeFocus(edits: Edits | undefined): void {
        if (edits?.focused !== undefined) {
            this.#fields[edits.focused]?.element.focus();
        }
    }
}
