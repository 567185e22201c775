import { textAt, textsAt, valueAt } from "../api";
import { el } from "../dom";

/** Where lines of a log stand. */
export function logFrame(): HTMLElement {
    return el("pre", { className: "log", tabIndex: 0 });
}

/** The lines of a log, coloured by their level. What the machine could not read is thrown. */
export function logLines(log: unknown): HTMLElement[] {
    if (valueAt(log, "ok") === false) {
        throw new Error(textAt(log, "error") || "the log could not be read");
    }
    return textsAt(log, "lines").map((line) => el("div", { className: levelOf(line) }, line));
}

function levelOf(line: string): string {
    const tag = /\[(TRACE|DEBUG|INFO|WARNING|ERROR|FATAL)\]/.exec(line);
    return `level-${(tag?.[1] ?? "INFO").toLowerCase()}`;
}
