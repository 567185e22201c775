import { api, errorText, numberAt, packagePath, textAt } from "../api";
import { Card } from "../card";
import { el, setText, whileDisabled } from "../dom";
import type { Lifetime } from "../lifetime";
import { logFrame, logLines } from "./log_lines";
import { newerThan, olderThan, PAGE_LINES } from "./log_pages";
import { lastOf, type LogPart, readLog } from "./log_part";

const REFRESH_MILLISECONDS = 2000;

export function showLogs(card: Card, name: string, life: Lifetime): void {
    card.show(new LogView(name, life).element);
}

/** A package's log: its end, which is followed, or any earlier page of it, which stands still. */
class LogView {
    readonly #name: string;
    readonly #life: Lifetime;
    readonly #card = new Card();
    readonly #frame = logFrame();
    readonly #place = el("span", { className: "hint" });
    readonly #problem = el("span", { className: "error", role: "status" });
    readonly #follow = this.#button("Live", () => this.#goLive());
    readonly #buttons = [
        this.#button("Older", () => this.#turnTo((part) => olderThan(this.#name, part), true)),
        this.#button("Newer", () => this.#turnTo((part) => this.#newerThan(part), false)),
        this.#follow,
    ];
    readonly element = el(
        "section",
        {},
        el("div", { className: "line heading" }, ...this.#buttons, this.#place, this.#problem),
        this.#card.element,
    );
    #isLive = true;
    /** Counts what was clicked: an answer to what was asked for earlier comes too late. */
    #turn = 0;
    /** What is shown. */
    #part: LogPart | undefined;

    constructor(name: string, life: Lifetime) {
        this.#name = name;
        this.#life = life;
        this.#say("");
        life.every(REFRESH_MILLISECONDS, async () => {
            if (this.#isLive) {
                await this.#readEnd();
            }
        });
    }

    #button(label: string, task: () => Promise<void>): HTMLButtonElement {
        const button = el("button", { type: "button" }, label);
        button.addEventListener("click", () => void whileDisabled(this.#buttons, task));
        return button;
    }

    async #goLive(): Promise<void> {
        ++this.#turn;
        this.#isLive = true;
        this.#frame.scrollTop = this.#frame.scrollHeight;
        await this.#readEnd();
    }

    /** The newest lines. They keep being shown unless the frame was scrolled up. */
    async #readEnd(): Promise<void> {
        const turn = this.#turn;
        try {
            const info = await this.#info();
            const to = numberAt(info, "line_count");
            const part =
                to > 0
                    ? await readLog(this.#name, Math.max(1, to - (PAGE_LINES - 1)), to)
                    : { generation: numberAt(info, "generation"), from: 1, lines: [], total: 0 };
            if (turn === this.#turn) {
                const scrolledTo = isAtEnd(this.#frame) ? undefined : this.#frame.scrollTop;
                this.#show(part, info);
                this.#frame.scrollTop = scrolledTo ?? this.#frame.scrollHeight;
            }
        } catch (error) {
            if (turn === this.#turn && !this.#life.ended) {
                this.#card.error(error);
                this.#say("");
            }
        }
    }

    /** Stops following, and shows another page where there is one. */
    async #turnTo(find: (part: LogPart) => Promise<LogPart | undefined>, toItsEnd: boolean): Promise<void> {
        const turn = ++this.#turn;
        this.#isLive = false;
        const from = this.#part;
        try {
            const found = from && (await find(from));
            const info = await this.#info();
            if (turn !== this.#turn) {
                return;
            }
            if (found === undefined) {
                await this.#goLive();
                return;
            }
            this.#show(found, info);
            this.#frame.scrollTop = toItsEnd ? this.#frame.scrollHeight : 0;
        } catch (error) {
            this.#say(this.#place.textContent ?? "", errorText(error));
        }
    }

    async #newerThan(part: LogPart): Promise<LogPart | undefined> {
        return newerThan(this.#name, part, numberAt(await this.#info(), "generation"));
    }

    #info(): Promise<unknown> {
        return api("GET", packagePath(this.#name, "log", "info"));
    }

    #show(part: LogPart, info: unknown): void {
        this.#part = part;
        this.#say(placeOf(part, info));
        if (part.lines.length === 0) {
            this.#card.empty("The log is empty.");
            return;
        }
        this.#card.update(part, () => {
            this.#frame.replaceChildren(...logLines(part.lines));
            return [this.#frame];
        });
    }

    #say(place: string, problem = ""): void {
        setText(this.#place, place);
        setText(this.#problem, problem);
        this.#follow.setAttribute("aria-pressed", String(this.#isLive));
    }
}

function placeOf(part: LogPart, info: unknown): string {
    const path = textAt(info, "path");
    const file = part.generation < numberAt(info, "generation") ? `${path}.${part.generation}` : path;
    const lines = part.lines.length > 0 ? `lines ${part.from}–${lastOf(part)} of ${part.total}` : "no lines";
    return path === "" ? lines : `${lines} in ${file}`;
}

function isAtEnd(element: HTMLElement): boolean {
    return element.scrollHeight - element.scrollTop - element.clientHeight < 4;
}
