import { el } from "./dom";

/** Browsers offer their clipboard only to pages that came over TLS or from the same machine; the
 * older way through a selection serves the others. */
export async function copyText(text: string): Promise<void> {
    if (window.isSecureContext) {
        await navigator.clipboard.writeText(text);
        return;
    }
    const area = el("textarea", { value: text, className: "offscreen" });
    document.body.append(area);
    area.select();
    const copied = document.execCommand("copy");
    area.remove();
    if (!copied) {
        throw new Error("the browser did not allow copying");
    }
}
