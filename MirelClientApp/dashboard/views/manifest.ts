import { api, packagePath } from "../api";
import type { Card } from "../card";
import { el } from "../dom";
import type { Lifetime } from "../lifetime";

export function showManifest(card: Card, name: string, life: Lifetime): void {
    void card.fill(life, async () => {
        const manifest = await api("GET", packagePath(name, "manifest"));
        card.show(el("pre", {}, JSON.stringify(manifest, null, 2)));
    });
}
