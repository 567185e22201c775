import { el } from "./dom";
import { Tabs } from "./tabs";
import { ConsoleView } from "./views/console";
import { PackagesView } from "./views/packages";
import { RegistryView } from "./views/registry";
import { SelfView } from "./views/self";
import { keepSummary } from "./views/summary";

interface Panel {
    element: HTMLElement;
    /** Called each time the tab is opened. */
    open?: () => void;
}

function placeOf(id: string): HTMLElement {
    const element = document.getElementById(id);
    if (element === null) {
        throw new Error(`the page has no "${id}"`);
    }
    return element;
}

const packages = new PackagesView();
const registry = new RegistryView((name, version) => {
    packages.tellOfUpdate(name, version);
    tabs.open("Packages");
});
const terminal = new ConsoleView();
const self = new SelfView();
const views: Record<string, Panel> = {
    Packages: { element: packages.element },
    Registry: { element: registry.element, open: () => void registry.open() },
    Console: { element: terminal.element, open: () => terminal.open() },
    Self: { element: self.element, open: () => self.open() },
};

const panels = Object.entries(views).map(([name, view]) => {
    const panel = el("div", { role: "tabpanel", "aria-label": name, hidden: true }, view.element);
    return { name, panel, view };
});
placeOf("panels").append(...panels.map(({ panel }) => panel));

const tabs = new Tabs("Views", Object.keys(views), (opened) => {
    panels.forEach(({ name, panel }) => (panel.hidden = name !== opened));
    views[opened]?.open?.();
});
placeOf("tabs").append(tabs.element);
tabs.open("Packages");
keepSummary(placeOf("summary"));
