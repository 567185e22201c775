import { api, errorText, textAt } from "../api";
import { el } from "../dom";
import { Lifetime } from "../lifetime";

const REFRESH_MILLISECONDS = 30000;

/** Keeps the bar below the header telling which machine this is. */
export function keepSummary(bar: HTMLElement): void {
    bar.replaceChildren("Loading…");
    new Lifetime().every(REFRESH_MILLISECONDS, async () => {
        try {
            const self = await api("GET", "/api/self");
            bar.replaceChildren(
                fact("os", textAt(self, "os")),
                fact("cpu", textAt(self, "cpu") || textAt(self, "arch")),
                fact("name", textAt(self, "config_name") || "(unset)"),
                fact("version", textAt(self, "version")),
            );
        } catch (error) {
            bar.replaceChildren(`Machine info unavailable: ${errorText(error)}`);
        }
    });
}

function fact(label: string, value: string): HTMLElement {
    return el("span", {}, el("small", {}, label), " ", value);
}
