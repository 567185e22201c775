import { api, errorText, listAt, textAt, valueAt } from "../api";
import type { Card } from "../card";
import { arrange, button, cell, el, setText, table } from "../dom";
import type { Lifetime } from "../lifetime";
import { toast } from "../toast";
import { ValueField } from "../value_field";

interface FieldRow {
    element: HTMLTableRowElement;
    value: ValueField;
    defaultValue: HTMLElement;
}

/** The settings that a route lists and takes, one row each: read once and after every save. */
export class ConfigTable {
    readonly #card: Card;
    readonly #path: string;
    readonly #life: Lifetime;
    readonly #table = table(["Field", "Type", "Value", "Default", ""], "stacked config");
    readonly #rows = new Map<string, FieldRow>();

    constructor(card: Card, path: string, life: Lifetime) {
        this.#card = card;
        this.#path = path;
        this.#life = life;
        this.refresh();
    }

    /** Reads the settings anew; what is being typed stays. */
    refresh(): void {
        void this.#card.fill(this.#life, () => this.#load());
    }

    async #load(saved?: { name: string; value: string }): Promise<void> {
        const fields = listAt(await api("GET", this.#path), "fields");
        if (fields.length === 0) {
            this.#tellOfNone();
            return;
        }
        const rows = fields.map((field) => {
            const name = textAt(field, "name");
            const row = this.#rows.get(name) ?? this.#addRow(field);
            row.value.load(textAt(field, "current_value"), saved?.name === name ? saved.value : undefined);
            setText(row.defaultValue, textAt(field, "default_value"));
            row.element.classList.toggle("changed", valueAt(field, "is_default") === false);
            return row.element;
        });
        this.#card.show(this.#table.frame);
        arrange(this.#table.body, rows);
    }

    #tellOfNone(): void {
        const text = "No config fields (package not discovered on the bus?).";
        if ([...this.#rows.values()].some((row) => row.value.edited)) {
            this.#card.error(text); // leaves what is being typed
        } else {
            this.#card.empty(text);
        }
    }

    #addRow(field: unknown): FieldRow {
        const name = textAt(field, "name");
        const save = button("Save", () => this.#save(name));
        const row = {
            element: el("tr"),
            value: new ValueField(name, textAt(field, "current_value"), () => save.click()),
            defaultValue: el("span"),
        };
        const description = el("small", {}, textAt(field, "description"));
        row.element.append(
            cell("Field", el("div", {}, el("code", {}, name), description)),
            cell("Type", textAt(field, "type_name")),
            cell("Value", row.value.element),
            cell("Default", row.defaultValue),
            cell("", save),
        );
        this.#rows.set(name, row);
        return row;
    }

    async #save(name: string): Promise<void> {
        const value = this.#rows.get(name)?.value.value ?? "";
        try {
            await api("POST", this.#path, { name, value });
        } catch (error) {
            toast(`${name}: ${errorText(error)}`, "bad");
            return;
        }
        toast(`${name} saved`);
        await this.#card.fill(this.#life, () => this.#load({ name, value }));
    }
}
