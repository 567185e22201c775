import { api, numberAt, packagePath } from "../api";
import type { Card } from "../card";
import type { Lifetime } from "../lifetime";
import { logFrame, logLines } from "./log_lines";

const REFRESH_MILLISECONDS = 2000;
const SHOWN_LINES = 200;

/** The end of a package's log. It keeps showing the newest lines unless it was scrolled up. */
export function showLogs(card: Card, name: string, life: Lifetime): void {
    const frame = logFrame();
    life.every(REFRESH_MILLISECONDS, () =>
        card.fill(life, async () => {
            const info = await api("GET", packagePath(name, "log", "info"));
            const to = numberAt(info, "line_count");
            if (to === 0) {
                card.empty("The log is empty.");
                return;
            }
            const from = Math.max(1, to - (SHOWN_LINES - 1));
            const log = await api("GET", `${packagePath(name, "log")}?from=${from}&to=${to}`);
            const lines = logLines(log);
            const scrolledTo = isAtEnd(frame) ? undefined : frame.scrollTop;
            card.update(log, () => {
                frame.replaceChildren(...lines);
                return [frame];
            });
            frame.scrollTop = scrolledTo ?? frame.scrollHeight;
        }),
    );
}

function isAtEnd(element: HTMLElement): boolean {
    return element.scrollHeight - element.scrollTop - element.clientHeight < 4;
}
