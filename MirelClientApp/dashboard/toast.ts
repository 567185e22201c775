import { el } from "./dom";

const TOAST_MILLISECONDS = 2500;

/** A short message in the corner of the window. */
export function toast(text: string, kind: "good" | "bad" = "good"): void {
    const element = el("div", { className: `toast ${kind}` }, text);
    document.getElementById("toasts")?.append(element);
    window.setTimeout(() => element.remove(), TOAST_MILLISECONDS);
}
