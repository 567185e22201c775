import { lastOf, type LogPart, readLog } from "./log_part";

/** How many lines are shown at a time. */
export const PAGE_LINES = 200;

const NOTHING_OLDER = "Nothing older is kept.";

/** What stands before a part of a log: in its file or, where that begins, at the end of the one
 * before. The text of the error that is thrown tells where there is nothing. */
export async function olderThan(name: string, part: LogPart): Promise<LogPart> {
    if (part.from > 1) {
        return present(await readLog(name, Math.max(1, part.from - PAGE_LINES), part.from - 1, part.generation));
    }
    if (part.generation === 0) {
        throw new Error(NOTHING_OLDER);
    }
    const generation = part.generation - 1;
    const { total } = present(await readLog(name, 1, 1, generation));
    return present(await readLog(name, Math.max(1, total - (PAGE_LINES - 1)), total, generation));
}

/** What stands behind a part of a log whose newest file is that of the generation; nothing at its
 * end. */
export async function newerThan(name: string, part: LogPart, newest: number): Promise<LogPart | undefined> {
    let next = lastOf(part) + 1;
    for (let generation = part.generation; generation <= newest; ++generation) {
        const found = await readLog(name, next, next + (PAGE_LINES - 1), generation);
        if (found.lines.length > 0) {
            return found;
        }
        next = 1;
    }
    return undefined;
}

/** A file that is gone has no lines. */
function present(part: LogPart): LogPart {
    if (part.lines.length === 0) {
        throw new Error(NOTHING_OLDER);
    }
    return part;
}
