import { api, numberAt, packagePath, textAt, textsAt } from "../api";
import { Card } from "../card";
import { el } from "../dom";
import { facts } from "../facts";
import { localTime } from "../format";
import type { Lifetime } from "../lifetime";
import { framesOf } from "./frames";
import { showHistory } from "./history";
import { logFrame, logLines } from "./log_lines";

/** Those whose numbers are the same on every machine. */
const SIGNALS: Record<number, string> = {
    0: "none",
    4: "SIGILL",
    5: "SIGTRAP",
    6: "SIGABRT",
    8: "SIGFPE",
    11: "SIGSEGV",
};

/** The crashes of a package. */
export function showCrashes(card: Card, name: string, life: Lifetime): void {
    showHistory(card, name, life, {
        route: "crashes",
        refreshMilliseconds: 5000,
        columns: ["Time", "Pid", "Signal", "Detail"],
        time: (crash) => numberAt(crash, "ts"),
        texts: (crash) => [
            localTime(numberAt(crash, "ts")),
            String(numberAt(crash, "pid")),
            String(numberAt(crash, "signum")),
            textAt(crash, "detail"),
        ],
        details: (crash) => details(name, crash, life),
    });
}

function details(name: string, crash: unknown, life: Lifetime): Node[] {
    const told = facts([
        ["signal", signalText(numberAt(crash, "signum"))],
        ["address", textAt(crash, "addr")],
        ["detail", textAt(crash, "detail")],
        ["version", textAt(crash, "version")],
        ["commit", textAt(crash, "commit")],
        ["build", buildText(crash)],
    ]);
    const frames = textsAt(crash, "backtrace");
    return [
        told,
        el("h3", {}, "Backtrace"),
        frames.length > 0 ? framesOf(frames) : el("p", { className: "note" }, "None was recorded."),
        el("h3", {}, "Recent activity"),
        activity(name, crash, life),
    ];
}

function signalText(number: number): string {
    const signal = SIGNALS[number];
    return signal === undefined ? String(number) : `${number} (${signal})`;
}

function buildText(crash: unknown): string {
    const [type, time, user, machine] = ["build_type", "build_ts", "build_user", "build_machine"].map((key) =>
        textAt(crash, key),
    );
    const maker = [user, machine].filter(Boolean).join("@");
    return [type, time, maker].filter(Boolean).join(", ");
}

/** What was logged and went over the bus right before the crash. */
function activity(name: string, crash: unknown, life: Lifetime): HTMLElement {
    const card = new Card();
    const [pid, time] = ["pid", "ts"].map((key) => String(numberAt(crash, key)));
    void card.fill(life, async () => {
        const lines = textsAt(await api("GET", packagePath(name, "crashes", pid ?? "", time ?? "")), "lines");
        if (lines.length === 0) {
            card.empty("None was recorded.");
        } else {
            card.show(logFrame(...logLines(lines, levelInTrace)));
        }
    });
    return card.element;
}

/** What went over the bus stands back behind what was logged. */
function levelInTrace(line: string): string {
    return /^\[LOG (\w+)\]/.exec(line)?.[1] ?? "TRACE";
}
