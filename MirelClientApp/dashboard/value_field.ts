import { el } from "./dom";

/** A value that may be edited. What is typed stays until it is saved or Escape takes it back; a
 * fresh value only ever replaces one that nobody has touched. */
export class ValueField {
    readonly element: HTMLInputElement | HTMLTextAreaElement;
    #value: string;
    #shown: string;

    /** Enter calls `enter`. A value of several lines gets a field that keeps them, in which Enter
     * is just a further line. */
    constructor(label: string, value: string, enter: () => void) {
        const lines = value.split("\n").length;
        this.element =
            lines > 1
                ? el("textarea", { rows: Math.min(lines, 8), "aria-label": label })
                : el("input", { type: "text", "aria-label": label });
        this.element.spellcheck = false;
        this.element.autocomplete = "off";
        this.element.addEventListener("keydown", (event) => {
            const key = (event as KeyboardEvent).key;
            if (key === "Enter" && lines === 1) {
                enter();
            } else if (key === "Escape" && this.edited) {
                this.element.value = this.#shown;
                this.#mark();
                event.stopPropagation();
            }
        });
        this.element.addEventListener("input", () => this.#mark());
        this.element.value = value;
        this.#value = value;
        this.#shown = this.element.value;
    }

    /** The loaded value as long as it is untouched, whatever of it a field cannot show. */
    get value(): string {
        return this.edited ? this.element.value : this.#value;
    }

    get edited(): boolean {
        return this.element.value !== this.#shown;
    }

    /** What was typed, to be carried over into another field. */
    edit(text: string): void {
        this.element.value = text;
        this.#mark();
    }

    /** The machine's value now. `saved` is what was just sent to it: a field that still shows that
     * is not being edited any more. */
    load(value: string, saved?: string): void {
        const keep = this.edited && this.element.value !== saved;
        const typed = this.element.value;
        if (!keep && typed !== value) {
            this.element.value = value;
        }
        this.#value = value;
        this.#shown = keep ? value : this.element.value;
        this.#mark();
    }

    #mark(): void {
        this.element.classList.toggle("edited", this.edited);
    }
}
