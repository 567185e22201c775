import { api, listAt, numberAt, packagePath, textAt } from "../api";
import type { Card } from "../card";
import { cell, el, table } from "../dom";
import { localTime } from "../format";
import type { Lifetime } from "../lifetime";

const REFRESH_MILLISECONDS = 5000;

export function showCrashes(card: Card, name: string, life: Lifetime): void {
    life.every(REFRESH_MILLISECONDS, () =>
        card.fill(life, async () => {
            const crashes = listAt(await api("GET", packagePath(name, "crashes")), "crashes");
            if (crashes.length === 0) {
                card.empty("No data (is the package running and discovered?)");
                return;
            }
            card.update(crashes, () => {
                const list = table(["Time", "Pid", "Signal", "Detail"]);
                list.body.append(...crashes.map(crashRow));
                return [list.frame];
            });
        }),
    );
}

function crashRow(crash: unknown): HTMLElement {
    return el(
        "tr",
        {},
        cell("Time", localTime(numberAt(crash, "ts"))),
        cell("Pid", String(numberAt(crash, "pid"))),
        cell("Signal", String(numberAt(crash, "signum"))),
        cell("Detail", textAt(crash, "detail")),
    );
}
