// What the viewer uses of noVNC, which the browser loads from the machine.
export default class RFB extends EventTarget {
    constructor(target: HTMLElement, channel: WebSocket);
    scaleViewport: boolean;
    background: string;
    disconnect(): void;
    focus(): void;
    sendCredentials(credentials: Record<string, string>): void;
}
