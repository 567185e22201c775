// The machine's REST API as the page sees it.

/** What stands before every API path: the part of the address below which a proxy serves this
 * machine, or nothing when the page comes from the machine itself. */
export function apiBase(): string {
    const prefix = /^\/api\/clients\/[^/]+\/proxy(?=\/|$)/.exec(window.location.pathname);
    return prefix?.[0] ?? "";
}

/** Asks the machine; the answer is its JSON, or its text where it is none. Any answer but a success
 * is thrown, as an error with the machine's own sentence. */
export async function api(method: "GET" | "POST", path: string, body?: object): Promise<unknown> {
    const request: RequestInit = { method, cache: "no-store" };
    if (body !== undefined) {
        request.headers = { "Content-Type": "application/json" };
        request.body = JSON.stringify(body);
    }
    const response = await fetch(apiBase() + path, request);
    const answer = parsed(await response.text());
    if (!response.ok) {
        throw new Error(textAt(answer, "error") || `HTTP ${response.status}`);
    }
    return answer;
}

/** The path of a package's own routes. */
export function packagePath(name: string, ...parts: string[]): string {
    return ["/api/packages", ...[name, ...parts].map(encodeURIComponent)].join("/");
}

export function registryPath(name: string, ...parts: string[]): string {
    return ["/api/registry/packages", ...[name, ...parts].map(encodeURIComponent)].join("/");
}

/** An address for a WebSocket on the host that the page comes from. */
export function webSocketUrl(path: string): string {
    const scheme = window.location.protocol === "https:" ? "wss:" : "ws:";
    return `${scheme}//${window.location.host}${path}`;
}

export function errorText(error: unknown): string {
    return error instanceof Error ? error.message : String(error);
}

function parsed(text: string): unknown {
    try {
        return JSON.parse(text);
    } catch {
        return text;
    }
}

// Much of what is shown comes from registries and packages, so nothing is taken for granted about
// its form: what is missing or of another type reads as empty.

export function valueAt(value: unknown, key: string): unknown {
    return typeof value === "object" && value !== null && Object.hasOwn(value, key)
        ? (value as Record<string, unknown>)[key]
        : undefined;
}

export function textAt(value: unknown, key: string): string {
    const found = valueAt(value, key);
    return typeof found === "string" ? found : "";
}

export function numberAt(value: unknown, key: string): number {
    const found = valueAt(value, key);
    return typeof found === "number" ? found : 0;
}

export function listAt(value: unknown, key: string): unknown[] {
    const found = valueAt(value, key);
    return Array.isArray(found) ? found : [];
}

export function textsAt(value: unknown, key: string): string[] {
    return listAt(value, key).map((entry) => (typeof entry === "string" ? entry : ""));
}
