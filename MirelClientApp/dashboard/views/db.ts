import { api, errorText, listAt, numberAt, packagePath, textAt, textsAt, valueAt } from "../api";
import type { Card } from "../card";
import { arrange, button, cell, el, setText, table } from "../dom";
import type { Lifetime } from "../lifetime";
import { toast } from "../toast";
import { DbTable } from "./db_table";

/** The tables of a package's database, and below them the rows of the one that was clicked. */
export function showDb(card: Card, name: string, life: Lifetime): void {
    const list = table(["Table", "Rows", "Columns"]);
    const place = el("p", { className: "hint" });
    const below = el("div", { className: "opened" });
    let opened = "";
    const open = (tableName: string) => {
        opened = tableName;
        markOpened();
        const rows = new DbTable(packagePath(name, "db", tableName), tableName, life, () => void refresh());
        below.replaceChildren(rows.element);
    };
    const rows = new Map<string, TableRow>();
    const markOpened = () =>
        rows.forEach((row, tableName) => row.element.classList.toggle("open", tableName === opened));
    const load = async () => {
        const info = await api("GET", packagePath(name, "db"));
        const tables = listAt(info, "tables");
        if (tables.length === 0) {
            card.empty(`No tables (package not discovered on the bus, or it has no db).${unreadable(info)}`);
            return;
        }
        const elements = tables.map((entry) => {
            const tableName = textAt(entry, "name");
            const row = rows.get(tableName) ?? new TableRow(tableName, () => open(tableName));
            rows.set(tableName, row);
            row.load(entry);
            return row.element;
        });
        markOpened();
        arrange(list.body, elements);
        setText(place, [textAt(info, "name"), textAt(info, "path")].filter(Boolean).join(": "));
        card.show(place, list.frame, below);
    };
    /** After a write; what is shown of the table itself stays, whatever becomes of the list. */
    const refresh = () =>
        load().catch((error: unknown) => {
            if (!life.ended) {
                toast(errorText(error), "bad");
            }
        });
    void card.fill(life, load);
}

/** Of a database that is offered, but of which the application itself can read nothing. */
function unreadable(info: unknown): string {
    const path = textAt(info, "path");
    return valueAt(info, "loaded") === false && path !== "" ? `\n${path} could not be read.` : "";
}

/** A table's row in the list; it is kept over refreshes. */
class TableRow {
    readonly element = el("tr", { className: "clickable" });
    readonly #count = el("span");
    readonly #columns = el("span");

    constructor(name: string, open: () => void) {
        this.element.append(
            cell("Table", button(name, open, "link")),
            cell("Rows", this.#count),
            cell("Columns", this.#columns),
        );
        this.element.addEventListener("click", open);
    }

    load(entry: unknown): void {
        setText(this.#count, String(numberAt(entry, "row_count")));
        setText(this.#columns, textsAt(entry, "column_names").join(", "));
    }
}
