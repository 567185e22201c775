import { errorText, textAt } from "../api";
import { arrange, el, setText, table } from "../dom";
import { Lifetime } from "../lifetime";
import { toast } from "../toast";
import { PackageDetail } from "./detail";
import { installedPackages } from "./installed";
import { PackageRow } from "./package_row";
import { followUpdate } from "./update";

const REFRESH_MILLISECONDS = 5000;

/** The list of installed packages, or the detail of one of them in its place. */
export class PackagesView {
    readonly element = el("section");
    readonly #update = el("p", { className: "note", role: "status", hidden: true });
    readonly #empty = el("p", { className: "note" }, "Loading…");
    readonly #table = table(["Name", "Version", "Status", "Args", "Started", "Actions"], "stacked packages");
    readonly #rows = new Map<string, PackageRow>();
    #detail: PackageDetail | undefined;
    /** Of the update that the list tells of. */
    #updateLife = new Lifetime();
    #newest = 0;

    constructor() {
        this.#table.frame.hidden = true;
        this.#showList();
        new Lifetime().every(REFRESH_MILLISECONDS, async () => {
            if (this.#detail === undefined) {
                await this.refresh();
            }
        });
    }

    /** Reads the list anew. */
    async refresh(): Promise<void> {
        const turn = ++this.#newest;
        try {
            const packages = await installedPackages();
            if (turn === this.#newest) {
                this.#load(packages);
            }
        } catch (error) {
            toast(errorText(error), "bad");
            if (this.#rows.size === 0) {
                setText(this.#empty, `The packages could not be read: ${errorText(error)}`);
            }
        }
    }

    /** Goes back to the list and tells there how an update comes along. */
    tellOfUpdate(name: string, version: string): void {
        this.#showList();
        this.#updateLife.end();
        this.#updateLife = new Lifetime();
        const progress = (text: string, kind: string) => {
            setText(this.#update, text === "" ? "" : `${name} ${version}: ${text}`);
            this.#update.className = `note ${kind === "bad" ? "error" : ""}`;
            this.#update.hidden = text === "";
        };
        progress("requested", "");
        followUpdate(name, version, this.#updateLife, progress, () => void this.refresh());
    }

    #load(packages: unknown[]): void {
        const names = new Set(packages.map((entry) => textAt(entry, "name")));
        for (const name of this.#rows.keys()) {
            if (!names.has(name)) {
                this.#rows.delete(name);
            }
        }
        const rows = packages.map((entry) => {
            const row = this.#rowOf(textAt(entry, "name"));
            row.load(entry);
            return row.element;
        });
        arrange(this.#table.body, rows);
        setText(this.#empty, "No packages installed.");
        this.#empty.hidden = rows.length > 0;
        this.#table.frame.hidden = rows.length === 0;
    }

    #rowOf(name: string): PackageRow {
        let row = this.#rows.get(name);
        if (row === undefined) {
            row = new PackageRow(
                name,
                () => this.#open(name),
                () => void this.refresh(),
            );
            this.#rows.set(name, row);
        }
        return row;
    }

    #open(name: string): void {
        this.#detail = new PackageDetail(
            name,
            () => this.#close(name),
            () => void this.refresh(),
        );
        this.element.replaceChildren(this.#detail.element);
        this.#detail.element.querySelector<HTMLElement>("[aria-selected=true]")?.focus();
    }

    #close(name: string): void {
        this.#showList();
        this.#rows.get(name)?.opener.focus();
        void this.refresh();
    }

    #showList(): void {
        this.#detail?.end();
        this.#detail = undefined;
        this.element.replaceChildren(this.#table.frame, this.#empty, this.#update);
    }
}
