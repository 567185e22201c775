import { api, numberAt, packagePath, textAt, textsAt, valueAt } from "../api";

/** Lines of one of the files that a log consists of: the one that is written, and those that were
 * rotated out, each with a lower generation than the next. Lines count from 1 within their file. */
export interface LogPart {
    generation: number;
    from: number;
    lines: string[];
    /** In the whole file. */
    total: number;
}

/** The number of the part's last line; one less than that of its first where there is none. */
export function lastOf(part: LogPart): number {
    return part.from + part.lines.length - 1;
}

/** The lines from one to another, or as many of them as there are; of the file that is written
 * unless another one is named. What the application could not read is thrown. */
export async function readLog(name: string, from: number, to: number, generation?: number): Promise<LogPart> {
    const part = await ask(name, from, to, generation);
    // An answer has its limit, which many long lines come to.
    while (part.lines.length > 0 && lastOf(part) < Math.min(to, part.total)) {
        const more = await ask(name, lastOf(part) + 1, to, part.generation);
        if (more.lines.length === 0) {
            break;
        }
        part.lines.push(...more.lines);
    }
    return part;
}

async function ask(name: string, from: number, to: number, generation?: number): Promise<LogPart> {
    const file = generation === undefined ? "" : `&generation=${generation}`;
    const answer = await api("GET", `${packagePath(name, "log")}?from=${from}&to=${to}${file}`);
    if (valueAt(answer, "ok") === false) {
        throw new Error(textAt(answer, "error") || "the log could not be read");
    }
    return {
        generation: numberAt(answer, "generation"),
        from: numberAt(answer, "from_line") || from,
        lines: textsAt(answer, "lines"),
        total: numberAt(answer, "total_lines"),
    };
}
