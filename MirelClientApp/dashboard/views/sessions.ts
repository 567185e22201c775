import { api, errorText, listAt, numberAt, packagePath, textAt, valueAt } from "../api";
import type { Card } from "../card";
import { arrange, cell, el, setText, table } from "../dom";
import { localTime } from "../format";
import type { Lifetime } from "../lifetime";
import { logFrame, logLines } from "./log_lines";

const REFRESH_MILLISECONDS = 3000;
const SLICE_LINES = 40;

/** The starts and stops of a package, the newest first. A click on one opens its details below it,
 * where they stay while the list is refreshed. */
export function showSessions(card: Card, name: string, life: Lifetime): void {
    const list = table(["Event", "Time", "Pid", "Reason"]);
    let opened: { key: string; row: HTMLElement } | undefined;

    const draw = (sessions: unknown[]) => {
        const keys = new Map<string, number>();
        const rows: HTMLElement[] = [];
        const focused = (document.activeElement as HTMLElement | null)?.dataset.session;
        let focus: HTMLElement | undefined;
        for (const session of sessions) {
            const row = sessionRow(session);
            const key = keyOf(session, keys);
            const isOpen = opened?.key === key;
            row.opener.setAttribute("aria-expanded", String(isOpen));
            row.opener.dataset.session = key;
            focus = focused === key ? row.opener : focus;
            row.element.addEventListener("click", () => {
                opened = opened?.key === key ? undefined : { key, row: detailRow(name, session, life) };
                draw(sessions);
            });
            rows.push(row.element, ...(isOpen && opened ? [opened.row] : []));
        }
        arrange(list.body, rows);
        focus?.focus();
    };

    life.every(REFRESH_MILLISECONDS, () =>
        card.fill(life, async () => {
            const sessions = listAt(await api("GET", packagePath(name, "sessions")), "sessions");
            if (sessions.length === 0) {
                card.empty("No data (is the package running and discovered?)");
                return;
            }
            card.update(sessions, () => {
                draw(newestFirst(sessions));
                return [list.frame];
            });
        }),
    );
}

function newestFirst(sessions: unknown[]): unknown[] {
    const time = (session: unknown) => numberAt(session, "timestamp");
    return [...sessions].reverse().sort((a, b) => time(b) - time(a));
}

function isStart(session: unknown): boolean {
    return valueAt(session, "is_start") === true;
}

function sessionRow(session: unknown) {
    const event = isStart(session) ? "start" : "stop";
    const opener = el("button", { type: "button", className: "link" }, event);
    const element = el(
        "tr",
        { className: "clickable" },
        cell("Event", opener),
        cell("Time", localTime(numberAt(session, "timestamp"))),
        cell("Pid", String(numberAt(session, "pid"))),
        cell("Reason", textAt(session, "reason")),
    );
    return { element, opener };
}

/** What tells an event from all others of a list, also when two are alike. */
function keyOf(session: unknown, seen: Map<string, number>): string {
    const alike = ["timestamp", "pid"].map((key) => numberAt(session, key)).join() + isStart(session);
    const count = (seen.get(alike) ?? 0) + 1;
    seen.set(alike, count);
    return `${alike}#${count}`;
}

function detailRow(name: string, session: unknown, life: Lifetime): HTMLElement {
    const facts: [string, string][] = [
        ["pid", String(numberAt(session, "pid"))],
        ["args", textAt(session, "args")],
        ["working_dir", textAt(session, "working_dir")],
        ["executable_path", textAt(session, "executable_path")],
        ["duration_seconds", String(numberAt(session, "duration_seconds"))],
        ["reason", textAt(session, "reason")],
    ];
    const list = el("dl", {}, ...facts.flatMap(([key, value]) => [el("dt", {}, key), el("dd", {}, value)]));
    const slice = el("div");
    const line = numberAt(session, "log_line");
    if (line > 0) {
        void fillSlice(slice, name, isStart(session), line, life);
    }
    return el("tr", { className: "detail" }, el("td", { colSpan: 4 }, list, slice));
}

/** What the log says after a start or before a stop. */
async function fillSlice(
    slice: HTMLElement,
    name: string,
    start: boolean,
    line: number,
    life: Lifetime,
): Promise<void> {
    const from = start ? line : Math.max(1, line - SLICE_LINES);
    const to = start ? line + SLICE_LINES : line;
    setText(slice, "Loading…");
    try {
        const log = await api("GET", `${packagePath(name, "log")}?from=${from}&to=${to}`);
        const frame = logFrame();
        frame.append(...logLines(log));
        slice.replaceChildren(frame);
    } catch (error) {
        if (!life.ended) {
            slice.replaceChildren(el("p", { className: "note error" }, errorText(error)));
        }
    }
}
