import { el } from "../dom";

/** Where lines of a log stand. */
export function logFrame(...lines: HTMLElement[]): HTMLElement {
    return el("pre", { className: "log", tabIndex: 0 }, ...lines);
}

/** The lines, coloured by their level. */
export function logLines(lines: string[], levelOf = levelInLog): HTMLElement[] {
    return lines.map((line) => el("div", { className: `level-${levelOf(line).toLowerCase()}` }, line));
}

function levelInLog(line: string): string {
    return /\[(TRACE|DEBUG|INFO|WARNING|ERROR|FATAL)\]/.exec(line)?.[1] ?? "INFO";
}
