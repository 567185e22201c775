// What the console uses of xterm.js, which the browser loads from the machine.
export class Terminal {
    constructor(options: { cursorBlink: boolean; fontSize: number });
    readonly cols: number;
    readonly rows: number;
    open(parent: HTMLElement): void;
    focus(): void;
    write(data: string | Uint8Array): void;
    loadAddon(addon: object): void;
    onData(listener: (data: string) => void): void;
    onBinary(listener: (data: string) => void): void;
}
