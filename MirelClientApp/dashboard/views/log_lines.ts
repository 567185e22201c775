import { el } from "../dom";

/** Where lines of a log stand. */
export function logFrame(...lines: HTMLElement[]): HTMLElement {
    return el("pre", { className: "log", tabIndex: 0 }, ...lines);
}

/** The lines, coloured by their level. */
export function logLines(lines: string[]): HTMLElement[] {
    return lines.map((line) => el("div", { className: levelOf(line) }, line));
}

function levelOf(line: string): string {
    const tag = /\[(TRACE|DEBUG|INFO|WARNING|ERROR|FATAL)\]/.exec(line);
    return `level-${(tag?.[1] ?? "INFO").toLowerCase()}`;
}
