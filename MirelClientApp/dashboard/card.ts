import { errorText } from "./api";
import { arrange, el, setText } from "./dom";
import type { Lifetime } from "./lifetime";

/** Where a detail stands: its content, or a sentence in place of it. */
export class Card {
    readonly #note = el("p", { className: "note" });
    readonly #body = el("div", { className: "card-body" });
    readonly element = el("section", { className: "card" }, this.#note, this.#body);
    #shown: unknown;

    constructor() {
        this.#say("Loading…", "");
    }

    /** What stands there already is not taken out and put back: it would lose the focus. */
    show(...content: Node[]): void {
        this.#shown = undefined;
        this.#say("", "");
        arrange(this.#body, content);
    }

    /** Shows what is drawn of the data, unless that is shown already: a refresh that brings nothing
     * new moves nothing. */
    update(data: unknown, draw: () => Node[]): void {
        const key = JSON.stringify(data);
        if (this.#shown !== key) {
            this.show(...draw());
            this.#shown = key;
        }
    }

    empty(text: string): void {
        this.show();
        this.#say(text, "");
    }

    /** The content gives way to the text of the error, unless something was typed into it. */
    error(error: unknown): void {
        if (this.#body.querySelector(".edited") === null) {
            this.show();
        }
        this.#say(errorText(error), "error");
    }

    /** Runs a task that fills the card; its failure stands in the card then. */
    async fill(life: Lifetime, task: () => Promise<void>): Promise<void> {
        try {
            await task();
        } catch (error) {
            if (!life.ended) {
                this.error(error);
            }
        }
    }

    #say(text: string, kind: string): void {
        setText(this.#note, text);
        this.#note.className = `note ${kind}`;
        this.#note.hidden = text === "";
    }
}
