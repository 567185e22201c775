import { el } from "./dom";

/** Names and what they stand for, one below the other. */
export function facts(list: [name: string, value: string][]): HTMLElement {
    return el("dl", {}, ...list.flatMap(([name, value]) => [el("dt", {}, name), el("dd", {}, value || "–")]));
}
