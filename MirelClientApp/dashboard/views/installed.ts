import { api, listAt, textAt } from "../api";

/** The entries of all installed packages. */
export async function installedPackages(): Promise<unknown[]> {
    return listAt(await api("GET", "/api/packages"), "body");
}

export async function installedPackage(name: string): Promise<unknown> {
    const found = (await installedPackages()).find((entry) => textAt(entry, "name") === name);
    if (found === undefined) {
        throw new Error(`"${name}" is not installed`);
    }
    return found;
}
