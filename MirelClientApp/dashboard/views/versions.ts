import { api, errorText, listAt, registryPath, textAt, textsAt } from "../api";
import type { Card } from "../card";
import { button, cell, el, setText, table } from "../dom";
import type { Lifetime } from "../lifetime";
import { installedPackage } from "./installed";
import { type Build, followUpdate, requestUpdate } from "./update";

interface BuildRow {
    element: HTMLTableRowElement;
    mark: (installed: Build) => void;
}

/** Every build that the registry has of an installed package. `refresh` renews the list of packages
 * after a switch. */
export function showVersions(card: Card, name: string, life: Lifetime, refresh: () => void): void {
    void card.fill(life, async () => {
        const installed = installedBuild(await installedPackage(name));
        const builds = await allBuilds(name);
        const heading = el("p", { className: "hint" });
        const list = table(["Channel", "Version", "Arch", ""]);
        const rows = builds.map((build) => buildRow(name, build, life, () => void switched()));
        const mark = (current: Build) => {
            setText(heading, `Installed: ${current.version} (${current.arch})`);
            rows.forEach((row) => row.mark(current));
        };
        const switched = async () => {
            refresh();
            await card.fill(life, async () => mark(installedBuild(await installedPackage(name))));
        };
        mark(installed);
        list.body.append(...rows.map((row) => row.element));
        const none = el("p", { className: "note" }, "The registry has no versions of it.");
        card.show(heading, rows.length > 0 ? list.frame : none);
    });
}

/** The installed version and arch; which channel it came from is not recorded. */
function installedBuild(entry: unknown): Build {
    return { channel: "", version: textAt(entry, "version"), arch: textAt(entry, "arch") };
}

async function allBuilds(name: string): Promise<Build[]> {
    const channels = textsAt(await api("GET", registryPath(name, "channels")), "channels");
    const lists = channels.map(async (channel) => {
        const versions = listAt(await api("GET", registryPath(name, channel)), "versions");
        return versions.map((entry) => ({
            channel,
            version: textAt(entry, "version"),
            arch: textAt(entry, "arch"),
        }));
    });
    return (await Promise.all(lists)).flat();
}

function buildRow(name: string, build: Build, life: Lifetime, switched: () => void): BuildRow {
    const phase = el("span", { className: "phase", role: "status" });
    const progress = (text: string, kind: string) => {
        setText(phase, text);
        phase.className = `phase ${kind}`;
    };
    const change = button("Switch", async () => {
        try {
            progress("", "");
            await requestUpdate(name, build);
            followUpdate(name, build.version, life, progress, switched);
        } catch (error) {
            progress(errorText(error), "bad");
        }
    });
    const current = el("span", { className: "badge good" }, "current");
    const element = el(
        "tr",
        {},
        cell("Channel", build.channel),
        cell("Version", build.version),
        cell("Arch", build.arch),
        el("td", { className: "actions" }, change, current, phase),
    );
    const mark = (installed: Build) => {
        const isCurrent = installed.version === build.version && installed.arch === build.arch;
        change.hidden = isCurrent;
        current.hidden = !isCurrent;
    };
    return { element, mark };
}
