/** Terminals and remote screens take every key for themselves. This one leads back to the tab that
 * they belong to. */
export const LEAVE_HINT = "Ctrl+Shift+↑ leads back to the tabs";

export function leaveByKey(element: HTMLElement): void {
    const leave = (event: KeyboardEvent) => {
        if (event.key !== "ArrowUp" || !event.ctrlKey || !event.shiftKey || event.altKey) {
            return;
        }
        event.preventDefault();
        event.stopPropagation();
        // What goes on without the focus lets go of the keys then, as when the window is left.
        window.dispatchEvent(new Event("blur"));
        const tabs = document.querySelectorAll<HTMLElement>("[role=tab][aria-selected=true]");
        [...tabs].filter((tab) => tab.offsetParent !== null).pop()?.focus();
    };
    element.addEventListener("keydown", leave, { capture: true });
}
