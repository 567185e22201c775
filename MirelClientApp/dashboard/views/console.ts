import type { FitAddon } from "/static/xterm/addon-fit.mjs";
import type { Terminal } from "/static/xterm/xterm.mjs";

import { errorText, webSocketUrl } from "../api";
import { el } from "../dom";
import { LEAVE_HINT, leaveByKey } from "../leave_key";

/** The machine ends a terminal whose message is larger than a megabyte; a paste may be. */
const PIECE_BYTES = 65536;

/** A shell on the machine. The terminal is opened with the tab's first opening and then stays. */
export class ConsoleView {
    readonly #note = el("p", { className: "note" }, "Loading…");
    readonly #screen = el("div", { className: "tty" }, this.#note);
    readonly element = el("section", {}, this.#screen, el("small", { className: "keys" }, LEAVE_HINT));
    #opened = false;
    #shown: (() => void) | undefined;

    open(): void {
        if (this.#opened) {
            this.#shown?.();
            return;
        }
        this.#opened = true;
        this.#start().catch((error: unknown) => {
            this.#note.textContent = `The terminal could not be loaded: ${errorText(error)}`;
            this.#note.className = "note error";
        });
    }

    async #start(): Promise<void> {
        const [xterm, addon] = await Promise.all([
            import("/static/xterm/xterm.mjs"),
            import("/static/xterm/addon-fit.mjs"),
        ]);
        const terminal = new xterm.Terminal({ cursorBlink: true, fontSize: 13 });
        const fit = new addon.FitAddon();
        terminal.loadAddon(fit);
        this.#note.remove();
        leaveByKey(this.#screen);
        terminal.open(this.#screen);
        fit.fit();
        const resize = connect(terminal, fit);
        window.addEventListener("resize", resize);
        // The window may have changed its size while another tab was open.
        this.#shown = () => {
            resize();
            terminal.focus();
        };
        terminal.focus();
    }
}

/** Joins the terminal to a shell; the result fits it to its place and tells the shell. */
function connect(terminal: Terminal, fit: FitAddon): () => void {
    // At the root of the host also behind a proxy's prefix: only API calls follow that.
    const socket = new WebSocket(webSocketUrl("/api/console/ws"));
    socket.binaryType = "arraybuffer";
    const send = (data: string | Uint8Array) => {
        if (socket.readyState === WebSocket.OPEN) {
            socket.send(data);
        }
    };
    const resize = () => {
        fit.fit();
        send(JSON.stringify({ cols: terminal.cols, rows: terminal.rows }));
    };
    const sayInRed = (text: string) => terminal.write(`\r\n\x1b[31m${text}\x1b[0m\r\n`);

    socket.addEventListener("open", resize);
    socket.addEventListener("message", (event: MessageEvent<unknown>) => {
        if (event.data instanceof ArrayBuffer) {
            terminal.write(new Uint8Array(event.data));
        }
    });
    socket.addEventListener("close", () => sayInRed("[connection closed]"));
    socket.addEventListener("error", () => sayInRed("[connection error]"));
    const sendKeys = (bytes: Uint8Array) => {
        for (let at = 0; at < bytes.length; at += PIECE_BYTES) {
            send(bytes.subarray(at, at + PIECE_BYTES));
        }
    };
    const encoder = new TextEncoder();
    terminal.onData((text) => sendKeys(encoder.encode(text)));
    terminal.onBinary((bytes) => sendKeys(Uint8Array.from(bytes, (byte) => byte.charCodeAt(0))));
    return resize;
}
