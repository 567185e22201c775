// What the console uses of xterm.js's fit addon, which the browser loads from the machine.
export class FitAddon {
    fit(): void;
}
