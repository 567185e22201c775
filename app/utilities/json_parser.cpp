// body follows
