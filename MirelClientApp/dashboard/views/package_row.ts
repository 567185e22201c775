import { api, errorText, numberAt, packagePath, textAt, textsAt } from "../api";
import { cell, el, setText, whileDisabled } from "../dom";
import { localTime, relativeTime } from "../format";
import { toast } from "../toast";

const ACTIONS = ["start", "stop", "restart", "uninstall"];
const BADGES: Record<string, string> = { running: "good", stopped: "warning" };

/** A package's row in the list; it is kept over refreshes. */
export class PackageRow {
    readonly element: HTMLTableRowElement;
    readonly opener: HTMLButtonElement;
    readonly #version = el("span");
    readonly #status = el("span");
    readonly #args = el("code");
    readonly #started = el("span");

    /** `acted` is called after an action, whatever became of it. */
    constructor(name: string, open: () => void, acted: () => void) {
        this.opener = el("button", { type: "button", className: "link" }, name);
        const buttons = ACTIONS.map((action) =>
            el("button", { type: "button", className: action === "uninstall" ? "danger" : "" }, capital(action)),
        );
        buttons.forEach((button, at) => {
            const action = ACTIONS[at] ?? "";
            button.addEventListener("click", () => {
                void whileDisabled(buttons, () => act(name, action).finally(acted));
            });
        });
        const actions = el("td", { className: "actions" }, ...buttons);
        actions.addEventListener("click", (event) => event.stopPropagation());
        this.element = el(
            "tr",
            { className: "clickable" },
            cell("Name", this.opener),
            cell("Version", this.#version),
            cell("Status", this.#status),
            cell("Args", this.#args),
            cell("Started", this.#started),
            actions,
        );
        this.element.addEventListener("click", open);
    }

    load(entry: unknown): void {
        const status = textAt(entry, "status");
        const startedAt = numberAt(entry, "started_at");
        setText(this.#version, textAt(entry, "version"));
        setText(this.#status, status);
        this.#status.className = `badge ${BADGES[status] ?? "bad"}`;
        setText(this.#args, textsAt(entry, "launch_args").join(" "));
        setText(this.#started, relativeTime(startedAt));
        this.#started.title = localTime(startedAt);
    }
}

async function act(name: string, action: string): Promise<void> {
    try {
        await api("POST", packagePath(name, action));
        toast(`${action} ${name}: ok`);
    } catch (error) {
        toast(`${action} ${name} failed: ${errorText(error)}`, "bad");
    }
}

function capital(word: string): string {
    return word.charAt(0).toUpperCase() + word.slice(1);
}
