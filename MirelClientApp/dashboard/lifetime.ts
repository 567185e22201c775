/** How long a view is shown: what runs for it ends with it. */
export class Lifetime {
    #ended = false;
    #ends: (() => void)[] = [];

    get ended(): boolean {
        return this.#ended;
    }

    onEnd(task: () => void): void {
        if (this.#ended) {
            task();
        } else {
            this.#ends.push(task);
        }
    }

    end(): void {
        this.#ended = true;
        for (const task of this.#ends.splice(0)) {
            task();
        }
    }

    /** Takes the step now and then once per period, but never a second time while it goes on. */
    every(milliseconds: number, step: () => Promise<void>): void {
        let running = false;
        const tick = async () => {
            if (!running && !this.#ended) {
                running = true;
                await step().finally(() => (running = false));
            }
        };
        const timer = window.setInterval(() => void tick(), milliseconds);
        this.onEnd(() => window.clearInterval(timer));
        void tick();
    }
}
