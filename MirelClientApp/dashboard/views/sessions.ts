import { numberAt, textAt, valueAt } from "../api";
import { Card } from "../card";
import { facts } from "../facts";
import { localTime } from "../format";
import type { Lifetime } from "../lifetime";
import { showHistory } from "./history";
import { logFrame, logLines } from "./log_lines";
import { readLog } from "./log_part";

const SLICE_LINES = 40;

/** The starts and stops of a package. */
export function showSessions(card: Card, name: string, life: Lifetime): void {
    showHistory(card, name, life, {
        route: "sessions",
        refreshMilliseconds: 3000,
        columns: ["Event", "Time", "Pid", "Reason"],
        time: (session) => numberAt(session, "timestamp"),
        texts: (session) => [
            isStart(session) ? "start" : "stop",
            localTime(numberAt(session, "timestamp")),
            String(numberAt(session, "pid")),
            textAt(session, "reason"),
        ],
        details: (session) => details(name, session, life),
    });
}

function isStart(session: unknown): boolean {
    return valueAt(session, "is_start") === true;
}

function details(name: string, session: unknown, life: Lifetime): Node[] {
    const told = facts([
        ["pid", String(numberAt(session, "pid"))],
        ["args", textAt(session, "args")],
        ["working_dir", textAt(session, "working_dir")],
        ["executable_path", textAt(session, "executable_path")],
        ["duration_seconds", isStart(session) ? "" : String(numberAt(session, "duration_seconds"))],
        ["reason", textAt(session, "reason")],
    ]);
    const line = numberAt(session, "log_line");
    return line > 0 ? [told, slice(name, isStart(session), line, life)] : [told];
}

/** What the log says after a start or before a stop. */
function slice(name: string, start: boolean, line: number, life: Lifetime): HTMLElement {
    const from = start ? line : Math.max(1, line - SLICE_LINES);
    const to = start ? line + SLICE_LINES : line;
    const card = new Card();
    void card.fill(life, async () => {
        const { lines } = await readLog(name, from, to);
        if (lines.length === 0) {
            card.empty(`The log has no lines ${from}–${to} any more.`);
        } else {
            card.show(logFrame(...logLines(lines)));
        }
    });
    return card.element;
}
