import { el } from "../dom";

/** A backtrace: for each frame the function, as far as it can be told, above the line as it was
 * recorded. */
export function framesOf(lines: string[]): HTMLElement {
    const frames = lines.map((line) => el("div", {}, functionIn(line), el("small", {}, line)));
    return el("pre", { className: "log frames", tabIndex: 0 }, ...frames);
}

/** Of a line "FILE(NAME+OFFSET) [ADDRESS]"; where it has no name, file and offset, and a line of
 * another form as it stands. */
function functionIn(line: string): string {
    const parts = /^(.*)\(([^()]*?)(\+0x[0-9a-f]+)?\) \[0x[0-9a-f]+\]$/.exec(line);
    if (parts === null) {
        return line;
    }
    const [, file = "", name = "", offset = ""] = parts;
    return name === "" ? file.replace(/^.*\//, "") + offset : readable(name);
}

/** The names within a mangled one: "_ZN4shop5Order4saveEv" is "shop::Order::save". What is more than
 * names, as operators and templates are, stays as it is. */
function readable(mangled: string): string {
    const nested = /^_ZN(?:V?K)?[RO]?(?=\d)/.exec(mangled);
    const names: string[] = [];
    let rest = mangled.slice(nested?.[0].length ?? (/^_Z(?=\d)/.test(mangled) ? 2 : mangled.length));
    for (let length = /^\d+/.exec(rest); length !== null; length = /^\d+/.exec(rest)) {
        const end = length[0].length + Number(length[0]);
        names.push(rest.slice(length[0].length, end).replace(/^_GLOBAL__N_.*/, "(anonymous)"));
        rest = rest.slice(end);
        if (nested === null) {
            return names.join("");
        }
    }
    return nested !== null && rest.startsWith("E") ? names.join("::") : mangled;
}
