import type RFB from "/static/novnc/core/rfb.js";

import { apiBase, errorText, listAt, textAt, valueAt, webSocketUrl } from "../api";
import type { Card } from "../card";
import { button, el, setText } from "../dom";
import { LEAVE_HINT, leaveByKey } from "../leave_key";
import type { Lifetime } from "../lifetime";

const UNEXPECTED = " (unexpectedly - is the package running and does it expose an RFB server?)";

/** The screen of a package's own VNC server; the connection ends with the view. */
export function showVnc(card: Card, _name: string, life: Lifetime): void {
    const state = el("span", { className: "hint", role: "status" });
    const screen = el("div", { className: "screen" });
    const prompt = el("div");
    let viewer: RFB | undefined;

    const disconnect = () => viewer?.disconnect();
    const connect = async () => {
        disconnect();
        setText(state, "connecting…");
        try {
            const { default: Viewer } = await import("/static/novnc/core/rfb.js");
            if (life.ended) {
                return;
            }
            const socket = new WebSocket(webSocketUrl(`${apiBase()}/api/vnc/ws`));
            // The viewer takes every end of a socket that was connected for a clean one. This
            // listener comes before the viewer's own.
            let cut = false;
            socket.addEventListener("close", (event) => (cut = !event.wasClean));
            const made = new Viewer(screen, socket);
            viewer = made;
            made.scaleViewport = true;
            made.background = "transparent";
            const ended = () => (viewer = undefined);
            watch(made, () => viewer === made, () => cut, ended, state, prompt);
        } catch (error) {
            setText(state, errorText(error));
        }
    };

    life.onEnd(disconnect);
    leaveByKey(screen);
    card.show(
        el("div", { className: "line" },
            button("Connect", connect, "primary"),
            button("Disconnect", disconnect),
            state,
        ),
        prompt,
        screen,
        el("small", { className: "keys" }, LEAVE_HINT),
    );
}

/** Shows what becomes of a connection, as long as no later one has taken its place. `wasCut` tells
 * whether its socket has ended without a word. */
function watch(
    viewer: RFB,
    isCurrent: () => boolean,
    wasCut: () => boolean,
    ended: () => void,
    state: HTMLElement,
    prompt: HTMLElement,
): void {
    const on = (event: string, task: (detail: unknown) => void) => {
        viewer.addEventListener(event, (happened) => {
            if (isCurrent()) {
                task((happened as CustomEvent).detail);
            }
        });
    };
    let reason = "";
    on("connect", () => {
        setText(state, "connected");
        viewer.focus();
    });
    on("disconnect", (detail) => {
        const clean = valueAt(detail, "clean") === true && !wasCut();
        ended();
        prompt.replaceChildren();
        setText(state, `disconnected${clean ? "" : UNEXPECTED}${reason}`);
    });
    on("securityfailure", (detail) => {
        reason = `: ${textAt(detail, "reason")}`;
    });
    on("credentialsrequired", (detail) => {
        const types = listAt(detail, "types").map(String);
        askForCredentials(prompt, types.length > 0 ? types : ["password"], (credentials) =>
            viewer.sendCredentials(credentials),
        );
    });
}

function askForCredentials(
    prompt: HTMLElement,
    types: string[],
    send: (credentials: Record<string, string>) => void,
): void {
    const fields = types.map((type) =>
        el("input", {
            type: type === "password" ? "password" : "text",
            name: type,
            placeholder: type,
            "aria-label": type,
            autocomplete: "off",
        }),
    );
    const form = el("form", { className: "line" }, ...fields, el("button", { type: "submit" }, "Send"));
    form.addEventListener("submit", (event) => {
        event.preventDefault();
        prompt.replaceChildren();
        send(Object.fromEntries(fields.map((field) => [field.name, field.value])));
    });
    prompt.replaceChildren(form);
    fields[0]?.focus();
}
