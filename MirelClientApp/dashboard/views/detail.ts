import { packagePath } from "../api";
import { Card } from "../card";
import { button, el } from "../dom";
import { Lifetime } from "../lifetime";
import { Tabs } from "../tabs";
import { ConfigTable } from "./config_table";
import { showCrashes } from "./crashes";
import { showDb } from "./db";
import { showLaunchArgs } from "./launch_args";
import { showLogs } from "./logs";
import { showManifest } from "./manifest";
import { showSessions } from "./sessions";
import { showVersions } from "./versions";
import { showVnc } from "./vnc";

/** All about one package. One sub-tab lives at a time: what runs for it ends when another one is
 * opened or the detail is closed. */
export class PackageDetail {
    readonly element: HTMLElement;
    #life = new Lifetime();

    constructor(name: string, close: () => void, refreshPackages: () => void) {
        type SubTab = (card: Card, name: string, life: Lifetime) => void;
        const subTabs: Record<string, SubTab> = {
            Manifest: showManifest,
            Sessions: showSessions,
            Crashes: showCrashes,
            Logs: showLogs,
            Config: (card, _name, life) => void new ConfigTable(card, packagePath(name, "config"), life),
            "Launch args": showLaunchArgs,
            Versions: (card, _name, life) => showVersions(card, name, life, refreshPackages),
            DB: showDb,
            VNC: showVnc,
        };
        const panel = el("div", { role: "tabpanel" });
        const tabs = new Tabs(`Details of ${name}`, Object.keys(subTabs), (subTab) => {
            this.end();
            this.#life = new Lifetime();
            const card = new Card();
            panel.replaceChildren(card.element);
            panel.setAttribute("aria-label", subTab);
            subTabs[subTab]?.(card, name, this.#life);
        });
        const back = button("← Packages", close);
        this.element = el(
            "section",
            { className: "package" },
            el("div", { className: "line heading" }, back, el("h2", {}, name)),
            tabs.element,
            panel,
        );
        this.element.addEventListener("keydown", (event) => {
            // The remote screen has a use of its own for the key.
            if (event.key === "Escape" && !(event.target instanceof HTMLCanvasElement)) {
                close();
            }
        });
        tabs.open("Manifest");
    }

    end(): void {
        this.#life.end();
    }
}
