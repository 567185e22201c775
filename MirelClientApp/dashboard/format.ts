/** How long ago a time in seconds since the epoch was; empty for 0. */
export function relativeTime(seconds: number, now = Date.now() / 1000): string {
    if (seconds === 0) {
        return "";
    }
    const age = Math.max(0, Math.floor(now - seconds));
    const minutes = Math.floor(age / 60);
    const hours = Math.floor(minutes / 60);
    if (age < 60) {
        return `${age}s ago`;
    }
    if (minutes < 60) {
        return `${minutes}m ago`;
    }
    return hours < 24 ? `${hours}h ${minutes % 60}m ago` : `${Math.floor(hours / 24)}d ago`;
}

/** A time in seconds since the epoch by the clock of whoever looks at it; empty for 0. */
export function localTime(seconds: number): string {
    const time = new Date(seconds * 1000);
    if (seconds === 0 || Number.isNaN(time.getTime())) {
        return "";
    }
    const two = (part: number) => String(part).padStart(2, "0");
    return (
        `${time.getFullYear()}-${two(time.getMonth() + 1)}-${two(time.getDate())} ` +
        `${two(time.getHours())}:${two(time.getMinutes())}:${two(time.getSeconds())}`
    );
}
