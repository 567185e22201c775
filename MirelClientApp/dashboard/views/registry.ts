import { api, errorText, listAt, registryPath, textAt, textsAt, valueAt } from "../api";
import { Card } from "../card";
import { button, cell, el, table } from "../dom";
import { Lifetime } from "../lifetime";
import { Tabs } from "../tabs";
import { toast } from "../toast";
import { type Build, requestUpdate } from "./update";

/** What the registry offers: its packages, and the channels and builds of the one that was clicked. */
export class RegistryView {
    readonly element = el("section", { className: "registry" });
    readonly #list = new Card();
    readonly #detail = el("div", { className: "offer" });
    readonly #install: (name: string, version: string) => void;
    /** Of what is shown of one package. */
    #life = new Lifetime();
    #newest = 0;
    #opened: string | undefined;

    /** `installing` is called when the machine has begun to install a build. */
    constructor(installing: (name: string, version: string) => void) {
        this.#install = installing;
        this.element.append(this.#list.element, this.#detail);
    }

    /** Reads the list anew, each time the tab is opened. */
    async open(): Promise<void> {
        const turn = ++this.#newest;
        try {
            const names = textsAt(await api("GET", "/api/registry/packages"), "packages");
            if (turn !== this.#newest) {
                return;
            }
            if (names.length === 0) {
                this.#list.empty("The registry has no packages.");
            } else {
                this.#list.update(names, () => names.map((name) => this.#nameButton(name)));
            }
        } catch (error) {
            toast(errorText(error), "bad");
            this.#list.error(error);
        }
    }

    #nameButton(name: string): HTMLElement {
        const element = button(name, () => {
            this.element.querySelectorAll("[aria-pressed]").forEach((other) => {
                other.setAttribute("aria-pressed", String(other === element));
            });
            this.#openPackage(name);
        }, "entry");
        element.setAttribute("aria-pressed", String(name === this.#opened));
        return element;
    }

    #openPackage(name: string): void {
        this.#opened = name;
        this.#life.end();
        const life = (this.#life = new Lifetime());
        const card = new Card();
        this.#detail.replaceChildren(el("h2", {}, name), card.element);
        void card.fill(life, async () => {
            const channels = textsAt(await api("GET", registryPath(name, "channels")), "channels");
            const first = channels[0];
            if (first === undefined) {
                card.empty("The package has no channels.");
                return;
            }
            const builds = el("div");
            const tabs = new Tabs(`Channels of ${name}`, channels, (channel) => {
                const shown = new Card();
                builds.replaceChildren(shown.element);
                void shown.fill(life, () => this.#showChannel(shown, name, channel));
            });
            card.show(tabs.element, builds);
            tabs.open(first);
        });
    }

    async #showChannel(card: Card, name: string, channel: string): Promise<void> {
        const versions = listAt(await api("GET", registryPath(name, channel)), "versions");
        if (versions.length === 0) {
            card.empty("The channel has no versions.");
            return;
        }
        const list = table(["Version", "Arch", "Description", ""]);
        for (const entry of versions) {
            const build = { channel, version: textAt(entry, "version"), arch: textAt(entry, "arch") };
            const install = button("Install", () => this.#installBuild(name, build), "primary");
            list.body.append(
                el(
                    "tr",
                    {},
                    cell("Version", build.version),
                    cell("Arch", build.arch),
                    cell("Description", textAt(valueAt(entry, "manifest"), "description")),
                    el("td", { className: "actions" }, install),
                ),
            );
        }
        card.show(list.frame);
    }

    async #installBuild(name: string, build: Build): Promise<void> {
        try {
            await requestUpdate(name, build);
            this.#install(name, build.version);
        } catch (error) {
            toast(`install ${name} failed: ${errorText(error)}`, "bad");
        }
    }
}
