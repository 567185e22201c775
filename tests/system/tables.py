"""The tables that the programs print, drawn once more."""

BOLD, DIM, BOLD_CYAN, GREEN, BLUE, RESET = (
    f"\033[{code}m" for code in ["1", "2", "1;36", "32", "34", "0"])


def wrapped(text, width):
    lines, line = [], ""
    for word in text.split(" "):
        while len(word) > width:
            if line:
                lines.append(line)
                line = ""
            lines.append(word[:width])
            word = word[width:]
        if line and word and len(line) + 1 + len(word) > width:
            lines.append(line)
            line = ""
        line = f"{line} {word}" if line and word else line or word
    return lines + [line] if line or not lines else lines


def colored(text, color):
    return f"{color}{text}{RESET}" if color else text


def drawn_row(cells, widths, colors):
    """One line on the screen: the padding counts the text without its colour."""
    drawn = (colored(cell, color) + " " * (width - len(cell))
             for cell, width, color in zip(cells, widths, colors))
    return "│ " + " │ ".join(drawn) + " │\n"


def drawn_table(headers, limits, rows, colors=None):
    """`colors` has a list per row; without them nothing is coloured."""
    widths = [max([len(header), *(min(len(row[i]), limit or len(row[i])) for row in rows)])
              for i, (header, limit) in enumerate(zip(headers, limits))]
    none = [""] * len(headers)

    def rule(left, crossing, right):
        return left + crossing.join("─" * (width + 2) for width in widths) + right + "\n"

    text = rule("┌", "┬", "┐") + drawn_row(headers, widths, [BOLD] * len(headers) if colors else none)
    for number, row in enumerate(rows):
        text += rule("├", "┼", "┤")
        cells = [wrapped(cell, width) for cell, width in zip(row, widths)]
        for line in range(max(map(len, cells))):
            text += drawn_row([cell[line] if line < len(cell) else "" for cell in cells], widths,
                              colors[number] if colors and line == 0 else none)
    return text + rule("└", "┴", "┘")


def config_table(fields, in_color=False):
    """The list of a configuration, from its fields as the web tells them."""
    rows = [[field["name"], field["type_name"],
             field["current_value"] + (" [default]" if field["is_default"] else ""),
             field["description"]] for field in fields]
    colors = [[BOLD_CYAN, GREEN if field["type_name"] == "string" else BLUE,
               DIM if field["is_default"] else BOLD, ""] for field in fields]
    return drawn_table(["NAME", "TYPE", "VALUE", "DESCRIPTION"], [0, 0, 32, 60], rows,
                       colors if in_color else None)
