import { api, errorText, packagePath, textAt } from "../api";
import type { Lifetime } from "../lifetime";

const POLL_MILLISECONDS = 700;

const LABELS: Record<string, string> = {
    downloading: "Downloading…",
    installing: "Installing…",
    starting: "Starting…",
    done: "Done",
    error: "Failed",
};

export interface Build {
    channel: string;
    version: string;
    arch: string;
}

export type Progress = (text: string, kind: "" | "good" | "bad") => void;

/** Has the machine fetch and install a build, and nothing more: it goes on by itself. */
export async function requestUpdate(name: string, build: Build): Promise<void> {
    await api("POST", packagePath(name, "update"), build);
}

/** Follows the update of a package to a version as long as the view lives, or until another update
 * has taken over. `done` is called when the version is installed. */
export function followUpdate(
    name: string,
    version: string,
    life: Lifetime,
    progress: Progress,
    done: () => void,
): void {
    const timer = window.setInterval(() => void step(), POLL_MILLISECONDS);
    const end = () => window.clearInterval(timer);
    let running = false;
    life.onEnd(end);

    const show = (status: unknown) => {
        const phase = textAt(status, "phase");
        if (phase !== "" && textAt(status, "target_version") !== version) {
            end();
            progress("", "");
        } else if (phase === "done") {
            end();
            progress(LABELS.done ?? "", "good");
            done();
        } else if (phase === "error") {
            end();
            progress(`${LABELS.error}: ${textAt(status, "error")}`, "bad");
        } else {
            progress(LABELS[phase] ?? phase, "");
        }
    };
    const step = async () => {
        if (running || life.ended) {
            return;
        }
        running = true;
        try {
            const status = await api("GET", packagePath(name, "update-status"));
            if (!life.ended) {
                show(status);
            }
        } catch (error) {
            progress(errorText(error), "bad");
        } finally {
            running = false;
        }
    };
}
