// A browser that is driven by lines of JSON: one command a line on the standard input, one answer a
// line on the standard output. It is headless Chromium, with one page at a time.
//
//     {"do": "open", "args": [width, height]}          a fresh empty page, without what earlier ones stored
//     {"do": "close"}
//     {"do": "page", "method": ..., "args": [...]}     a method of the page
//     {"do": "stop_clock", "args": [time]}             for the page opened next: it stands until it is moved
//     {"do": "pass_time", "args": [milliseconds]}      moves it, once the page has dealt with all its answers
//     {"do": "evaluate", "args": [function, argument]} what a function in the page returns
//     {"do": "type", "args": [text]}                   into what has the focus
//     {"do": "press", "args": [key]}                   on what has the focus
//     {"do": "locator", "selector": ..., "method": ..., "args": [...]}
//     {"do": "answer", "args": [path, status, body]}   stands in for the machine's answer to a path
//     {"do": "hold", "args": [path]}                   leaves what is asked of a path without an answer
//     {"do": "told"}                                   what the page asked for, where to it has opened
//                                                      WebSockets, and its errors
//
// The answer is {"result": ...} or {"error": text}.
import { createRequire } from "node:module";
import { createInterface } from "node:readline";

const require = createRequire(`${process.env.MIREL_BROWSER_NPM}/package.json`);
const { chromium } = require("playwright-core");

const browser = await chromium.launch({
    executablePath: "/usr/bin/chromium",
    args: ["--no-sandbox", "--disable-gpu", "--disable-dev-shm-usage"],
});
let context;
let page;
let held = [];
let requests = [];
let sockets = [];
let errors = [];

// Runs in the page: notes the paths whose answers it has not read yet. What it does with an answer
// it does before anyone else gets a turn.
function noteUnread() {
    const ask = window.fetch;
    const unread = new Map();
    window.unreadPaths = () => [...unread.values()];
    window.fetch = async (url, options) => {
        const request = Symbol();
        unread.set(request, String(url));
        try {
            const response = await ask(url, options);
            const read = response.text.bind(response);
            response.text = () => read().finally(() => unread.delete(request));
            return response;
        } catch (error) {
            unread.delete(request);
            throw error;
        }
    };
}

// A timer that the page sets because of an answer must not miss the time that passes.
async function settle() {
    const end = Date.now() + 20000;
    while (Date.now() < end && (await page.evaluate(() => window.unreadPaths())).some((path) => !held.includes(path))) {
        await new Promise((resolve) => setTimeout(resolve, 5));
    }
}

const commands = {
    async open({ args: [width, height] }) {
        await context?.close();
        context = await browser.newContext({
            viewport: { width, height },
            permissions: ["clipboard-read", "clipboard-write"],
        });
        held = [];
        requests = [];
        sockets = [];
        errors = [];
        page = await context.newPage();
        page.setDefaultTimeout(20000);
        page.on("request", (request) => {
            const { pathname, search } = new URL(request.url());
            requests.push({ method: request.method(), path: pathname + search, body: request.postData() });
        });
        page.on("websocket", (socket) => sockets.push(new URL(socket.url()).pathname));
        page.on("pageerror", (error) => errors.push(String(error)));
        page.on("console", (message) => {
            if (message.type() === "error" || message.type() === "warning") {
                errors.push(`${message.text()} ${message.location().url}`);
            }
        });
    },
    close: () => page?.close(),
    page: ({ method, args }) => page[method](...args),
    async stop_clock({ args: [time] }) {
        await page.addInitScript(noteUnread);
        await page.clock.install({ time: time - 60000 });
        await page.clock.pauseAt(time);
    },
    async pass_time({ args: [milliseconds] }) {
        await settle();
        await page.clock.runFor(milliseconds);
    },
    evaluate: ({ args: [script, argument] }) => page.evaluate((0, eval)(`(${script})`), argument),
    type: ({ args: [text] }) => page.keyboard.type(text),
    press: ({ args: [key] }) => page.keyboard.press(key),
    locator: ({ selector, method, args }) => page.locator(selector)[method](...args),
    answer: ({ args: [path, status, body] }) =>
        page.route(
            (url) => url.pathname + url.search === path,
            (route) => route.fulfill({ status, contentType: "application/json", body }),
        ),
    hold({ args: [path] }) {
        held.push(path);
        return page.route((url) => url.pathname + url.search === path, () => {});
    },
    told: () => ({ requests, sockets, errors }),
};

for await (const line of createInterface({ input: process.stdin })) {
    const command = JSON.parse(line);
    let answer;
    try {
        const result = await commands[command.do](command);
        const isPlain = result?.constructor === Object || Array.isArray(result) || typeof result !== "object";
        answer = { result: Buffer.isBuffer(result) ? result.toString("base64") : isPlain ? result : null };
    } catch (error) {
        answer = { error: String(error) };
    }
    process.stdout.write(`${JSON.stringify(answer)}\n`);
}
await browser.close();
