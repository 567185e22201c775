import { api, listAt, numberAt, packagePath, textAt, textsAt } from "../api";
import type { Card } from "../card";
import { button, cell, el, table } from "../dom";
import type { Lifetime } from "../lifetime";
import { DbTable } from "./db_table";

/** The tables of a package's database, and below them the rows of the one that was clicked. */
export function showDb(card: Card, name: string, life: Lifetime): void {
    void card.fill(life, async () => {
        const tables = listAt(await api("GET", packagePath(name, "db")), "tables");
        if (tables.length === 0) {
            card.empty("No tables (package not discovered on the bus, or it has no db).");
            return;
        }
        const list = table(["Table", "Rows", "Columns"]);
        const below = el("div");
        const open = (tableName: string, row: HTMLElement) => {
            list.body.querySelectorAll("tr").forEach((other) => other.classList.toggle("open", other === row));
            const rows = new DbTable(packagePath(name, "db", tableName), tableName, life);
            below.replaceChildren(rows.element);
        };
        list.body.append(...tables.map((entry) => tableRow(entry, open)));
        card.show(list.frame, below);
    });
}

function tableRow(entry: unknown, open: (name: string, row: HTMLElement) => void): HTMLElement {
    const name = textAt(entry, "name");
    const row = el("tr", { className: "clickable" });
    row.append(
        cell("Table", button(name, () => open(name, row), "link")),
        cell("Rows", String(numberAt(entry, "row_count"))),
        cell("Columns", textsAt(entry, "column_names").join(", ")),
    );
    row.addEventListener("click", () => open(name, row));
    return row;
}
