import { api, errorText, packagePath, textsAt } from "../api";
import type { Card } from "../card";
import { button, el } from "../dom";
import type { Lifetime } from "../lifetime";
import { toast } from "../toast";
import { ValueField } from "../value_field";
import { installedPackage } from "./installed";

export function showLaunchArgs(card: Card, name: string, life: Lifetime): void {
    void card.fill(life, async () => {
        const args = textsAt(await installedPackage(name), "launch_args").join(" ");
        const field = new ValueField("Launch arguments", args, () => save.click());
        const save = button("Save", () => saveArgs(name, field), "primary");
        card.show(
            el("p", { className: "hint" }, "Arguments for the next start, parted by blanks."),
            el("div", { className: "line" }, field.element, save),
        );
    });
}

async function saveArgs(name: string, field: ValueField): Promise<void> {
    const typed = field.value;
    const args = typed.split(/\s+/).filter((arg) => arg !== "");
    try {
        await api("POST", packagePath(name, "launch-args"), { args });
        field.load(args.join(" "), typed);
        toast("Launch args saved - restart the package to apply.");
    } catch (error) {
        toast(errorText(error), "bad");
    }
}
