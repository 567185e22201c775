import { api, errorText, numberAt, textAt, valueAt } from "../api";
import { Card } from "../card";
import { button, el } from "../dom";
import { facts } from "../facts";
import { Lifetime } from "../lifetime";
import { toast } from "../toast";
import { ConfigTable } from "./config_table";

const RELOAD_MILLISECONDS = 4000;

/** The daemon itself: its facts, its own update and its settings. */
export class SelfView {
    readonly #facts = new Card();
    readonly #result = el("div", { className: "line", role: "status" });
    readonly #config = new Card();
    readonly #life = new Lifetime();
    readonly element = el(
        "section",
        {},
        this.#facts.element,
        el("div", { className: "line" }, button("Check for updates", () => this.#check()), this.#result),
        el("h2", {}, "Configuration"),
        this.#config.element,
    );
    #settings: ConfigTable | undefined;

    /** Reads facts and settings anew each time. */
    open(): void {
        void this.#facts.fill(this.#life, async () => {
            const self = await api("GET", "/api/self");
            this.#facts.update(self, () => [factsOf(self)]);
        });
        if (this.#settings === undefined) {
            this.#settings = new ConfigTable(this.#config, "/api/self/config", this.#life);
        } else {
            this.#settings.refresh();
        }
    }

    async #check(): Promise<void> {
        this.#say("Checking…");
        try {
            const found = await api("POST", "/api/self/check-update");
            const error = textAt(found, "error");
            const current = textAt(found, "current_version");
            const latest = textAt(found, "latest_version");
            if (error !== "") {
                this.#say(error);
            } else if (valueAt(found, "available") === true) {
                this.#say(
                    `Update available: ${current} → ${latest}`,
                    button("Update now", () => this.#update(latest), "primary"),
                );
            } else {
                this.#say(`Up to date (${current}).`);
            }
        } catch (error) {
            this.#say(errorText(error));
        }
    }

    async #update(version: string): Promise<void> {
        try {
            await api("POST", "/api/self/update", { version });
        } catch (error) {
            this.#say(errorText(error));
            toast(errorText(error), "bad");
            return;
        }
        this.#say("Update triggered - reloading in a few seconds…");
        window.setTimeout(() => window.location.reload(), RELOAD_MILLISECONDS);
    }

    #say(text: string, ...more: Node[]): void {
        this.#result.replaceChildren(el("span", {}, text), ...more);
    }
}

function factsOf(self: unknown): HTMLElement {
    const os = textAt(self, "os");
    return facts([
        ["Version", textAt(self, "version")],
        ["OS and arch", `${os} ${textAt(self, "arch")}`.trim()],
        ["Config name", textAt(self, "config_name") || "(unset)"],
        ["Registry URL", textAt(self, "registry_url")],
        ["Uptime", `${Math.floor(numberAt(self, "uptime_seconds") / 60)} minutes`],
    ]);
}
